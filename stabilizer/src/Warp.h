// Camera geometry of the stabilization library and the warp grid it hands to the engine.
// Pure functions over plain values; called on the engine's processing thread.
//
// Image coordinates (u, v) are fractions of the frame: u from 0 at the left edge to 1 at the
// right, v from 0 at the first row in memory to 1 at the last. The engine draws grid vertex
// (i, j) with texture coordinate (i / (columns - 1), j / (rows - 1)) at the normalised device
// coordinates the library writes, x to the right and y growing with the image row; its own
// unwarped grid puts the frame edges at +-overscan.
#ifndef ZEF_VSTAB_WARP_H
#define ZEF_VSTAB_WARP_H

#include <cstdint>

#include "Quat.h"

namespace vstab {

struct StabConfig;

// Camera in image-fraction units: a pinhole u = cx + fx * x, v = cy + fy * y (x = X / Z,
// y = Y / Z) after radial distortion (x, y) -> (x, y) * (1 + k1 r^2 + k2 r^4), r^2 = x^2 + y^2.
// The frame is recorded through the distortion; the output (the virtual camera) is the ideal
// pinhole with the same focal lengths and centre.
struct CameraModel {
    double fx = 1.0;
    double fy = 1.0;
    double cx = 0.5;
    double cy = 0.5;
    double k1 = 0.0;
    double k2 = 0.0;

    // The configured camera with the frame's digital zoom (a centred crop of the sensor).
    static CameraModel fromConfig(const StabConfig& config, double zoom);

    bool distorted() const { return k1 != 0.0 || k2 != 0.0; }
    double distortion(double r2) const { return 1.0 + r2 * (k1 + k2 * r2); }

    // Ray (z = 1) of the ideal pinhole image point (u, v): the output's rays.
    Vec3 pinholeRay(double u, double v) const { return {(u - cx) / fx, (v - cy) / fy, 1.0}; }
    // Ray (z = 1) that the frame records at (u, v): the distortion undone by fixed-point
    // iteration (converges for the moderate distortion of phone lenses, |k1 r^2| < 0.5).
    Vec3 ray(double u, double v) const {
        const double xd = (u - cx) / fx;
        const double yd = (v - cy) / fy;
        if (!distorted()) {
            return {xd, yd, 1.0};
        }
        double x = xd, y = yd;
        for (int it = 0; it < 8; ++it) {
            const double s = 1.0 / distortion(x * x + y * y);
            x = xd * s;
            y = yd * s;
        }
        return {x, y, 1.0};
    }
    // Where the frame records ray r. False for a ray at or behind the image plane's horizon
    // (u, v are then not set).
    bool project(const Vec3& r, double& u, double& v) const {
        if (!(r.z > 1e-9)) {
            return false;
        }
        const double x = r.x / r.z;
        const double y = r.y / r.z;
        const double s = distorted() ? distortion(x * x + y * y) : 1.0;
        u = cx + fx * x * s;
        v = cy + fy * y * s;
        return true;
    }
};

// Exposure times of a frame's rows in the gyro time base: row v (0 first row in memory) is
// exposed around firstRowNs + readoutNs * v. With digital zoom the frame is the centre part of
// the sensor, so its rows are read in readout / zoom.
struct FrameTiming {
    int64_t firstRowNs = 0;
    double rowSpanNs = 0.0;  // time from the frame's first to its last row

    static FrameTiming make(int64_t timestampNs, int64_t exposureNs, double zoom,
                            const StabConfig& config);
    int64_t rowNs(double v) const {
        return firstRowNs + static_cast<int64_t>(rowSpanNs * v + (v >= 0 ? 0.5 : -0.5));
    }
    int64_t centreNs() const { return rowNs(0.5); }
    int64_t lastRowNs() const { return rowNs(1.0); }
};

// How far the virtual camera may turn away from the physical one before the output, which shows
// the frame's centre magnified by the overscan, reaches past the frame's edges. Yaw (about the
// camera's y axis) uses the horizontal margin, pitch (x) the vertical one, roll (z) both, at the
// output's corners.
struct CropMargins {
    double yaw = 0.0;    // radians of yaw that use up the horizontal margin
    double pitch = 0.0;  // radians of pitch that use up the vertical margin
    double rollH = 0.0;  // share of the horizontal margin one radian of roll uses
    double rollV = 0.0;  // share of the vertical margin one radian of roll uses

    // Share of the tighter margin that a deviation d (rotation vector in camera axes, from the
    // physical to the virtual camera) uses: 1 reaches the frame's edge (to first order).
    double usage(const Vec3& d) const;
};

CropMargins cropMargins(const CameraModel& camera, double overscan);

// The crop margins at a ladder of output magnifications from `lowest` to `highest`, for the
// adaptive crop: the smallest magnification at which a deviation stays within a share of the
// margin. Fixed size; rebuilt only when the camera or the range changes.
class ZoomLadder {
  public:
    static constexpr int kSteps = 16;

    // Recomputes the margins if the camera or the range differ from the last call.
    void prepare(const CameraModel& camera, double lowest, double highest);

    // Smallest magnification at which deviation d with the rolling-shutter spread s (rotation
    // vectors, camera axes) uses at most `limit` of the margin; `highest` if none does.
    // Linear between the ladder's rungs.
    double zoomFor(const Vec3& d, const Vec3& s, double limit) const;

    double lowest() const { return zoom_[0]; }
    double highest() const { return zoom_[kSteps]; }

  private:
    double usage(int k, const Vec3& d, const Vec3& s) const {
        return margins_[k].usage(d) + margins_[k].usage(s);
    }
    CameraModel camera_{0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    double zoom_[kSteps + 1] = {};
    CropMargins margins_[kSteps + 1];
};

// Physical orientations of the frame at `count` evenly spaced rows v = j / (count - 1), with
// their world-to-camera matrices; in between, interpolated (neighbouring rows differ by tiny
// rotations, so linear interpolation is exact to far below a pixel).
struct RowOrientations {
    const Quat* rows = nullptr;      // camera to world
    const Mat3* toCamera = nullptr;  // toMat3(conj(rows[j]))
    uint32_t count = 0;

    Quat at(double v) const;
    Vec3 worldToCamera(double v, const Vec3& world) const;
};

// Fills toCamera[j] for rows[0 .. count - 1].
void worldToCameraMatrices(const Quat* rows, uint32_t count, Mat3* toCamera);

// Writes the columns x rows grid (x, y, z floats, row-major) that shows the frame as the
// virtual camera `virtualCam` sees it: vertex (i, j)'s ray is turned by the physical
// orientation of its row into the world and projected through the virtual camera (same
// intrinsics) into the output, magnified by `overscan`. With virtualCam equal to every row's
// orientation the result is the engine's unwarped grid. Every value written is finite.
void writeGrid(const CameraModel& camera, double overscan, const Quat& virtualCam,
               const RowOrientations& rows, uint32_t columns, uint32_t gridRows, float* out);

// Where output point (x, y) (normalised device coordinates, +-1 at the output edges) comes
// from in the frame, solving for the row whose orientation sees it. False if no row does.
bool sourceOf(const CameraModel& camera, double overscan, const Quat& virtualCam,
              const RowOrientations& rows, double x, double y, double& u, double& v);

// True if every output pixel comes from inside the frame, with `inset` (image fraction) to
// spare: checked on points along the output's border.
bool coversOutput(const CameraModel& camera, double overscan, const Quat& virtualCam,
                  const RowOrientations& rows, double inset);

}  // namespace vstab

#endif  // ZEF_VSTAB_WARP_H
