#include "Synthetic.h"

#include "ImageIo.h"
#include "ReplayError.h"

#include <cmath>
#include <cstdio>
#include <sys/stat.h>

namespace qlmr::replay {

std::string configTextFor(const CameraFacts& f) {
    char buf[1024];
    std::snprintf(
        buf, sizeof buf,
        "# %s\n"
        "# Camera: %dx%d, focal %.3f px, principal point (%.3f, %.3f), rolling-shutter "
        "readout %.3f ms.\n"
        "# Gyro: %.1f Hz in device axes (camera x = gyro y, camera y = gyro x, camera z = "
        "-gyro z), stamps %.3f ms after the true time.\n"
        "sensor.width=%d\n"
        "sensor.height=%d\n"
        "camera.focalPx=%.3f\n"
        "camera.cx=%.3f\n"
        "camera.cy=%.3f\n"
        "camera.readoutNs=%lld\n"
        "gyro.rateHz=%.1f\n"
        "gyro.timeOffsetNs=%lld\n"
        "gyro.axes=y,x,-z\n",
        f.description.c_str(), f.width, f.height, f.focalPx, f.cx, f.cy, f.readoutMs, f.gyroRateHz,
        f.gyroOffsetMs, f.width, f.height, f.focalPx, f.cx, f.cy,
        static_cast<long long>(std::llround(f.readoutMs * 1e6)), f.gyroRateHz,
        static_cast<long long>(std::llround(f.gyroOffsetMs * 1e6)));
    return buf;
}

SyntheticRecording::SyntheticRecording(const SyntheticOptions& options) : options_(options) {
    const SyntheticOptions& o = options_;
    if (o.width < 16 || o.height < 16 || o.width % 2 != 0 || o.height % 2 != 0) {
        throw ReplayError("synthetic frame size " + std::to_string(o.width) + "x" +
                          std::to_string(o.height) + " must be even and at least 16x16");
    }
    if (!(o.seconds > 0) || !(o.fps > 0) || o.readoutMs < 0 || o.readoutMs * o.fps > 1000) {
        throw ReplayError(
            "synthetic timing is inconsistent (seconds > 0, fps > 0, readout within a frame)");
    }
    frames_ = static_cast<int>(std::floor(o.seconds * o.fps + 1e-9));
    if (frames_ < 2)
        throw ReplayError("a synthetic recording needs at least 2 frames");

    std::string photo = o.scene;
    if (photo.empty()) {
        struct stat st;
        if (stat(kDefaultScenePhoto, &st) == 0)
            photo = kDefaultScenePhoto;
    }
    if (photo.empty() || photo == "procedural") {
        // About 1.7 scene pixels per output pixel across (3264x2448 for 1920 wide frames):
        // enough margin for the shake at the default fields of view, without wasting time on
        // small test frames.
        const int w = (static_cast<int>(o.width * 1.7) + 15) & ~15;
        scene_ = Scene::procedural(w, (w * 3 / 4) & ~1, o.sceneHfovDeg, o.seed);
    } else {
        const RgbImage img = readImage(photo);
        const std::string credit = photo == kDefaultScenePhoto ? kDefaultScenePhotoCredit : photo;
        scene_ = Scene::fromImage(img, o.sceneHfovDeg, credit);
    }
    motion_ = makeHandheldMotion(o.trajectory, o.seed);
    renderer_ = std::make_unique<SceneRenderer>(
        scene_, PinholeCamera::withFov(o.width, o.height, o.hfovDeg), o.threads);
    GyroModel g = o.gyro;
    g.seed = o.seed;
    // The gyro runs from a little before the first frame to a little after the last one.
    const double lead = 0.2;
    gyro_ = synthesizeGyro(*motion_, g, -lead, frames_ / o.fps + lead, o.startNs);
}

SyntheticRecording::~SyntheticRecording() = default;

int64_t SyntheticRecording::timestampNs(int index) const {
    return options_.startNs + static_cast<int64_t>(std::llround(frameStartSec(index) * 1e9));
}

double SyntheticRecording::rowTimeSec(int index, double row) const {
    return frameStartSec(index) + row / options_.height * options_.readoutMs * 1e-3 +
           options_.exposureUs * 0.5e-6;
}

void SyntheticRecording::read(int index, Nv21Image& out) {
    renderer_->render(*motion_, frameStartSec(index), options_.readoutMs * 1e-3,
                      options_.exposureUs * 1e-6, out);
}

CameraFacts SyntheticRecording::facts() const {
    CameraFacts f;
    const PinholeCamera& c = renderer_->camera();
    f.width = c.width;
    f.height = c.height;
    f.focalPx = c.focalPx;
    f.cx = c.cx;
    f.cy = c.cy;
    f.readoutMs = options_.readoutMs;
    f.gyroRateHz = options_.gyro.rateHz;
    f.gyroOffsetMs = options_.gyro.timeOffsetNs * 1e-6;
    f.description = describe();
    return f;
}

std::string SyntheticRecording::describe() const {
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "synthetic %s recording, %.1f s, %dx%d at %.0f fps, readout %.0f ms, seed %llu; "
                  "scene: %s",
                  trajectoryName(options_.trajectory), options_.seconds, options_.width,
                  options_.height, options_.fps, options_.readoutMs,
                  static_cast<unsigned long long>(options_.seed), scene_.description.c_str());
    return buf;
}

}  // namespace qlmr::replay
