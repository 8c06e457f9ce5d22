// The seam between the replay tool and whatever turns input frames into output frames.
//
// A session receives a recording (frames with timestamps, gyro samples, the configuration
// text) and the output surfaces to create, runs it, and reports every frame handed to the
// camera and every frame an output window received. The engine session drives the engine as
// the Java side does (resume, surfaces added, camera set with the configuration text, frames
// and gyro flowing through the host camera and sensor, camera removed, surfaces removed,
// pause); the pass-through session hands every frame straight to the outputs, so that the
// whole tool can run and be tested without an engine.
#pragma once

#include "input/Recording.h"
#include "media/Image.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

struct OutputSurfaceSpec {
    int width = 0;
    int height = 0;
    int format = 1;       // HAL pixel format: 1 = RGBA_8888
    int bufferCount = 3;  // window buffers
};

struct SessionConfig {
    std::string configText;                   // handed to setCamera as it stands
    std::vector<OutputSurfaceSpec> surfaces;  // at least one; surface 0 is the recorded video
    // false: frames go as fast as the engine takes them, none dropped (the camera waits for a
    // free slot); true: frames are delivered at their timestamps' pace and may be dropped.
    bool realtime = false;
    // Switches on the engine's diagnostics (its timing probes' log lines).
    bool engineDebugLog = true;
};

// Called by the session from its threads; implementations synchronise themselves.
class SessionObserver {
  public:
    virtual ~SessionObserver() = default;
    // The camera hands frame `index` (recording timestamp `timestampNs`) to the engine.
    // Called on the camera's thread, in index order, before the engine can have output it.
    virtual void onFrameDelivered(int index, int64_t timestampNs, const Nv21Image& frame) = 0;
    // Output window `surface` received a frame stamped `timestampNs`, translated back to the
    // recording's clock. Called on the window consumer's thread; `image` is valid only during
    // the call.
    virtual void onFrameOutput(int surface, int64_t timestampNs, const RgbaView& image) = 0;
};

struct SessionResult {
    int framesDelivered = 0;
    int framesLate = 0;            // realtime: frames that could not be produced by their due time
    int renderedUnstabilized = 0;  // counted by the session itself (the engine's are in its log)
    double wallSec = 0;
    std::vector<std::string> notes;     // facts about the run for the report (not faults)
    std::vector<std::string> warnings;  // what went wrong without ending the run
};

class ReplaySession {
  public:
    virtual ~ReplaySession() = default;
    virtual const char* name() const = 0;
    // Runs the whole recording; returns after the last output frame has been reported and
    // everything is torn down. Throws on failure (ReplayError for input faults, other
    // std::exceptions for engine failures).
    virtual SessionResult run(FrameSource& frames, const std::vector<GyroSample>& gyro,
                              const SessionConfig& config, SessionObserver& observer) = 0;
};

// Every input frame is converted to RGBA (same conversion as the engine's sampler) and scaled
// (nearest neighbour) to each surface, with its own timestamp: what an engine that does not
// stabilize would output.
std::unique_ptr<ReplaySession> makePassThroughSession();

// No engine, but the stabilization library itself: frames and gyro samples go straight into
// it, and each frame is drawn through its warp grid (vertex (i, j) showing texture point
// (i/(columns-1), j/(rows-1)), positions x right and y down in -1..1) by a CPU rasterizer.
// Frames the library cannot warp are drawn with the engine's unwarped grid (+-1.25).
std::unique_ptr<ReplaySession> makeLibrarySession();

}  // namespace qlmr::replay
