// The virtual-camera path smoother: its response to motion and shake, and the soft crop limit.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "PathSmoother.h"

namespace vstab {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Gain and phase (degrees) of the smoother, one pose per 30 fps frame, on a unit yaw sine of f.
struct Response {
    double gain;
    double phaseDeg;
};

Response respond(double f, double windowS, double latencyS) {
    const double tau = windowS / (1.2 * kPi);
    SmootherParams params;
    params.lambda = tau * tau * tau * tau;
    params.margins = {10, 10, 0, 0};  // far away: no crop limit
    const int n = 1 + static_cast<int>(std::ceil(latencyS / (1.0 / 60.0) - 1e-9));
    const double h = latencyS / (n - 1);
    PathSmoother smoother(static_cast<size_t>(n));
    std::vector<double> t(n);
    std::vector<Vec3> p(n);
    const double dt = 1.0 / 30.0;
    double committed[2] = {0.0, 0.0};
    double s = 0.0, c = 0.0;
    int m = 0;
    for (int k = 0; k < 30 * 30; ++k) {
        const double tc = k * dt;
        SmootherProblem pr;
        pr.pastCount = 2;
        pr.pastT[0] = -2 * dt;
        pr.pastT[1] = -dt;
        pr.pastX[0] = {0, committed[0], 0};
        pr.pastX[1] = {0, committed[1], 0};
        for (int i = 0; i < n; ++i) {
            t[i] = i * h;
            p[i] = {0, std::sin(2 * kPi * f * (tc + t[i])), 0};
        }
        pr.count = n;
        pr.t = t.data();
        pr.p = p.data();
        const double x = smoother.solve(pr, params).y;
        committed[0] = committed[1];
        committed[1] = x;
        if (tc >= 10.0) {  // steady state
            s += x * std::sin(2 * kPi * f * tc);
            c += x * std::cos(2 * kPi * f * tc);
            ++m;
        }
    }
    s *= 2.0 / m;
    c *= 2.0 / m;
    return {std::hypot(s, c), std::atan2(c, s) * 180.0 / kPi};
}

TEST(StabPathSmoother, KeepsIntendedMotionWithoutOvershootOrLagAndRemovesHandShake) {
    const struct {
        double hz, minGain, maxGain, maxPhaseDeg;
    } cases[] = {{0.05, 0.93, 1.03, 3.0}, {0.1, 0.93, 1.03, 3.0},  {0.2, 0.93, 1.03, 3.0},
                 {0.3, 0.93, 1.03, 10.0}, {2.0, 0.0, 0.01, 180.0}, {3.0, 0.0, 0.01, 180.0},
                 {5.0, 0.0, 0.01, 180.0}, {8.0, 0.0, 0.01, 180.0}, {12.0, 0.0, 0.01, 180.0}};
    for (const auto& c : cases) {
        const Response r = respond(c.hz, 1.2, 0.6);
        EXPECT_GE(r.gain, c.minGain) << c.hz << " Hz is lost";
        EXPECT_LT(r.gain, c.maxGain) << c.hz << " Hz is amplified";
        EXPECT_LE(std::fabs(r.phaseDeg), c.maxPhaseDeg) << c.hz << " Hz lags";
    }
}

TEST(StabPathSmoother, BendsTowardsThePhysicalPathBeforeTheCropMarginRunsOut) {
    // Still past, then the physical camera jumps 0.1 rad sideways ahead in the horizon.
    const int n = 37;
    PathSmoother smoother(n);
    SmootherParams params;
    params.lambda = std::pow(1.2 / (1.2 * kPi), 4);
    params.margins = {0.06, 0.06, 1, 1};
    params.usageLimit = 0.9;
    std::vector<double> t(n);
    std::vector<Vec3> p(n);
    for (int i = 0; i < n; ++i) {
        t[i] = i / 60.0;
        p[i] = {0, i > 10 ? 0.1 : 0.0, 0};
    }
    SmootherProblem pr;
    pr.pastCount = 2;
    pr.pastT[0] = -0.066;
    pr.pastT[1] = -0.033;
    pr.count = n;
    pr.t = t.data();
    pr.p = p.data();
    std::vector<Vec3> path(n);
    int iterations = 0;
    smoother.solve(pr, params, path.data(), &iterations);
    EXPECT_GT(iterations, 1);
    double worst = 0.0;
    for (int i = 0; i < n; ++i) {
        worst = std::fmax(worst, params.margins.usage(path[i] - p[i]));
    }
    EXPECT_LT(worst, 1.0);
    EXPECT_GT(path[0].y, 0.0) << "the path starts moving before the jump";
}

}  // namespace
}  // namespace vstab
