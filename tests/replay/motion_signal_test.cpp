// Global motion estimation, path statistics and the worker pool.
#include "FinishesWithin.h"
#include "common/WorkerPool.h"
#include "measure/Motion.h"
#include "measure/Signal.h"
#include "synthetic/Scene.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>

using namespace qlmr::replay;

namespace {

constexpr double kPi = 3.14159265358979323846;

// Luma of the procedural scene, reduced to w x h.
GrayImage texture(int w, int h) {
    const Scene s = Scene::procedural(w, h, 90, 3);
    GrayImage g;
    g.resize(w, h);
    for (size_t i = 0; i < g.data.size(); ++i)
        g.data[i] = s.y[i];
    return g;
}

// moving(x) = reference(inverse warp): builds the picture that `sim` maps `ref` onto.
GrayImage warped(const GrayImage& ref, const Similarity& sim) {
    GrayImage out;
    out.resize(ref.width, ref.height);
    const double cx = ref.width / 2.0, cy = ref.height / 2.0;
    const double c = std::cos(sim.angle) / sim.scale, s = std::sin(sim.angle) / sim.scale;
    for (int y = 0; y < ref.height; ++y) {
        for (int x = 0; x < ref.width; ++x) {
            const double dx = x - cx - sim.tx, dy = y - cy - sim.ty;
            const double rx = c * dx + s * dy + cx, ry = -s * dx + c * dy + cy;
            const int ix = static_cast<int>(std::floor(rx)), iy = static_cast<int>(std::floor(ry));
            double v = 0;
            if (ix >= 0 && iy >= 0 && ix + 1 < ref.width && iy + 1 < ref.height) {
                const double fx = rx - ix, fy = ry - iy;
                v = (ref.at(ix, iy) * (1 - fx) + ref.at(ix + 1, iy) * fx) * (1 - fy) +
                    (ref.at(ix, iy + 1) * (1 - fx) + ref.at(ix + 1, iy + 1) * fx) * fy;
            }
            out.data[static_cast<size_t>(y) * out.width + x] = static_cast<uint8_t>(std::lround(v));
        }
    }
    return out;
}

}  // namespace

TEST(MotionEstimator, RecoversKnownSimilaritiesAlsoInPairRuns) {
    // 320x200: every finest-level pixel used; 640x400: every other row and column.
    for (const int scale : {1, 2}) {
        const GrayImage ref = texture(320 * scale, 200 * scale);
        struct Case {
            Similarity truth;
            std::vector<double> scales;
        } cases[] = {
            {{1.0, 0.0, 3.25, -1.5}, {}},
            {{1.0, 0.02, -24.0, 17.0}, {}},        // large shift: found by the coarse search
            {{0.8, -0.01, 4.0, 2.0}, {1.0, 0.8}},  // zoomed-in view of the reference
        };
        MotionEstimator est;
        for (const Case& c : cases) {
            MotionOptions opt;
            opt.scales = c.scales;
            const MotionEstimate e = est.estimate(ref, warped(ref, c.truth), Similarity{}, opt);
            ASSERT_TRUE(e.ok);
            EXPECT_NEAR(e.motion.tx, c.truth.tx, 0.15);
            EXPECT_NEAR(e.motion.ty, c.truth.ty, 0.15);
            EXPECT_NEAR(e.motion.angle, c.truth.angle, 0.001);
            EXPECT_NEAR(e.motion.scale, c.truth.scale, 0.002);
            // The portable sums find the same motion as the vector ones.
            opt.vectorKernels = false;
            const MotionEstimate p = est.estimate(ref, warped(ref, c.truth), Similarity{}, opt);
            ASSERT_TRUE(p.ok);
            EXPECT_NEAR(p.motion.tx, e.motion.tx, 0.002);
            EXPECT_NEAR(p.motion.ty, e.motion.ty, 0.002);
            EXPECT_NEAR(p.motion.angle, e.motion.angle, 1e-5);
            EXPECT_NEAR(p.motion.scale, e.motion.scale, 1e-5);
        }
    }
    // A chain (a shared middle frame), a zoomed pair, unequal and tiny pictures; 1 and 2 threads.
    const GrayImage a = texture(320, 200);
    const GrayImage b = warped(a, {1.0, 0.0, 2.5, -1.25});
    const GrayImage c = warped(a, {1.0, 0.01, -3.0, 4.0});
    const GrayImage zoomed = warped(a, {0.8, 0.0, 1.0, 2.0});
    GrayImage other, tiny;
    other.resize(300, 200);
    tiny.resize(20, 20);
    MotionOptions plain;
    MotionOptions scaled;
    scaled.scales = {1.0, 0.8};
    for (const int threads : {1, 2}) {
        std::vector<PairRegistration> jobs = {{&a, &b, {}, &plain, {}},
                                              {&b, &c, {}, &plain, {}},
                                              {&a, &zoomed, {}, &scaled, {}},
                                              {&a, &other, {}, &plain, {}},
                                              {&tiny, &tiny, {}, &plain, {}}};
        registerPairs(jobs, threads);
        for (size_t i = 0; i < 3; ++i) {
            MotionEstimator fresh;
            const MotionEstimate e =
                fresh.estimate(*jobs[i].reference, *jobs[i].moving, {}, *jobs[i].options);
            ASSERT_TRUE(jobs[i].result.ok) << i;
            EXPECT_DOUBLE_EQ(jobs[i].result.motion.tx, e.motion.tx) << i;
            EXPECT_DOUBLE_EQ(jobs[i].result.motion.ty, e.motion.ty) << i;
            EXPECT_DOUBLE_EQ(jobs[i].result.motion.angle, e.motion.angle) << i;
            EXPECT_DOUBLE_EQ(jobs[i].result.motion.scale, e.motion.scale) << i;
        }
        EXPECT_NEAR(jobs[1].result.motion.tx, -3.0 - 2.5, 0.3);
        EXPECT_NEAR(jobs[2].result.motion.scale, 0.8, 0.002);
        EXPECT_FALSE(jobs[3].result.ok);
        EXPECT_FALSE(jobs[4].result.ok);
    }
}

TEST(Signal, HighPassKeepsShakeStabilityScoreSeparatesSlowFromFastPercentilesUseNearestRank) {
    std::vector<double> slow(120), fast(120), constant(120, 2.0);
    for (int i = 0; i < 120; ++i) {
        slow[i] = std::sin(2 * kPi * 3 * i / 120.0);   // bin 3
        fast[i] = std::sin(2 * kPi * 40 * i / 120.0);  // bin 40
    }
    EXPECT_NEAR(stabilityScore(slow), 1.0, 1e-9);
    EXPECT_NEAR(stabilityScore(fast), 0.0, 1e-9);
    EXPECT_DOUBLE_EQ(stabilityScore(constant), 1.0);  // only DC: nothing shakes
    std::vector<double> mixed(120);
    for (int i = 0; i < 120; ++i)
        mixed[i] = slow[i] + fast[i];
    EXPECT_NEAR(stabilityScore(mixed), 0.5, 1e-6);
    // Bin 6 is the 7th lowest component: outside the score.
    std::vector<double> bin6(120);
    for (int i = 0; i < 120; ++i)
        bin6[i] = std::cos(2 * kPi * 6 * i / 120.0);
    EXPECT_NEAR(stabilityScore(bin6), 0.0, 1e-9);
    EXPECT_TRUE(std::isnan(stabilityScore(std::vector<double>(5, 1.0))));
    std::vector<double> v;
    for (int i = 100; i >= 1; --i)
        v.push_back(i);
    const Percentiles p = percentiles(v);
    EXPECT_EQ(p.count, 100);
    EXPECT_DOUBLE_EQ(p.p50, 50);
    EXPECT_DOUBLE_EQ(p.p90, 90);
    EXPECT_DOUBLE_EQ(p.p99, 99);
    EXPECT_DOUBLE_EQ(p.max, 100);
    EXPECT_DOUBLE_EQ(p.mean, 50.5);
    EXPECT_DOUBLE_EQ(percentiles({7}).p99, 7);
    EXPECT_EQ(percentiles({}).count, 0);
    std::vector<double> ramp(300), shake(300);
    for (int i = 0; i < 300; ++i) {
        ramp[i] = 0.5 * i;                     // steady pan
        shake[i] = (i % 2 == 0) ? 1.0 : -1.0;  // fastest possible jitter
    }
    EXPECT_LT(highPassRms(ramp, 15), 1e-9);  // a steady pan is not shake, ends included
    std::vector<double> turn(300);
    for (int i = 0; i < 300; ++i)
        turn[i] = 100 * std::sin(2 * kPi * 0.06 * i / 30.0);  // slow look around
    EXPECT_LT(highPassRms(turn, 15), 0.05);
    EXPECT_NEAR(highPassRms(shake, 15), 1.0, 0.02);
    EXPECT_NEAR(highPassRms2(shake, shake, 15), std::sqrt(2.0), 0.03);
    // Settled: the frames before `from` are left out of the mean, not counted as still.
    EXPECT_NEAR(highPassRms2(shake, shake, 15, 200), std::sqrt(2.0), 0.03);
    const auto smooth = gaussianSmooth(ramp, 15);
    EXPECT_NEAR(smooth[150], ramp[150], 1e-9);
    EXPECT_NEAR(smooth[0], ramp[0], 1e-9);
    EXPECT_NEAR(smooth[299], ramp[299], 1e-9);
}

TEST(WorkerPool, CoversEveryIndexOnceAndIsReusable) {
    std::vector<std::atomic<int>> hits(1000);
    ASSERT_TRUE(finishesWithin(std::chrono::seconds(30), [&] {
        WorkerPool pool(3);
        for (int round = 0; round < 50; ++round) {
            pool.run(
                [](void* h, int b, int e) {
                    for (int i = b; i < e; ++i)
                        (*static_cast<std::vector<std::atomic<int>>*>(h))[static_cast<size_t>(i)]++;
                },
                &hits, round % 2 ? 1000 : 7);
        }
    })) << "worker pool deadlocked";
    int total = 0;
    for (auto& h : hits)
        total += h.load();
    EXPECT_EQ(total, 25 * 1000 + 25 * 7);
}
