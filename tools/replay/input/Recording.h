// A recording to replay: frames with timestamps, gyro samples and the configuration text.
// The folder format is described in docs/recording-format.md; loadRecording validates all of
// it up front (each fault is one ReplayError naming file and line), so that a replay never
// stops half-way on bad input.
#pragma once

#include "media/Image.h"
#include "media/ImageIo.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

// One angular-velocity sample, rad/s about the gyro's x, y, z axes, time in nanoseconds.
struct GyroSample {
    int64_t timestampNs = 0;
    float x = 0;
    float y = 0;
    float z = 0;
};

// The largest angular velocity a sample may hold, rad/s on any axis: about 2000 deg/s, the
// top of a phone gyroscope's range. A sample beyond it is a damaged one, not motion.
constexpr double kMaxGyroRate = 35.0;

class CsvReader;

// Reads one angular-velocity field of `csv`'s current line, rad/s about `axis`: a finite
// number within ±kMaxGyroRate, else a ReplayError at that line naming the value and the limit.
float readGyroRate(const CsvReader& csv, const std::string& field, const char* axis);

// Exposure written into frames whose recording does not give one (microseconds).
constexpr int kDefaultExposureUs = 10000;

// Delivers a recording's frames as NV21 pictures, in order. Implementations reuse their
// decoding buffers: frames are asked for once each, with increasing index.
class FrameSource {
  public:
    virtual ~FrameSource() = default;

    virtual int width() const = 0;
    virtual int height() const = 0;
    virtual int count() const = 0;
    // Start-of-frame (first row) time of frame `index`, nanoseconds, strictly increasing.
    virtual int64_t timestampNs(int index) const = 0;
    // Exposure time of frame `index`, microseconds.
    virtual int exposureUs(int index) const = 0;
    // Writes frame `index` into `out`, which the caller has sized to width() x height().
    // Throws ReplayError on a decoding fault.
    virtual void read(int index, Nv21Image& out) = 0;
    // One line for logs and the report.
    virtual std::string describe() const = 0;
    // Another reader of the same frames, for another thread (a second decoder), or null when
    // the frames can only be read by one reader (a video stream read in order, a renderer).
    virtual std::unique_ptr<FrameSource> clone() const { return nullptr; }
};

struct FrameEntry {
    int64_t timestampNs = 0;
    std::string file;  // image path as usable from the working directory; empty for video
    int exposureUs = kDefaultExposureUs;
    int line = 0;  // line in frames.csv
};

struct Recording {
    std::string dir;
    int width = 0;
    int height = 0;
    std::vector<FrameEntry> frames;
    std::vector<GyroSample> gyro;
    std::string configText;
    std::string videoPath;  // set when the frames come from one video file
};

// Reads and validates a recording folder. `checkImages` reads every image's header to check
// that it exists and has the recording's size (cheap; on by default).
Recording loadRecording(const std::string& dir, bool checkImages = true);

// The frames of a loaded recording: decodes its images (or its video, natively for .y4m and
// through the ffmpeg program otherwise) and converts them to NV21.
std::unique_ptr<FrameSource> openRecordingFrames(const Recording& recording);

// Writes a recording folder (frames as JPEG files of the given quality, or PNG when quality is
// 0), so that any frame source can be saved and replayed later.
void saveRecording(const std::string& dir, FrameSource& frames, const std::vector<GyroSample>& gyro,
                   const std::string& configText, int jpegQuality);

}  // namespace qlmr::replay
