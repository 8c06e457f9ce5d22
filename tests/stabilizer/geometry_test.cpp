// Rotation arithmetic, gyro integration and warp-grid geometry of the stabilization library.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "Config.h"
#include "GyroHistory.h"
#include "Quat.h"
#include "Warp.h"

namespace vstab {
namespace {

constexpr double kPi = 3.14159265358979323846;

TEST(StabRotation, ExpAndLogAreInverseAcrossTheTaylorBoundaryAndNearPi) {
    for (double angle : {1e-9, 1e-3, 0.2499, 0.25, 0.2501, 1.0, 3.0, kPi - 1e-6}) {
        const Vec3 r = Vec3{0.48, -0.6, 0.64} * angle;  // unit axis times angle
        const Quat q = expMap(r);
        EXPECT_NEAR(q.w * q.w + q.x * q.x + q.y * q.y + q.z * q.z, 1.0, 1e-14) << angle;
        EXPECT_LT(norm(logMap(q) - r), 1e-9 * (1.0 + angle)) << angle;
        EXPECT_NEAR(std::cos(0.5 * angle), q.w, 1e-15) << angle;
    }
    // Rotating the optical axis by a quarter turn about y turns it onto +x.
    const Vec3 v = rotate(expMap({0, kPi / 2, 0}), {0, 0, 1});
    EXPECT_LT(norm(v - Vec3{1, 0, 0}), 1e-15);
}

TEST(StabGyroHistory, IntegratesAConstantRateExactly) {
    GyroHistory h(1024, 100000000);
    const Vec3 rate = {0.3, -1.2, 0.5};  // rad/s
    for (int i = 0; i <= 400; ++i) {
        ASSERT_EQ(h.add(1000000000 + i * 2500000LL, rate), GyroHistory::AddResult::Accepted);
    }
    Quat q;
    ASSERT_TRUE(h.orientationAt(2000000000, q));
    EXPECT_LT(norm(logMap(q) - rate * 1.0), 1e-12);
    // Between samples the orientation follows the same rate.
    ASSERT_TRUE(h.orientationAt(1001234567, q));
    EXPECT_LT(norm(logMap(q) - rate * 0.001234567), 1e-12);
    // A rate growing at 2 rad/s^2 about one axis: each interval's mean rate is exact.
    GyroHistory ramp(1024, 100000000);
    for (int i = 0; i <= 400; ++i)
        ASSERT_EQ(ramp.add(1000000000 + i * 2500000LL, {0, 0, 2.0 * i * 0.0025}),
                  GyroHistory::AddResult::Accepted);
    ASSERT_TRUE(ramp.orientationAt(2000000000, q));
    EXPECT_LT(norm(logMap(q) - Vec3{0, 0, 1.0}), 1e-9);
}

TEST(StabGyroHistory, DropsUnusableSamplesWithoutChangingTheHistory) {
    GyroHistory h(64, 100000000);
    ASSERT_EQ(h.add(1000, {0, 0, 1}), GyroHistory::AddResult::Accepted);
    ASSERT_EQ(h.add(5000001000, {0, 0, 1}), GyroHistory::AddResult::Accepted);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(h.add(5000002000, {nan, 0, 0}), GyroHistory::AddResult::NonFinite);
    EXPECT_EQ(h.add(5000002000, {0, -inf, 0}), GyroHistory::AddResult::NonFinite);
    EXPECT_EQ(h.add(5000002000, {1e6, 0, 0}), GyroHistory::AddResult::Implausible);
    EXPECT_EQ(h.add((int64_t{1} << 61) + 1, {0, 0, 0}), GyroHistory::AddResult::Implausible);
    EXPECT_EQ(h.add(-(int64_t{1} << 62), {0, 0, 0}), GyroHistory::AddResult::Implausible);
    EXPECT_EQ(h.add(4000, {0, 0, 0}), GyroHistory::AddResult::OutOfOrder);
    EXPECT_EQ(h.add(5000001000, {0, 0, 0}), GyroHistory::AddResult::Duplicate);
    EXPECT_EQ(h.size(), 2u);
    EXPECT_EQ(h.newestNs(), 5000001000);
    // The 5 s gap is bridged as no rotation, not as 5 s at 1 rad/s.
    Quat q;
    ASSERT_TRUE(h.orientationAt(5000001000, q));
    EXPECT_LT(norm(logMap(q)), 1e-12);
    EXPECT_EQ(h.gapsBridged(), 1u);
}

TEST(StabGyroHistory, RingKeepsTheNewestSamplesAndOrderedLookupsAgree) {
    GyroHistory h(100, 100000000);  // rounded up to 128
    ASSERT_EQ(h.capacity(), 128u);
    for (int i = 0; i < 1000; ++i) {
        h.add(i * 1000000LL, {std::sin(i * 0.01), 0.5, std::cos(i * 0.02)});
    }
    EXPECT_EQ(h.size(), 128u);
    EXPECT_EQ(h.newestNs(), 999000000);
    EXPECT_EQ(h.oldestNs(), (1000 - 128) * 1000000LL);
    std::vector<int64_t> times;
    for (int64_t t = h.oldestNs() - 5000000; t <= h.newestNs() + 5000000; t += 777777) {
        times.push_back(t);
    }
    std::vector<Quat> ordered(times.size());
    h.orientationsAt(times.data(), times.size(), ordered.data());
    for (size_t k = 0; k < times.size(); ++k) {
        Quat single;
        h.orientationAt(times[k], single);
        EXPECT_LT(angleBetween(single, ordered[k]), 1e-15) << times[k];
    }
    Quat q;
    EXPECT_FALSE(h.orientationAt(h.oldestNs() - 1, q));
    EXPECT_FALSE(h.orientationAt(h.newestNs() + 1, q));
}

struct Fixture {
    StabConfig config;
    CameraModel camera;
    std::vector<Quat> rows;
    std::vector<Mat3> mats;
    std::vector<float> grid;

    explicit Fixture(double zoom = 1.0) {
        camera = CameraModel::fromConfig(config, zoom);
        rows.assign(config.gridRows, Quat{});
        mats.resize(config.gridRows);
        grid.assign(static_cast<size_t>(config.gridColumns) * config.gridRows * 3, 0.0f);
    }
    RowOrientations rowSet() {
        worldToCameraMatrices(rows.data(), static_cast<uint32_t>(rows.size()), mats.data());
        return {rows.data(), mats.data(), static_cast<uint32_t>(rows.size())};
    }
    void write(const Quat& virt) {
        writeGrid(camera, config.overscan, virt, rowSet(), config.gridColumns, config.gridRows,
                  grid.data());
    }
    const float* vertex(uint32_t i, uint32_t j) const {
        return &grid[3 * (static_cast<size_t>(j) * config.gridColumns + i)];
    }
};

TEST(StabWarpGrid, AtRestMatchesTheEnginesUnwarpedGrid) {
    for (double zoom : {1.0, 2.5}) {
        Fixture f(zoom);
        f.config.principalPointX = 0.47;
        f.camera = CameraModel::fromConfig(f.config, zoom);
        const Quat pose = expMap({0.3, -2.0, 0.7});  // any orientation, shared by all rows
        f.rows.assign(f.rows.size(), pose);
        f.write(pose);
        const uint32_t c = f.config.gridColumns, r = f.config.gridRows;
        for (uint32_t j = 0; j < r; ++j) {
            for (uint32_t i = 0; i < c; ++i) {
                const float* p = f.vertex(i, j);
                EXPECT_NEAR(p[0], (2.0f * i / (c - 1) - 1.0f) * 1.25f, 1e-5) << i << "," << j;
                EXPECT_NEAR(p[1], (2.0f * j / (r - 1) - 1.0f) * 1.25f, 1e-5) << i << "," << j;
                EXPECT_EQ(p[2], 0.0f);
            }
        }
    }
}

TEST(StabWarpGrid, VirtualCameraTurnedRightShowsTheFrameCentreLeftOfCentre) {
    Fixture f;
    const double yaw = 0.02;  // virtual optical axis turned towards the physical +x
    f.write(expMap({0, yaw, 0}));
    const uint32_t ci = f.config.gridColumns / 2, cj = f.config.gridRows / 2;
    const float* p = f.vertex(ci, cj);
    EXPECT_NEAR(p[0], 2.0 * 1.25 * f.camera.fx * std::tan(-yaw), 1e-6);
    EXPECT_NEAR(p[1], 0.0, 1e-6);
    // Turned up (about +x): the frame's centre lower in the output (y grows with the row).
    f.write(expMap({0.02, 0, 0}));
    EXPECT_GT(f.vertex(ci, cj)[1], 0.0f);
    // Extreme turns still write finite, bounded values.
    for (const Vec3 r : {Vec3{0, kPi, 0}, Vec3{kPi / 2, 0, 0}, Vec3{0, 0, 3.0}}) {
        f.write(expMap(r));
        for (float x : f.grid) {
            ASSERT_TRUE(std::isfinite(x));
            ASSERT_LE(std::fabs(x), 64.0f);
        }
    }
}

TEST(StabWarpGrid, EachRowIsProjectedWithItsOwnOrientation) {
    Fixture f;
    for (size_t j = 0; j < f.rows.size(); ++j) {
        f.rows[j] = expMap({0.001 * j, -0.002 * j, 0.0005 * j});  // rolling-shutter turn
    }
    const Quat virt = expMap({0.004, -0.01, 0.002});
    f.write(virt);
    const uint32_t c = f.config.gridColumns, r = f.config.gridRows;
    for (uint32_t j = 0; j < r; j += 3) {
        for (uint32_t i = 0; i < c; i += 4) {
            const double u = static_cast<double>(i) / (c - 1), v = static_cast<double>(j) / (r - 1);
            const Vec3 inVirtual = rotate(conj(virt) * f.rows[j], f.camera.ray(u, v));
            double uo, vo;
            ASSERT_TRUE(f.camera.project(inVirtual, uo, vo));
            EXPECT_NEAR(f.vertex(i, j)[0], (2 * uo - 1) * 1.25, 1e-5);
            EXPECT_NEAR(f.vertex(i, j)[1], (2 * vo - 1) * 1.25, 1e-5);
            // sourceOf inverts the mapping: the output point comes from (u, v).
            double us, vs;
            ASSERT_TRUE(sourceOf(f.camera, 1.25, virt, f.rowSet(), f.vertex(i, j)[0],
                                 f.vertex(i, j)[1], us, vs));
            EXPECT_NEAR(us, u, 1e-5);
            EXPECT_NEAR(vs, v, 1e-5);
        }
    }
    // Between rows the orientation is interpolated, whichever sign a row's quaternion has.
    const Quat mid = slerp(f.rows[0], f.rows[1], 0.5);
    f.rows[1] = {-f.rows[1].w, -f.rows[1].x, -f.rows[1].y, -f.rows[1].z};
    EXPECT_LT(angleBetween(f.rowSet().at(0.5 / (r - 1)), mid), 1e-9);
}

TEST(StabCropMargins, UsageOfOneIsWhereTheOutputMeetsTheFrameEdge) {
    Fixture f;
    const RowOrientations rows = f.rowSet();
    const CropMargins m = cropMargins(f.camera, f.config.overscan);
    EXPECT_GT(m.yaw, m.pitch) << "16:9: the vertical margin is the tighter one";
    EXPECT_TRUE(coversOutput(f.camera, 1.25, Quat{}, rows, 0.0));
    // Grow the deviation until the border, kept `inset` inside the frame, leaves it.
    auto limit = [&](const Vec3& axis, double inset) {
        double angle = 0.0;
        while (coversOutput(f.camera, 1.25, expMap(axis * angle), rows, inset) && angle < 1.0) {
            angle += 0.0005;
        }
        return angle;
    };
    for (const Vec3 axis :
         {Vec3{1, 0, 0}, Vec3{-1, 0, 0}, Vec3{0, 1, 0}, Vec3{0, -1, 0}, Vec3{0, 0, 1}}) {
        const double angle = limit(axis, 0.0);
        const double usage = m.usage(axis * angle);  // near 1 there
        EXPECT_GT(usage, 0.85) << axis.x << axis.y << axis.z;
        EXPECT_LT(usage, 1.15) << axis.x << axis.y << axis.z;
        EXPECT_LT(limit(axis, 0.01), angle - 0.005) << axis.x << axis.y << axis.z;
    }
    // The zoom ladder finds the smallest zoom whose margins keep the usage within the limit.
    ZoomLadder ladder;
    ladder.prepare(f.camera, 1.0, 1.25);
    EXPECT_DOUBLE_EQ(ladder.zoomFor({}, {}, 0.85), 1.0);
    EXPECT_DOUBLE_EQ(ladder.zoomFor({0.0, 1.0, 0.0}, {}, 0.85), 1.25);
    double previous = 1.0;
    for (double share : {0.1, 0.3, 0.5, 0.7}) {
        const Vec3 d = {0.2 * share * m.pitch, share * m.yaw, 0.01 * share};
        const Vec3 spread = {0.0, 0.05 * m.yaw, 0.0};
        const double z = ladder.zoomFor(d, spread, 0.85);
        EXPECT_GT(z, previous) << share;
        EXPECT_LT(z, 1.25) << share;
        const CropMargins at = cropMargins(f.camera, z);
        EXPECT_NEAR(at.usage(d) + at.usage(spread), 0.85, 0.02) << share;
        previous = z;
    }
}

TEST(StabLensDistortion, RaysUndoTheProjectionAndTheGridShowsThePinholePicture) {
    Fixture f;
    f.config.lensK1 = -0.12;  // barrel
    f.config.lensK2 = 0.03;
    f.camera = CameraModel::fromConfig(f.config, 1.0);
    for (double u : {0.0, 0.1, 0.5, 0.83, 1.0}) {
        for (double v : {0.0, 0.35, 1.0}) {
            double u2, v2;
            ASSERT_TRUE(f.camera.project(f.camera.ray(u, v), u2, v2));
            EXPECT_NEAR(u2, u, 1e-9) << u << "," << v;
            EXPECT_NEAR(v2, v, 1e-9) << u << "," << v;
        }
    }
    // Barrel distortion records the corner's true ray closer to the centre than a pinhole.
    EXPECT_GT(std::fabs(f.camera.ray(0.0, 0.0).x), 1.02 * std::fabs(f.camera.pinholeRay(0, 0).x));
    // At rest every vertex sits where the ideal pinhole shows its undistorted ray.
    f.write(Quat{});
    const uint32_t c = f.config.gridColumns, r = f.config.gridRows;
    for (uint32_t j = 0; j < r; ++j) {
        for (uint32_t i = 0; i < c; ++i) {
            const Vec3 ray =
                f.camera.ray(static_cast<double>(i) / (c - 1), static_cast<double>(j) / (r - 1));
            const double x = 1.25 * (2.0 * (f.camera.cx + f.camera.fx * ray.x) - 1.0);
            const double y = 1.25 * (2.0 * (f.camera.cy + f.camera.fy * ray.y) - 1.0);
            EXPECT_NEAR(f.vertex(i, j)[0], x, 1e-5) << i << "," << j;
            EXPECT_NEAR(f.vertex(i, j)[1], y, 1e-5) << i << "," << j;
        }
    }
    EXPECT_LT(f.vertex(0, 0)[0], -1.25 * 1.02);  // the corner is pushed outwards
    // The centre row's middle is not moved at all.
    EXPECT_NEAR(f.vertex(c / 2, r / 2)[0], 0.0, 1e-6);
}

// Rows on the gyro's clock: shifted by the offset, first at mid-exposure, zoom shortens readout.
TEST(StabFrameTiming, RowsAtMidExposureShiftedByTheGyroOffsetAndShortenedByZoom) {
    constexpr int64_t kMs = 1000000;
    StabConfig c;
    c.readoutNs = 30 * kMs;
    const struct {
        int64_t offsetNs, exposureNs;
        double zoom;
        int64_t firstRowNs;
        double spanNs;
    } cases[] = {{0, 10 * kMs, 1.0, 1005 * kMs, 30 * kMs},
                 {4 * kMs, 10 * kMs, 1.0, 1009 * kMs, 30 * kMs},
                 {-7 * kMs, 0, 1.0, 993 * kMs, 30 * kMs},
                 {0, 0, 1.5, 1005 * kMs, 20 * kMs}};
    for (const auto& k : cases) {
        c.gyroTimeOffsetNs = k.offsetNs;
        const FrameTiming t = FrameTiming::make(1000 * kMs, k.exposureNs, k.zoom, c);
        EXPECT_EQ(t.firstRowNs, k.firstRowNs) << k.offsetNs << " " << k.zoom;
        EXPECT_DOUBLE_EQ(t.rowSpanNs, k.spanNs) << k.zoom;
    }
}

}  // namespace
}  // namespace vstab
