#include "synthetic/Synthetic.h"

#include "common/ReplayError.h"
#include "media/ImageIo.h"

#include <cmath>
#include <cstdio>
#include <sys/stat.h>

namespace qlmr::replay {

std::string configTextFor(const CameraFacts& f) {
    constexpr double kRadToDeg = 57.29577951308232;
    const double fy = f.focalYPx > 0 ? f.focalYPx : f.focalPx;
    // The description goes into a comment: it must not hold a key name, because the engine
    // finds its keys with a plain substring search.
    std::string description = f.description;
    for (const std::string prefix : {"native.", "vstab."}) {
        for (size_t p; (p = description.find(prefix)) != std::string::npos;)
            description[p + prefix.size() - 1] = ' ';
    }
    for (char& c : description) {
        if (c == '\n' || c == '\r')
            c = ' ';
    }
    char buf[1024];
    std::snprintf(buf, sizeof buf,
                  "# %s\n"
                  "# Camera: %dx%d, focal length %.3f x %.3f px, optical centre (%.3f, %.3f).\n"
                  "vstab.fovHorizontalDeg=%.4f\n"
                  "vstab.fovVerticalDeg=%.4f\n"
                  "vstab.principalPointX=%.5f\n"
                  "vstab.principalPointY=%.5f\n"
                  "vstab.readoutNs=%lld\n"
                  "vstab.gyroAxes=%s\n"
                  "vstab.gyroTimeOffsetNs=%lld\n"
                  "vstab.clockIdGyro=7\n"
                  "vstab.clockIdFrame=7\n",
                  description.c_str(), f.width, f.height, f.focalPx, fy, f.cx, f.cy,
                  2 * std::atan(f.width / (2 * f.focalPx)) * kRadToDeg,
                  2 * std::atan(f.height / (2 * fy)) * kRadToDeg, f.cx / f.width, f.cy / f.height,
                  static_cast<long long>(std::llround(f.readoutMs * 1e6)), f.gyroAxes.c_str(),
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
    // The gyro runs from 1 s before the first frame to 1 s after the last one: the sensor is
    // on before the camera delivers and the stabilizer looks ahead of every frame.
    const double lead = 1.0;
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
    f.gyroAxes = kDeviceGyroAxes;
    // Frame timestamps are the first row's exposure start, so the gyro's offset from true time
    // is the library's offset as it stands.
    f.gyroOffsetMs = options_.gyro.timeOffsetNs * 1e-6;
    if (!std::isnan(options_.statedGyroOffsetMs))
        f.gyroOffsetMs = options_.statedGyroOffsetMs;
    if (!options_.statedGyroAxes.empty())
        f.gyroAxes = options_.statedGyroAxes;
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
