// One stabilization session (Stabilizer) seen from inside: counts, bias, crop limit, path.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "BiasEstimator.h"
#include "Metrics.h"
#include "Stabilizer.h"
#include "ZoomPlanner.h"
#include "zef_gyro_vstab.h"

namespace vstab {
namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kStart = 70000 * kMs;

StabConfig configWithReadout() {
    StabConfig c;
    c.readoutNs = 30 * kMs;
    return c;
}

// Sensor-axis sample for a camera-axis rate under the default mapping -y,-x,-z.
void addCamera(Stabilizer& s, int64_t t, const Vec3& cam) {
    const float sensor[3] = {static_cast<float>(-cam.y), static_cast<float>(-cam.x),
                             static_cast<float>(-cam.z)};
    s.addAngularVelocity(t, sensor);
}

int warp(Stabilizer& s, int64_t t, std::vector<float>& grid) {
    const VStabFrameInfo info{40, 2, t, 10 * kMs, 1.0f, 1.0f, 0, 0};
    return s.warp(info, grid.data());
}

TEST(StabBiasEstimator, LearnsTheOffsetOnlyWhileTheCameraRestsSessionCountsDroppedSamples) {
    const Vec3 offset = {0.004, -0.015, 0.002};  // within the 0.02 rad/s a bias may have
    BiasEstimator still, shaken, turning;
    Stabilizer session(configWithReadout());
    uint32_t seed = 1;
    auto noise = [&seed]() {  // uniform, std ~0.0017 rad/s
        seed = seed * 1664525u + 1013904223u;
        return (static_cast<double>(seed >> 8) / 16777216.0 - 0.5) * 0.006;
    };
    for (int k = 0; k < 1200; ++k) {  // 3 s at 400 Hz
        const int64_t t = kStart + k * 2500000LL;
        const double s = k * 0.0025;
        const Vec3 rest = offset + Vec3{noise(), noise(), noise()};
        still.add(t, rest);
        addCamera(session, t, rest);
        shaken.add(t, offset + Vec3{0.05 * std::sin(2 * 3.14159 * 4 * s), noise(), noise()});
        turning.add(t, Vec3{0.0, 0.05, 0.0});  // a slow deliberate pan on a tripod
    }
    ASSERT_TRUE(still.hasEstimate());
    EXPECT_LT(norm(still.bias() - offset), 3e-4);
    // Once learned, the session takes the offset off: the camera at rest does not turn.
    Quat a, b;
    ASSERT_TRUE(session.history().orientationAt(kStart + 2000 * kMs, a));
    ASSERT_TRUE(session.history().orientationAt(kStart + 2900 * kMs, b));
    EXPECT_LT(angleBetween(a, b), 1e-3);
    EXPECT_FALSE(shaken.hasEstimate());
    EXPECT_FALSE(turning.hasEstimate());
    // Samples the session cannot use are dropped and counted by kind.
    const int64_t last = kStart + 1199 * 2500000LL;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float bad[3] = {nan, 0.0f, 0.0f}, huge[3] = {0.0f, 3e3f, 0.0f}, ok[3] = {};
    session.addAngularVelocity(last + kMs, bad);
    session.addAngularVelocity(last + kMs, nullptr);
    session.addAngularVelocity(last + kMs, huge);
    session.addAngularVelocity(last - kMs, ok);
    session.addAngularVelocity(last, ok);
    const Stabilizer::Counters& c = session.counters();
    EXPECT_EQ(c.samplesAccepted, 1200u);
    EXPECT_EQ(c.samplesNonFinite, 2u);
    EXPECT_EQ(c.samplesImplausible, 1u);
    EXPECT_EQ(c.samplesOutOfOrder, 1u);
    EXPECT_EQ(c.samplesDuplicate, 1u);
}

// Every point of the output's border samples inside the camera frame: no uncovered pixel.
void expectBorderInsideInput(const std::vector<float>& grid, const StabConfig& c, int64_t frame) {
    const qlmr::harness::WarpMesh mesh(grid.data(), static_cast<int>(c.gridColumns),
                                       static_cast<int>(c.gridRows));
    for (double e = -1.0; e <= 1.0; e += 0.125) {
        const double border[4][2] = {{e, -1.0}, {e, 1.0}, {-1.0, e}, {1.0, e}};
        for (const auto& p : border) {
            double u, v;
            ASSERT_TRUE(mesh.textureAt(p[0], p[1], u, v)) << frame;
            ASSERT_TRUE(u >= 0.0 && u <= 1.0 && v >= 0.0 && v <= 1.0)
                << "frame " << frame << " shows (" << u << ", " << v << ")";
        }
    }
}

TEST(StabSession, CropLimitHoldsUnderShakeNoMarginAbsorbs) {
    Stabilizer s(configWithReadout());
    const StabConfig& c = s.config();
    std::vector<float> grid(static_cast<size_t>(c.gridColumns) * c.gridRows * 3);
    int warped = 0;
    int64_t frame = kStart + 100 * kMs;
    for (int64_t t = kStart; t < kStart + 6000 * kMs; t += 2500000) {
        const double x = static_cast<double>(t - kStart) * 1e-9;
        // About 6 degrees at 2.3 and 3.1 Hz: far beyond the 3.8 degree vertical margin.
        addCamera(s, t,
                  {1.0 * std::cos(14.5 * x), 0.9 * std::sin(19.5 * x), 0.3 * std::cos(9 * x)});
        if (t > frame + 700 * kMs) {
            ASSERT_EQ(warp(s, frame, grid), kStatusWarped);
            ++warped;
            ASSERT_NO_FATAL_FAILURE(expectBorderInsideInput(grid, c, frame));
            frame += 33 * kMs;
        }
    }
    EXPECT_GT(warped, 100);
    EXPECT_GT(s.counters().framesClamped, 0u);
}

TEST(StabSession, PathContinuesFromFrameToFrameAndRestartsAfterALongBreak) {
    Stabilizer s(configWithReadout());
    std::vector<float> grid(static_cast<size_t>(s.config().gridColumns) * s.config().gridRows * 3);
    const Vec3 pan = {0.0, 0.3, 0.0};  // rad/s
    for (int64_t t = kStart; t < kStart + 8000 * kMs; t += 2500000) {
        addCamera(s, t, pan);
    }
    Quat previous;
    for (int64_t f = kStart + 1000 * kMs; f < kStart + 2000 * kMs; f += 33 * kMs) {
        ASSERT_EQ(warp(s, f, grid), kStatusWarped);
        if (f > kStart + 1500 * kMs) {
            // Settled onto the pan: 33 ms of it between frames, about y only.
            const Vec3 step = logMap(conj(previous) * s.lastVirtual());
            EXPECT_NEAR(step.y, 0.3 * 0.033, 1e-5);
            EXPECT_NEAR(std::hypot(step.x, step.z), 0.0, 1e-6);
        }
        previous = s.lastVirtual();
    }
    EXPECT_EQ(s.counters().pathRestarts, 1u);
    // An exposure of 300 ms between 10 ms ones moves the centre times: no restart, no jump.
    for (const int64_t exposureMs : {300, 10, 10}) {
        const int64_t t = kStart + (exposureMs == 300 ? 2000 : 2033) * kMs;
        const VStabFrameInfo info{40, 2, t, exposureMs * kMs, 1.0f, 1.0f, 0, 0};
        ASSERT_EQ(s.warp(info, grid.data()), kStatusWarped);
        EXPECT_LT(angleBetween(previous, s.lastVirtual()), 0.3 * 0.2) << exposureMs;
        // The 10 ms frames are shown from the committed path: their centre stays centred.
        EXPECT_NEAR(grid[3 * (9 * 33 + 16)], 0.0f, 0.005) << exposureMs;
    }
    EXPECT_EQ(s.counters().pathRestarts, 1u);
    ASSERT_EQ(warp(s, kStart + 5000 * kMs, grid), kStatusWarped);
    EXPECT_EQ(s.counters().pathRestarts, 2u);
    EXPECT_EQ(s.lastCentreNs(), kStart + 5000 * kMs + 5 * kMs + 15 * kMs);
}

TEST(StabSession, AdaptiveZoomRisesForShakeAndFallsSlowlyAfterIt) {
    // Still for 3 s, then 5 Hz yaw shake of 0.04 rad for 3 s, then still again.
    Stabilizer s(configWithReadout());
    const StabConfig& c = s.config();
    std::vector<float> grid(static_cast<size_t>(c.gridColumns) * c.gridRows * 3);
    const double w = 2 * 3.14159265358979 * 5.0;
    std::vector<std::pair<double, double>> zooms;  // frame time (s), zoom
    int64_t frame = kStart + 100 * kMs;
    for (int64_t t = kStart; t < kStart + 12000 * kMs; t += 2500000) {
        const double x = static_cast<double>(t - kStart) * 1e-9;
        const bool shaking = x >= 3.0 && x < 6.0;
        addCamera(s, t, {0.0, shaking ? 0.04 * w * std::cos(w * (x - 3.0)) : 0.0, 0.0});
        if (t > frame + 700 * kMs) {
            ASSERT_EQ(warp(s, frame, grid), kStatusWarped);
            ASSERT_NO_FATAL_FAILURE(expectBorderInsideInput(grid, c, frame));
            zooms.emplace_back(static_cast<double>(frame - kStart) * 1e-9, s.outputZoom());
            frame += 33 * kMs;
        }
    }
    auto zoomAt = [&](double t) {
        for (const auto& z : zooms) {
            if (z.first >= t) {
                return z.second;
            }
        }
        return zooms.back().second;
    };
    EXPECT_LT(zoomAt(1.5), 1.07);          // still: little more than the start margin
    EXPECT_GT(zoomAt(4.5), zoomAt(2.0));   // the shake needs a margin
    EXPECT_LT(zoomAt(4.5), c.overscan);    // but not the whole overscan
    EXPECT_GT(zoomAt(8.0), zoomAt(11.5));  // falls back afterwards
    // Smoothly, except where the sudden shake outruns the plan and the crop limit magnifies.
    double worst = 0.0;
    for (size_t k = 1; k < zooms.size(); ++k) {
        if (zooms[k].first < 2.4 || zooms[k].first > 6.5) {
            worst = std::max(worst, std::fabs(zooms[k].second - zooms[k - 1].second));
        }
    }
    EXPECT_LE(worst, ZoomPlanner::kRisePerS * 0.033 + 1e-9);
    EXPECT_EQ(s.counters().framesClamped, 0u);
}

// The default 1.2 s window (time constant window / 1.2 pi) keeps about 15 % of a 1 Hz sway.
TEST(StabSession, WindowSetsHowMuchOfAOneHertzSwayThePathKeeps) {
    Stabilizer s(configWithReadout());
    std::vector<float> grid(static_cast<size_t>(s.config().gridColumns) * s.config().gridRows * 3);
    const double w = 2 * 3.14159265358979, amp = 0.01;
    for (int64_t t = kStart; t < kStart + 8000 * kMs; t += 2500000) {
        const double x = static_cast<double>(t - kStart) * 1e-9;
        addCamera(s, t, {0.0, amp * w * std::cos(w * x), 0.0});
    }
    double in = 0.0, quadrature = 0.0;
    int frames = 0;
    for (int64_t f = kStart + 1000 * kMs; f < kStart + 7000 * kMs; f += 33 * kMs) {
        ASSERT_EQ(warp(s, f, grid), kStatusWarped);
        if (f >= kStart + 3000 * kMs) {  // settled
            const double x = static_cast<double>(s.lastCentreNs() - kStart) * 1e-9;
            in += logMap(s.lastVirtual()).y * std::sin(w * x);
            quadrature += logMap(s.lastVirtual()).y * std::cos(w * x);
            ++frames;
        }
    }
    const double gain = 2.0 * std::hypot(in, quadrature) / frames / amp;
    EXPECT_GT(gain, 0.10);
    EXPECT_LT(gain, 0.22);
}

TEST(StabZoomPlanner, MovesSmoothlyAboveTheNeeds) {
    // The zoom may range over 1.0 .. 1.25; frames every 33 ms.
    ZoomPlanner p(1.0, 1.25);
    double need[3] = {1.0, 1.05, 1.02};
    p.start(need, 3, 1.25);  // beside frames shown unwarped: their magnification
    EXPECT_DOUBLE_EQ(p.zoom(), 1.25);
    p.start(need, 3, 0.0);
    EXPECT_DOUBLE_EQ(p.zoom(), 1.05 * (1.0 + ZoomPlanner::kStartMargin));
    EXPECT_DOUBLE_EQ(p.next(0.0, need, 3), p.zoom());  // no time passed
    // Runs `seconds` with every need at `level`; the speed changes by at most kAccelPerS2.
    const double dt = 0.033;
    auto run = [&](double level, double seconds, bool smooth = true) {
        need[0] = need[1] = need[2] = level;
        double previous = p.zoom(), speed = 0.0;
        for (double t = 0.0; t < seconds; t += dt) {
            const double z = p.next(dt, need, 3);
            const double v = (z - previous) / dt;
            EXPECT_TRUE(!smooth || std::fabs(v - speed) <= ZoomPlanner::kAccelPerS2 * dt + 1e-9)
                << level;
            EXPECT_LE(v, ZoomPlanner::kRisePerS + 1e-9);
            EXPECT_GE(v, -ZoomPlanner::kFallPerS - 1e-9);
            previous = z;
            speed = v;
        }
    };
    run(1.05, 60.0);  // falls back slowly until the need is within kFallGap, then rests
    EXPECT_NEAR(p.zoom(), 1.05 / (1.0 - ZoomPlanner::kFallGap), 0.002);
    const double resting = p.zoom();
    run(resting * 0.98, 10.0);  // a need just below: held
    EXPECT_DOUBLE_EQ(p.zoom(), resting);
    run(1.2, 10.0);  // a need above: risen to it
    EXPECT_GE(p.zoom(), 1.2);
    run(1.4, 10.0, false);  // beyond the largest: clamped
    EXPECT_DOUBLE_EQ(p.zoom(), 1.25);
}

TEST(StabSession, FramesAtTheEndOfTheGyroAreWarpedWithTheLookAheadThereIs) {
    // A pan speeding up (0.3 rad/s + 0.2 rad/s^2), with 2 Hz shake; the gyro stops at 3 s.
    Stabilizer s(configWithReadout());
    std::vector<float> grid(static_cast<size_t>(s.config().gridColumns) * s.config().gridRows * 3);
    const int64_t end = kStart + 3000 * kMs;
    auto rate = [](int64_t t) {
        const double w = 2 * 3.14159265358979 * 2.0;
        const double x = static_cast<double>(t - kStart) * 1e-9;
        return Vec3{0.0, 0.3 + 0.2 * x + 0.01 * w * std::cos(w * x), 0.0};
    };
    for (int64_t t = kStart; t <= end; t += 2500000) {
        addCamera(s, t, rate(t));
    }
    int64_t f = kStart + 100 * kMs;
    for (; warp(s, f, grid) == kStatusWarped; f += 33 * kMs) {
    }
    EXPECT_EQ(s.counters().framesShortLookAhead, 0u);
    // After kIdleAsksForGyroEnd asks without a sample the frame is warped; a new sample resets.
    for (uint32_t k = 2; k < Stabilizer::kIdleAsksForGyroEnd; ++k) {
        ASSERT_EQ(warp(s, f, grid), kStatusNeedMoreGyro) << k;
    }
    ASSERT_EQ(warp(s, f, grid), kStatusWarped);
    addCamera(s, end + 2500000, rate(end));
    ASSERT_EQ(warp(s, f + 33 * kMs, grid), kStatusNeedMoreGyro);
    for (uint32_t k = 2; k <= Stabilizer::kIdleAsksForGyroEnd; ++k) {
        warp(s, f + 33 * kMs, grid);
    }
    // Then each frame the gyro reaches is warped at once along the pan; one beyond it waits.
    const auto panStep = [&](int64_t centreNs) {
        return (0.3 + 0.2 * static_cast<double>(centreNs - 16 * kMs - kStart) * 1e-9) * 0.033;
    };
    Quat previous = s.lastVirtual();
    int warped = 0;
    for (f += 66 * kMs; f < end - 20 * kMs; f += 33 * kMs) {
        ASSERT_EQ(warp(s, f, grid), kStatusWarped) << f;
        ++warped;
        const Vec3 step = logMap(conj(previous) * s.lastVirtual());
        EXPECT_NEAR(step.y, panStep(s.lastCentreNs()), 0.0001) << f;
        previous = s.lastVirtual();
    }
    EXPECT_GT(warped, 12);
    EXPECT_GT(s.counters().framesShortLookAhead, 12u);
    EXPECT_EQ(warp(s, end + 100 * kMs, grid), kStatusNeedMoreGyro);
}

TEST(StabSession, StartFollowsThePanAndBesideUnwarpedFramesAtTheirZoom) {
    // A 0.3 rad/s pan with shake, frames from the first sample, after 1 s of history (1.5 Hz
    // shake) or from before the gyro: followed from the first frame on.
    struct Case {
        int64_t firstFrameNs;
        double shakeHz;
        double worstRad;
    };
    for (const Case c : {Case{kStart, 7.0, 0.002}, Case{kStart + 1000 * kMs, 1.5, 0.001},
                         Case{kStart - 30 * kMs, 7.0, 0.0}}) {
        Stabilizer s(configWithReadout());
        std::vector<float> grid(static_cast<size_t>(s.config().gridColumns) * s.config().gridRows *
                                3);
        const double w = 2 * 3.14159265358979 * c.shakeHz;
        for (int64_t t = kStart; t < kStart + 3000 * kMs; t += 2500000) {
            const double x = static_cast<double>(t - kStart) * 1e-9;
            addCamera(s, t, {0.0, 0.3 + 0.01 * w * std::cos(w * x), 0.0});
        }
        int status = warp(s, c.firstFrameNs, grid);
        if (c.firstFrameNs < kStart) {
            ASSERT_EQ(status, kStatusNoGyroBeforeFrame);  // shown unwarped at the overscan ...
            ASSERT_EQ(warp(s, c.firstFrameNs + 33 * kMs, grid), kStatusWarped);
            EXPECT_DOUBLE_EQ(s.outputZoom(), s.config().overscan);  // ... and so is the next
            continue;
        }
        ASSERT_EQ(status, kStatusWarped);
        double worst = 0.0;
        for (int64_t f = c.firstFrameNs; f < c.firstFrameNs + 1000 * kMs; f += 33 * kMs) {
            ASSERT_EQ(warp(s, f, grid), kStatusWarped);
            const double x = static_cast<double>(s.lastCentreNs() - kStart) * 1e-9;
            worst = std::max(worst, std::fabs(logMap(s.lastVirtual()).y - 0.3 * x));
        }
        EXPECT_LT(worst, c.worstRad) << c.shakeHz;  // 0.1 degree = 0.0017 rad
    }
}

}  // namespace
}  // namespace vstab
