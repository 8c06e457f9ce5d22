// Ground-truth camera motion for the stabilizer's simulations: an intended path (slow turns,
// pans) with hand shake on top, evaluated analytically at any time. Pure value types; a
// Trajectory is immutable after construction and may be read from any thread.
#ifndef QLMR_SIM_TRAJECTORY_H
#define QLMR_SIM_TRAJECTORY_H

#include <cstdint>
#include <random>
#include <vector>

#include "sim/Rotation.h"

namespace qlmr::sim {

// amplitude * sin(2 pi f t + phase), radians.
struct Wave {
    double amplitudeRad = 0.0;
    double frequencyHz = 0.0;
    double phaseRad = 0.0;
};

// A turn by angleRad between startS and startS + durationS whose angular velocity rises and
// falls as a raised cosine (no jump in velocity or acceleration).
struct Pan {
    double startS = 0.0;
    double durationS = 1.0;
    double angleRad = 0.0;
};

// One angle as a function of time: a sum of waves and pans.
struct AxisPath {
    std::vector<Wave> waves;
    std::vector<Pan> pans;
    double value(double tS) const;
};

struct MotionPlan {
    // Intended motion as yaw (about the camera's y axis), pitch (x) and roll (z), applied in
    // that order: R = Ry(yaw) Rx(pitch) Rz(roll).
    AxisPath yaw, pitch, roll;
    // Hand shake as a small rotation vector in the camera's axes, applied after the intended
    // orientation.
    AxisPath shake[3];
};

// `count` waves with frequencies spread over [loHz, hiHz] and random phases whose amplitudes
// add up to totalAmplitudeRad, larger at lower frequencies as hand shake is.
AxisPath handShake(std::mt19937_64& rng, double loHz, double hiHz, double totalAmplitudeRad,
                   int count);

class Trajectory {
  public:
    explicit Trajectory(MotionPlan plan) : plan_(std::move(plan)) {}

    // True orientation (camera to world) at tS seconds.
    Q orientation(double tS) const;
    // Orientation without the hand shake.
    Q intended(double tS) const;
    // Angular velocity in the camera's axes, rad/s.
    V3 angularVelocity(double tS) const;

    const MotionPlan& plan() const { return plan_; }

  private:
    MotionPlan plan_;
};

}  // namespace qlmr::sim

#endif  // QLMR_SIM_TRAJECTORY_H
