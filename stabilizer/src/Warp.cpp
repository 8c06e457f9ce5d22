#include "Warp.h"

#include <cmath>
#include <initializer_list>

#include "Config.h"

namespace vstab {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Largest |x|, |y| written into the grid: far outside the output, finite for the GPU.
constexpr double kFarNdc = 64.0;

// Branch-free on x86 (maxsd/minsd), unlike the library calls std::fmax/std::fmin.
inline double maxOf(double a, double b) {
    return a > b ? a : b;
}
inline double minOf(double a, double b) {
    return a < b ? a : b;
}

}  // namespace

CameraModel CameraModel::fromConfig(const StabConfig& config, double zoom) {
    CameraModel c;
    const double fx1 = 0.5 / std::tan(config.fovHorizontalDeg * kPi / 360.0);
    const double fy1 = 0.5 / std::tan(config.fovVerticalDeg * kPi / 360.0);
    c.fx = fx1 * zoom;
    c.fy = fy1 * zoom;
    c.cx = 0.5 + (config.principalPointX - 0.5) * zoom;
    c.cy = 0.5 + (config.principalPointY - 0.5) * zoom;
    // The distortion is a property of the lens: in units of the focal length it does not
    // change with the crop.
    c.k1 = config.lensK1;
    c.k2 = config.lensK2;
    return c;
}

FrameTiming FrameTiming::make(int64_t timestampNs, int64_t exposureNs, double zoom,
                              const StabConfig& config) {
    FrameTiming t;
    const double readout = static_cast<double>(config.readoutNs);
    // Mid-exposure of the sensor's first row, then the start of the zoomed crop's rows.
    const int64_t sensorFirstRow = timestampNs + config.gyroTimeOffsetNs + exposureNs / 2;
    t.firstRowNs =
        sensorFirstRow + static_cast<int64_t>(std::llround(readout * 0.5 * (1.0 - 1.0 / zoom)));
    t.rowSpanNs = readout / zoom;
    return t;
}

double CropMargins::usage(const Vec3& d) const {
    auto share = [](double dev, double margin) {
        return margin > 0.0 ? std::fabs(dev) / margin : (dev != 0.0 ? 1e9 : 0.0);
    };
    const double roll = std::fabs(d.z);
    const double h = share(d.y, yaw) + roll * rollH;
    const double v = share(d.x, pitch) + roll * rollV;
    return h > v ? h : v;
}

CropMargins cropMargins(const CameraModel& c, double overscan) {
    // Angle between the output edge and the frame edge on the tighter side of each axis.
    auto edgeMargin = [overscan](double f, double centre) {
        double best = kPi;
        for (double edge : {0.0, 1.0}) {
            const double frameHalf = std::fabs(edge - centre);
            const double outHalf = std::fabs((0.5 + (edge - 0.5) / overscan) - centre);
            const double m = std::atan(frameHalf / f) - std::atan(outHalf / f);
            best = m < best ? m : best;
        }
        return best > 0.0 ? best : 0.0;
    };
    CropMargins m;
    m.yaw = edgeMargin(c.fx, c.cx);
    m.pitch = edgeMargin(c.fy, c.cy);
    // Roll by r moves the output's corner (a, b) (image plane at unit distance) by (b r, a r);
    // the slack to the frame's edge is (fa - a, fb - b).
    const double a = (0.5 / overscan) / c.fx;
    const double b = (0.5 / overscan) / c.fy;
    const double fa = (c.cx < 0.5 ? c.cx : 1.0 - c.cx) / c.fx;
    const double fb = (c.cy < 0.5 ? c.cy : 1.0 - c.cy) / c.fy;
    m.rollH = fa > a ? b / (fa - a) : 1e9;
    m.rollV = fb > b ? a / (fb - b) : 1e9;
    return m;
}

void ZoomLadder::prepare(const CameraModel& c, double lowest, double highest) {
    if (c.fx == camera_.fx && c.fy == camera_.fy && c.cx == camera_.cx && c.cy == camera_.cy &&
        lowest == zoom_[0] && highest == zoom_[kSteps]) {
        return;
    }
    camera_ = c;
    for (int k = 0; k <= kSteps; ++k) {
        zoom_[k] = lowest + (highest - lowest) * k / kSteps;
        margins_[k] = cropMargins(c, zoom_[k]);
    }
}

double ZoomLadder::zoomFor(const Vec3& d, const Vec3& s, double limit) const {
    if (usage(0, d, s) <= limit) {
        return zoom_[0];
    }
    if (usage(kSteps, d, s) > limit) {
        return zoom_[kSteps];
    }
    // Usage falls as the magnification grows: bisect for the first rung within the limit.
    int lo = 0;       // over the limit
    int hi = kSteps;  // within it
    while (hi - lo > 1) {
        const int mid = (lo + hi) / 2;
        (usage(mid, d, s) > limit ? lo : hi) = mid;
    }
    // The margin, and so 1 / usage, grows about linearly with the magnification; usage itself
    // is hyperbolic (infinite where the margin is zero).
    const double rl = 1.0 / usage(lo, d, s);
    const double rh = 1.0 / usage(hi, d, s);
    const double f = rh > rl ? (1.0 / limit - rl) / (rh - rl) : 1.0;
    return zoom_[lo] + (zoom_[hi] - zoom_[lo]) * f;
}

Quat RowOrientations::at(double v) const {
    if (count == 0) {
        return Quat{};
    }
    if (count == 1 || !(v > 0.0)) {
        return rows[0];
    }
    const double f = v * static_cast<double>(count - 1);
    if (!(f < static_cast<double>(count - 1))) {
        return rows[count - 1];
    }
    const uint32_t i = static_cast<uint32_t>(f);
    const double w = f - static_cast<double>(i);
    Quat b = rows[i + 1];
    const Quat& a = rows[i];
    if (a.w * b.w + a.x * b.x + a.y * b.y + a.z * b.z < 0.0) {
        b = {-b.w, -b.x, -b.y, -b.z};
    }
    // Neighbouring rows differ by a tiny rotation: normalised linear interpolation is exact to
    // far below a pixel.
    return normalized({a.w + (b.w - a.w) * w, a.x + (b.x - a.x) * w, a.y + (b.y - a.y) * w,
                       a.z + (b.z - a.z) * w});
}

void worldToCameraMatrices(const Quat* rows, uint32_t count, Mat3* toCamera) {
    for (uint32_t j = 0; j < count; ++j) {
        toCamera[j] = toMat3(conj(rows[j]));
    }
}

Vec3 RowOrientations::worldToCamera(double v, const Vec3& w) const {
    if (count == 0) {
        return w;
    }
    const double f = v * static_cast<double>(count - 1);
    uint32_t i = 0;
    double t = 0.0;
    if (f >= static_cast<double>(count - 1)) {
        i = count - 1;
    } else if (f > 0.0) {
        i = static_cast<uint32_t>(f);
        t = f - static_cast<double>(i);
    }
    const Vec3 a = toCamera[i] * w;
    if (t == 0.0) {
        return a;
    }
    const Vec3 b = toCamera[i + 1] * w;
    return a + (b - a) * t;
}

void writeGrid(const CameraModel& camera, double overscan, const Quat& virtualCam,
               const RowOrientations& rows, uint32_t columns, uint32_t gridRows, float* out) {
    const Quat virtInv = conj(virtualCam);
    const double du = columns > 1 ? 1.0 / static_cast<double>(columns - 1) : 0.0;
    const double dv = gridRows > 1 ? 1.0 / static_cast<double>(gridRows - 1) : 0.0;
    // Output coordinate = overscan * (2 (c + f X / Z) - 1) = offset + scale * X / Z.
    const double sx = 2.0 * overscan * camera.fx, ox = overscan * (2.0 * camera.cx - 1.0);
    const double sy = 2.0 * overscan * camera.fy, oy = overscan * (2.0 * camera.cy - 1.0);
    for (uint32_t j = 0; j < gridRows; ++j) {
        const double v = static_cast<double>(j) * dv;
        // Row ray -> world -> virtual camera, as one matrix per grid row.
        const Mat3 m = toMat3(virtInv * rows.at(v));
        const double ry = (v - camera.cy) / camera.fy;
        // Ray (rx, ry, 1) maps to base + rx * (first column of m).
        const Vec3 base = {m.m[1] * ry + m.m[2], m.m[4] * ry + m.m[5], m.m[7] * ry + m.m[8]};
        const double m0 = m.m[0], m3 = m.m[3], m6 = m.m[6];
        const double rx0 = -camera.cx / camera.fx;
        const double drx = du / camera.fx;
        float* p = out + 3 * static_cast<size_t>(j) * columns;
        if (camera.distorted()) {
            // Each vertex's recorded ray, undistorted, through the row's matrix.
            for (uint32_t i = 0; i < columns; ++i, p += 3) {
                const Vec3 r = m * camera.ray(static_cast<double>(i) * du, v);
                const double invZ = 1.0 / maxOf(r.z, 1e-6);
                p[0] = static_cast<float>(minOf(maxOf(ox + sx * r.x * invZ, -kFarNdc), kFarNdc));
                p[1] = static_cast<float>(minOf(maxOf(oy + sy * r.y * invZ, -kFarNdc), kFarNdc));
                p[2] = 0.0f;
            }
            continue;
        }
        // Independent iterations without branches, so that the divisions overlap.
        for (uint32_t i = 0; i < columns; ++i, p += 3) {
            const double rx = rx0 + static_cast<double>(i) * drx;
            const double X = base.x + m0 * rx;
            const double Y = base.y + m3 * rx;
            // A ray turned behind the virtual camera cannot be shown; push it far out.
            const double invZ = 1.0 / maxOf(base.z + m6 * rx, 1e-6);
            p[0] = static_cast<float>(minOf(maxOf(ox + sx * X * invZ, -kFarNdc), kFarNdc));
            p[1] = static_cast<float>(minOf(maxOf(oy + sy * Y * invZ, -kFarNdc), kFarNdc));
            p[2] = 0.0f;
        }
    }
}

bool sourceOf(const CameraModel& camera, double overscan, const Quat& virtualCam,
              const RowOrientations& rows, double x, double y, double& u, double& v) {
    const double uo = 0.5 + 0.5 * x / overscan;
    const double vo = 0.5 + 0.5 * y / overscan;
    const Vec3 world = rotate(virtualCam, camera.pinholeRay(uo, vo));
    double vRow = vo;
    // The row that sees the point depends on the point itself; a few fixed-point steps
    // converge because a frame's rows turn by far less than its field of view.
    for (int it = 0; it < 3; ++it) {
        const double vc = vRow < 0.0 ? 0.0 : (vRow > 1.0 ? 1.0 : vRow);
        if (!camera.project(rows.worldToCamera(vc, world), u, v)) {
            return false;
        }
        vRow = v;
    }
    return true;
}

bool coversOutput(const CameraModel& camera, double overscan, const Quat& virtualCam,
                  const RowOrientations& rows, double inset) {
    constexpr int kPerEdge = 8;  // segments per output edge
    for (int e = 0; e < 4; ++e) {
        for (int k = 0; k < kPerEdge; ++k) {
            const double s = -1.0 + 2.0 * k / kPerEdge;
            double x, y;
            switch (e) {
                case 0:
                    x = s;
                    y = -1.0;
                    break;
                case 1:
                    x = 1.0;
                    y = s;
                    break;
                case 2:
                    x = -s;
                    y = 1.0;
                    break;
                default:
                    x = -1.0;
                    y = -s;
                    break;
            }
            double u, v;
            if (!sourceOf(camera, overscan, virtualCam, rows, x, y, u, v)) {
                return false;
            }
            if (u < inset || u > 1.0 - inset || v < inset || v > 1.0 - inset) {
                return false;
            }
        }
    }
    return true;
}

}  // namespace vstab
