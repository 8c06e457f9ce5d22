// The synthetic world and its rendering: a wide picture seen by a fixed pinhole camera (the
// "scene"), re-projected through a rotating pinhole camera with a rolling shutter into NV21.
#pragma once

#include "common/WorkerPool.h"
#include "media/Image.h"
#include "synthetic/CameraMotion.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qlmr::replay {

// Pinhole camera in pixel units: a ray (x, y, 1) in camera axes lands at
// (focalPx * x + cx, focalPx * y + cy), where pixel i covers [i, i+1).
struct PinholeCamera {
    int width = 0;
    int height = 0;
    double focalPx = 0;
    double cx = 0;
    double cy = 0;

    // Camera whose horizontal field of view is `hfovDeg`, principal point in the centre.
    static PinholeCamera withFov(int width, int height, double hfovDeg);
};

// The world picture as YUV planes (luma full size, chroma halved, BT.601 limited range), with
// the camera it is seen through (looking along world +z).
struct Scene {
    PinholeCamera camera;
    std::vector<uint8_t> y;  // camera.width x camera.height
    std::vector<uint8_t> u;  // (width/2) x (height/2)
    std::vector<uint8_t> v;
    std::string description;  // what the picture is, for the report

    // From a photograph taken to span `hfovDeg` horizontally (odd edges are cropped).
    static Scene fromImage(const RgbImage& image, double hfovDeg, std::string description);
    // A rich synthetic picture (multi-scale colour noise, discs and a fine grid) of the given
    // size, deterministic in `seed`.
    static Scene procedural(int width, int height, double hfovDeg, uint64_t seed);
};

// The photograph used by default when it is installed (Debian package lomiri-wallpapers-16.04).
constexpr const char* kDefaultScenePhoto =
    "/usr/share/backgrounds/picosdeeuropa_by_Aitzol_Berasategi.jpg";
constexpr const char* kDefaultScenePhotoCredit =
    "\"Picos de Europa\" by Aitzol Berasategi, CC BY 4.0 (Debian package lomiri-wallpapers-16.04)";

// Renders frames of `scene` as seen by `camera` rotating along `motion`. Each output row is
// taken at its own time (rolling shutter: row r of a frame starting at t0 is read at
// t0 + (r + 0.5) / height * readout, plus half the exposure). Rows are split across a pool of
// threads; nothing is allocated per frame.
class SceneRenderer {
  public:
    SceneRenderer(const Scene& scene, const PinholeCamera& camera, int threads);

    void render(const CameraMotion& motion, double frameStartSec, double readoutSec,
                double exposureSec, Nv21Image& out);

    const PinholeCamera& camera() const { return camera_; }

  private:
    struct Job;
    static void renderRows(void* context, int begin, int end);

    const Scene& scene_;
    PinholeCamera camera_;
    WorkerPool pool_;
};

}  // namespace qlmr::replay
