// The synthetic camera's orientation over time, with the shake-free ("intended") path kept as
// ground truth. Camera axes: x right, y down, z forward (viewing direction). Orientations are
// camera-to-world rotations; at time 0 of a still camera they are the identity.
#pragma once

#include "input/Recording.h"
#include "sim/Rotation.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

using sim::M3;
using sim::V3;

// Any source of camera orientation as a function of time; the renderer and the gyro model only
// need this. A simulation library can be wired in by implementing these two functions.
class CameraMotion {
  public:
    virtual ~CameraMotion() = default;
    // Orientation of the shaking camera at `t` seconds after the start of the recording.
    virtual M3 actual(double t) const = 0;
    // Orientation the camera operator meant (the same path without shake): what an ideal
    // stabilizer would show.
    virtual M3 intended(double t) const = 0;
};

enum class Trajectory { Walk, Pan, Still, Jog, Violent, SwayWalk, SwayPan, SwayStill };

// Parses a trajectory name; throws ReplayError for an unknown one.
//  - "walk", "pan", "still", "jog", "violent": the stabilizer's reference scenarios of
//    qlmr_sim (hand shake of 2..12 Hz on top of slow looking around, pans, rest...).
//  - "sway-walk", "sway-pan", "sway-still": the replay tool's own hand-held paths, whose
//    shake reaches down to 0.6 Hz (stride sway, slow wander) below the step rate.
Trajectory parseTrajectory(const std::string& name);
const char* trajectoryName(Trajectory t);
constexpr Trajectory kAllTrajectories[] = {
    Trajectory::Walk,    Trajectory::Pan,      Trajectory::Still,   Trajectory::Jog,
    Trajectory::Violent, Trajectory::SwayWalk, Trajectory::SwayPan, Trajectory::SwayStill};

// The camera motion of a trajectory. Sway paths: slow intended motion plus the shake of
// walking (step bob about 1.8 Hz, sway at half of it), hand tremor (4..9 Hz) and a
// band-limited random wander (0.6..2 Hz), all sums of sinusoids whose phases and small
// frequency offsets come from `seed`. sway-walk: a slow sweep of a few degrees and the full
// shake (about 1 degree); sway-pan: a +-9 degree pan, lighter shake; sway-still: fixed, tremor
// and wander only. The qlmr_sim scenarios are evaluated from their own definitions (time 0 of
// the replay is the scenario's).
std::unique_ptr<CameraMotion> makeHandheldMotion(Trajectory trajectory, uint64_t seed);

// How the synthetic gyroscope reports the camera's rotation.
struct GyroModel {
    double rateHz = 400;
    double noiseRadPerS = 0.004;     // white noise, standard deviation per sample
    double biasRadPerS = 0.004;      // each axis gets a constant bias drawn in +-this
    int64_t timeOffsetNs = 2000000;  // sample at true time t is stamped t + offset
    double jitterNs = 50000;         // timestamp jitter, +-uniform
    uint64_t seed = 1;
};

// Gyro samples (device axes, see mapCameraToDevice) of `motion` from true time `t0Sec` to
// `t1Sec` at the model's rate. A sample taken at true time t is stamped
// zeroNs + t * 1e9 + timeOffsetNs (zeroNs: the timestamp of true time 0).
std::vector<GyroSample> synthesizeGyro(const CameraMotion& motion, const GyroModel& model,
                                       double t0Sec, double t1Sec, int64_t zeroNs);

// Angular velocity in camera axes (rad/s) of `motion` at `t`, by central difference.
V3 angularVelocity(const CameraMotion& motion, double t);

// Gyro axes of a phone whose back camera's sensor is turned a quarter turn (the usual layout,
// and the one the real phone recording has): camera x = -gyro y, camera y = -gyro x,
// camera z = -gyro z, written "-y,-x,-z". Maps camera-axis rates to what the gyroscope
// reports and back.
constexpr const char* kDeviceGyroAxes = "-y,-x,-z";
inline V3 mapCameraToDevice(const V3& cam) {
    return {-cam.y(), -cam.x(), -cam.z()};
}
inline V3 mapDeviceToCamera(const V3& dev) {
    return {-dev.y(), -dev.x(), -dev.z()};
}

}  // namespace qlmr::replay
