// The built-in synthetic recording: a hand-held camera (CameraMotion) looking at a scene,
// rendered with a rolling shutter, with the gyroscope stream that the same motion produces.
// The true and intended orientations stay available as ground truth for the metrics.
#pragma once

#include "input/Recording.h"
#include "synthetic/CameraMotion.h"
#include "synthetic/Scene.h"

#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

struct SyntheticOptions {
    double seconds = 10;
    int width = 1920;
    int height = 1080;
    double fps = 30;
    double readoutMs = 30;  // rolling shutter: first row to last row
    int exposureUs = 2000;  // daylight exposure
    double hfovDeg = 64;    // output camera's horizontal field of view
    Trajectory trajectory = Trajectory::Walk;
    uint64_t seed = 1;
    // Scene picture: "" = the default photograph when installed, else procedural;
    // "procedural" = always procedural; anything else = path of a JPEG/PNG picture.
    std::string scene;
    double sceneHfovDeg = 110;  // field of view the scene picture is taken to span
    GyroModel gyro;
    int threads = 2;
    // Timestamp of the first frame, nanoseconds.
    int64_t startNs = 1000000000;
    // What the configuration text states, to test calibration against a recording whose
    // configuration is wrong: NaN / "" = the truth.
    double statedGyroOffsetMs = std::numeric_limits<double>::quiet_NaN();
    std::string statedGyroAxes;
};

// Facts about a recording's camera and gyro that the stabilization library's configuration
// text states. configTextFor() writes them with the library's keys (vstab.*); everything
// else (smoothing window, look-ahead, grid) is left at the library's defaults.
struct CameraFacts {
    int width = 0;
    int height = 0;
    double focalPx = 0;   // horizontal
    double focalYPx = 0;  // vertical; 0 = square pixels
    double cx = 0;
    double cy = 0;
    double readoutMs = 0;
    std::string gyroAxes = "-y,-x,-z";  // camera x, y, z rates as signed gyro axes
    // Gyro time of a frame's first-row exposure start minus the frame timestamp.
    double gyroOffsetMs = 0;
    std::string description;  // one line, written as a comment
};

std::string configTextFor(const CameraFacts& facts);

class SyntheticRecording : public FrameSource {
  public:
    // Builds the scene and the gyro stream; throws ReplayError for bad options or an
    // unreadable scene picture.
    explicit SyntheticRecording(const SyntheticOptions& options);
    ~SyntheticRecording() override;

    int width() const override { return options_.width; }
    int height() const override { return options_.height; }
    int count() const override { return frames_; }
    int64_t timestampNs(int index) const override;
    int exposureUs(int) const override { return options_.exposureUs; }
    void read(int index, Nv21Image& out) override;
    std::string describe() const override;

    const std::vector<GyroSample>& gyro() const { return gyro_; }
    std::string configText() const { return configTextFor(facts()); }
    CameraFacts facts() const;
    const CameraMotion& motion() const { return *motion_; }
    const PinholeCamera& camera() const { return renderer_->camera(); }
    const SyntheticOptions& options() const { return options_; }
    const Scene& scene() const { return scene_; }

    // Seconds since true time 0 at which frame `index` starts (its first row is read).
    double frameStartSec(int index) const { return index / options_.fps; }
    // Seconds at which row `row` (continuous, 0 = top edge) of frame `index` is exposed
    // (middle of its exposure).
    double rowTimeSec(int index, double row) const;

  private:
    SyntheticOptions options_;
    int frames_ = 0;
    Scene scene_;
    std::unique_ptr<CameraMotion> motion_;
    std::unique_ptr<SceneRenderer> renderer_;
    std::vector<GyroSample> gyro_;
};

}  // namespace qlmr::replay
