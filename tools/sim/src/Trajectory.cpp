#include "sim/Trajectory.h"

#include <cmath>

namespace qlmr::sim {

namespace {
constexpr double kPi = 3.14159265358979323846;
}

double AxisPath::value(double t) const {
    double v = 0.0;
    for (const Wave& w : waves) {
        v += w.amplitudeRad * std::sin(2.0 * kPi * w.frequencyHz * t + w.phaseRad);
    }
    for (const Pan& p : pans) {
        const double s = (t - p.startS) / p.durationS;
        if (s >= 1.0) {
            v += p.angleRad;
        } else if (s > 0.0) {
            v += p.angleRad * (s - std::sin(2.0 * kPi * s) / (2.0 * kPi));
        }
    }
    return v;
}

AxisPath handShake(std::mt19937_64& rng, double loHz, double hiHz, double totalAmplitudeRad,
                   int count) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    AxisPath path;
    double sum = 0.0;
    for (int i = 0; i < count; ++i) {
        const double f =
            loHz * std::pow(hiHz / loHz, count > 1 ? static_cast<double>(i) / (count - 1) : 0.0);
        // Amplitude falling with frequency, with some spread.
        const double a = (0.6 + 0.8 * unit(rng)) / f;
        path.waves.push_back({a, f * (0.95 + 0.1 * unit(rng)), 2.0 * kPi * unit(rng)});
        sum += a;
    }
    for (Wave& w : path.waves) {
        w.amplitudeRad *= totalAmplitudeRad / sum;
    }
    return path;
}

Q Trajectory::intended(double t) const {
    return fromYawPitchRoll(plan_.yaw.value(t), plan_.pitch.value(t), plan_.roll.value(t));
}

Q Trajectory::orientation(double t) const {
    const V3 shake(plan_.shake[0].value(t), plan_.shake[1].value(t), plan_.shake[2].value(t));
    return (intended(t) * fromRotationVector(shake)).normalized();
}

V3 Trajectory::angularVelocity(double t) const {
    // Central difference of the orientation: the body rate to ~1e-9 rad/s for these motions.
    constexpr double h = 1e-5;
    return toRotationVector(orientation(t - h).conjugate() * orientation(t + h)) * (0.5 / h);
}

}  // namespace qlmr::sim
