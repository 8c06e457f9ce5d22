// The quality harness's measures: if they were wrong, the acceptance figures would be too.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "Metrics.h"
#include "sim/Scenario.h"
#include "sim/Sensors.h"

namespace qlmr::harness {
namespace {

constexpr double kPi = 3.14159265358979323846;

std::vector<float> uniformGrid(int columns, int rows, double shiftX = 0.0) {
    std::vector<float> g(static_cast<size_t>(columns) * rows * 3);
    for (int j = 0; j < rows; ++j) {
        for (int i = 0; i < columns; ++i) {
            float* p = &g[3 * (static_cast<size_t>(j) * columns + i)];
            p[0] = static_cast<float>((2.0 * i / (columns - 1) - 1.0) * 1.25 + shiftX);
            p[1] = static_cast<float>((2.0 * j / (rows - 1) - 1.0) * 1.25);
            p[2] = 0.0f;
        }
    }
    return g;
}

TEST(StabHarnessMetrics, FitRotationRecoversAKnownRotation) {
    const Q truth = sim::fromRotationVector(V3(0.1, -0.4, 0.25));
    std::vector<V3> a, b;
    for (int k = 0; k < 12; ++k) {
        const V3 d = V3(std::sin(k * 1.3), std::cos(k * 0.7), 1.0 + 0.1 * k).normalized();
        a.push_back(d);
        b.push_back(truth * d);
    }
    EXPECT_LT(fitRotation(a.data(), b.data(), 12).angularDistance(truth), 1e-9);
}

TEST(StabHarnessMetrics, UniformGridIsFoundAtItsZoomShowsNothingWhenStillAndWobbleWhenTurning) {
    const std::vector<float> g = uniformGrid(33, 19);
    const WarpMesh mesh(g.data(), 33, 19);
    double u, v;
    for (double x : {-1.0, -0.31, 0.0, 0.77, 1.0}) {
        for (double y : {-1.0, 0.42, 1.0}) {
            ASSERT_TRUE(mesh.textureAt(x, y, u, v));
            EXPECT_NEAR(u, 0.5 + 0.5 * x / 1.25, 1e-6);
            EXPECT_NEAR(v, 0.5 + 0.5 * y / 1.25, 1e-6);
        }
    }
    EXPECT_FALSE(mesh.textureAt(1.3, 0.0, u, v));
    EXPECT_NEAR(gridZoom(g.data(), 33, 19), 1.25, 1e-6);
    std::vector<float> scaled = g;
    for (float& c : scaled) {
        c *= 0.84f;  // a magnification of 1.05
    }
    EXPECT_NEAR(gridZoom(scaled.data(), 33, 19), 1.05, 1e-6);
    const sim::Trajectory still{sim::MotionPlan{}};
    const sim::CameraSetup camera;
    const FrameEvaluation e =
        evaluateFrame(g.data(), 33, 19, still, camera, {sim::toClockNs(1.0), 10000000});
    EXPECT_LT(e.output.angularDistance(Q::Identity()), 1e-6);
    EXPECT_LT(e.wobblePx, 0.01);
    EXPECT_EQ(e.outsidePoints, 0);
    // The same grid moved right by 0.3 NDC leaves the output's left edge uncovered.
    const std::vector<float> shifted = uniformGrid(33, 19, 0.3);
    const FrameEvaluation s =
        evaluateFrame(shifted.data(), 33, 19, still, camera, {sim::toClockNs(1.0), 10000000});
    EXPECT_GT(s.outsidePoints, 0);
    // A turning camera: output rows span 80 % of the readout; yaw moves them by focal * angle.
    sim::MotionPlan spin;
    spin.yaw.pans = {{0.0, 1000.0, 100.0}};  // ~0.2 rad/s
    const sim::Trajectory truth(spin);
    const double rate = truth.angularVelocity(500.0).norm();
    const FrameEvaluation r =
        evaluateFrame(g.data(), 33, 19, truth, camera, {sim::toClockNs(500.0), 10000000});
    const double expected = camera.focalPx() * 1.25 * rate * camera.readoutS * 0.8;
    EXPECT_NEAR(r.wobblePx, expected, 0.1 * expected);
}

TEST(StabHarnessMetrics, JitterStabilityAndRetainedPictureOfKnownMotions) {
    sim::CameraSetup camera;
    const double focalOut = camera.focalPx() * 1.25;
    auto frames = [&](double f, double amp) {
        std::vector<FrameEvaluation> out(600);
        for (size_t k = 0; k < out.size(); ++k) {
            out[k].output =
                sim::fromRotationVector(V3(0, amp * std::sin(2 * kPi * f * k / 30.0), 0));
            out[k].zoom = 1.25;
        }
        return out;
    };
    const Figures shake = summarize(frames(5.0, 0.002), camera, 1.0);
    EXPECT_NEAR(shake.jitterPx, focalOut * 0.002 / std::sqrt(2.0), 0.05 * focalOut * 0.002);
    EXPECT_LT(shake.stability, 0.1);
    const Figures slow = summarize(frames(0.1, 0.2), camera, 1.0);
    EXPECT_LT(slow.jitterPx, 0.05 * focalOut * 0.002);
    EXPECT_GT(slow.stability, 0.95);
    EXPECT_NEAR(slow.maxAccelRadS2, 0.2 * std::pow(2 * kPi * 0.1, 2), 0.01);
    std::vector<FrameEvaluation> zoomed(10);
    for (size_t k = 0; k < zoomed.size(); ++k) {
        zoomed[k].zoom = k < 5 ? 1.0 : 1.25;
    }
    const Figures f = summarize(zoomed, camera, 0.0);
    EXPECT_NEAR(f.meanRetained, 0.5 * (1.0 + 0.64), 1e-9);
    EXPECT_NEAR(f.minRetained, 0.64, 1e-9);
}

TEST(StabSimulation, GyroReportsTheTrajectoryInTheSensorsAxesAndClock) {
    sim::Scenario s = sim::makeScenario("walk");
    s.gyro.noiseRadPerS = 0.0;
    s.gyro.biasRadPerS = V3::Zero();
    s.gyro.jitterS = 0.0;
    const sim::Trajectory truth(s.motion);
    const std::vector<sim::GyroSample> g = sim::simulateGyro(truth, s.gyro, 1.0, 1.1);
    ASSERT_EQ(g.size(), 40u);
    for (const sim::GyroSample& sample : g) {
        const double t = sim::toSeconds(sample.timestampNs) - s.gyro.timeOffsetS;
        const V3 w = truth.angularVelocity(t);
        // -y,-x,-z: camera x = -sensor y, camera y = -sensor x, camera z = -sensor z.
        EXPECT_NEAR(sample.rate[1], -w.x(), 1e-6);
        EXPECT_NEAR(sample.rate[0], -w.y(), 1e-6);
        EXPECT_NEAR(sample.rate[2], -w.z(), 1e-6);
    }
    // The rate integrates to the orientation change.
    Q q = truth.orientation(2.0);
    for (int k = 0; k < 1000; ++k) {
        const double t = 2.0 + (k + 0.5) * 1e-4;
        q = q * sim::fromRotationVector(truth.angularVelocity(t) * 1e-4);
    }
    EXPECT_LT(q.angularDistance(truth.orientation(2.1)), 1e-7);
}

}  // namespace
}  // namespace qlmr::harness
