#include "synthetic/CameraMotion.h"

#include "common/ReplayError.h"

#include "sim/Scenario.h"

#include <cmath>
#include <random>

namespace qlmr::replay {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;

struct Sine {
    double amplitude;  // radians
    double freqHz;
    double phase;
    double at(double t) const { return amplitude * std::sin(2 * kPi * freqHz * t + phase); }
};

// Yaw about camera y, pitch about camera x, roll about camera z, radians.
struct Angles {
    double yaw = 0;
    double pitch = 0;
    double roll = 0;
};

M3 fromAngles(const Angles& a) {
    return sim::fromYawPitchRoll(a.yaw, a.pitch, a.roll).toRotationMatrix();
}

class HandheldMotion : public CameraMotion {
  public:
    HandheldMotion(Trajectory trajectory, uint64_t seed) : rng_(seed) {
        std::uniform_real_distribution<double> phase(0, 2 * kPi);
        std::uniform_real_distribution<double> unit(0, 1);
        auto add = [&](std::vector<Sine>& v, double ampDeg, double freq) {
            v.push_back({ampDeg * kDeg, freq, phase(rng_)});
        };
        // Intended path.
        if (trajectory == Trajectory::SwayWalk) {
            add(intended_[0], 3.0, 0.04 + 0.01 * unit(rng_));
            add(intended_[1], 1.0, 0.03 + 0.01 * unit(rng_));
        } else if (trajectory == Trajectory::SwayPan) {
            intended_[0].push_back({9.0 * kDeg, 0.1, 0.0});
            add(intended_[1], 0.8, 0.05);
        }
        const double shake = trajectory == Trajectory::SwayWalk
                                 ? 1.0
                                 : (trajectory == Trajectory::SwayPan ? 0.6 : 0.0);
        const double step = 1.7 + 0.2 * unit(rng_);  // steps per second
        if (shake > 0) {
            add(shake_[1], 0.7 * shake, step);  // bob: pitch at the step rate
            add(shake_[1], 0.2 * shake, 2 * step);
            add(shake_[0], 0.5 * shake, step / 2);  // sway: yaw and roll at the stride rate
            add(shake_[0], 0.15 * shake, 1.5 * step);
            add(shake_[2], 0.6 * shake, step / 2);
            add(shake_[2], 0.1 * shake, step);
        }
        const double handScale = trajectory == Trajectory::SwayStill ? 0.7 : 1.0;
        for (int axis = 0; axis < 3; ++axis) {
            for (int k = 0; k < 6; ++k)
                add(shake_[axis], 0.04 * handScale, 4.0 + 5.0 * unit(rng_));
            for (int k = 0; k < 8; ++k)
                add(shake_[axis], 0.12 * handScale, 0.6 + 1.4 * unit(rng_));
        }
    }

    M3 actual(double t) const override {
        Angles a = anglesOf(intended_, t);
        const Angles s = anglesOf(shake_, t);
        a.yaw += s.yaw;
        a.pitch += s.pitch;
        a.roll += s.roll;
        return fromAngles(a);
    }
    M3 intended(double t) const override { return fromAngles(anglesOf(intended_, t)); }

  private:
    static Angles anglesOf(const std::vector<Sine> (&set)[3], double t) {
        Angles a;
        for (const Sine& s : set[0])
            a.yaw += s.at(t);
        for (const Sine& s : set[1])
            a.pitch += s.at(t);
        for (const Sine& s : set[2])
            a.roll += s.at(t);
        return a;
    }

    std::mt19937_64 rng_;
    std::vector<Sine> intended_[3];
    std::vector<Sine> shake_[3];
};

// One of qlmr_sim's scenarios (the stabilizer's reference trajectories).
class SimMotion : public CameraMotion {
  public:
    explicit SimMotion(const sim::Scenario& s) : trajectory_(s.motion) {}
    M3 actual(double t) const override { return trajectory_.orientation(t).toRotationMatrix(); }
    M3 intended(double t) const override { return trajectory_.intended(t).toRotationMatrix(); }

  private:
    sim::Trajectory trajectory_;
};

struct TrajectoryName {
    Trajectory trajectory;
    const char* name;
    bool fromSim;  // one of qlmr_sim's scenarios, under the same name
};
constexpr TrajectoryName kNames[] = {
    {Trajectory::Walk, "walk", true},         {Trajectory::Pan, "pan", true},
    {Trajectory::Still, "still", true},       {Trajectory::Jog, "jog", true},
    {Trajectory::Violent, "violent", true},   {Trajectory::SwayWalk, "sway-walk", false},
    {Trajectory::SwayPan, "sway-pan", false}, {Trajectory::SwayStill, "sway-still", false}};

const TrajectoryName& entry(Trajectory t) {
    for (const TrajectoryName& n : kNames) {
        if (n.trajectory == t)
            return n;
    }
    throw ReplayError("unknown trajectory");
}

}  // namespace

Trajectory parseTrajectory(const std::string& name) {
    for (Trajectory t : kAllTrajectories) {
        if (name == trajectoryName(t))
            return t;
    }
    throw ReplayError("unknown trajectory '" + name +
                      "' (walk, pan, still, jog, violent, sway-walk, sway-pan, sway-still)");
}

const char* trajectoryName(Trajectory t) {
    return entry(t).name;
}

std::unique_ptr<CameraMotion> makeHandheldMotion(Trajectory trajectory, uint64_t seed) {
    if (entry(trajectory).fromSim)
        return std::make_unique<SimMotion>(sim::makeScenario(entry(trajectory).name, 1.0, seed));
    return std::make_unique<HandheldMotion>(trajectory, seed);
}

V3 angularVelocity(const CameraMotion& motion, double t) {
    // Body rates: R(t+h) = R(t-h) * exp(2h * w)  =>  w = log(R(t-h)^T R(t+h)) / 2h.
    const double h = 1e-4;
    const M3 d = motion.actual(t - h).transpose() * motion.actual(t + h);
    return sim::toRotationVector(d) / (2 * h);
}

std::vector<GyroSample> synthesizeGyro(const CameraMotion& motion, const GyroModel& model,
                                       double t0Sec, double t1Sec, int64_t zeroNs) {
    std::mt19937_64 rng(model.seed * 0x9E3779B97F4A7C15ull + 7);
    std::normal_distribution<double> noise(0, model.noiseRadPerS);
    std::uniform_real_distribution<double> bias(-model.biasRadPerS, model.biasRadPerS);
    std::uniform_real_distribution<double> jitter(-model.jitterNs, model.jitterNs);
    // Drawn x, y, z in this order (constructor arguments have no evaluation order).
    const double bx = bias(rng), by = bias(rng), bz = bias(rng);
    const V3 b(bx, by, bz);
    std::vector<GyroSample> out;
    const double period = 1.0 / model.rateHz;
    const int n = static_cast<int>(std::floor((t1Sec - t0Sec) * model.rateHz)) + 1;
    out.reserve(static_cast<size_t>(n));
    int64_t last = 0;
    for (int i = 0; i < n; ++i) {
        const double t = t0Sec + i * period + jitter(rng) * 1e-9;
        const V3 dev = mapCameraToDevice(angularVelocity(motion, t)) + b;
        GyroSample s;
        s.timestampNs = zeroNs + static_cast<int64_t>(std::llround(t * 1e9)) + model.timeOffsetNs;
        if (!out.empty() && s.timestampNs <= last)
            s.timestampNs = last + 1;
        last = s.timestampNs;
        s.x = static_cast<float>(dev.x() + noise(rng));
        s.y = static_cast<float>(dev.y() + noise(rng));
        s.z = static_cast<float>(dev.z() + noise(rng));
        out.push_back(s);
    }
    return out;
}

}  // namespace qlmr::replay
