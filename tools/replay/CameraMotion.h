// The synthetic camera's orientation over time, with the shake-free ("intended") path kept as
// ground truth. Camera axes: x right, y down, z forward (viewing direction). Orientations are
// camera-to-world rotations; at time 0 of a still camera they are the identity.
#pragma once

#include "Recording.h"
#include "Rotation.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

// Any source of camera orientation as a function of time; the renderer and the gyro model only
// need this. A simulation library can be wired in by implementing these two functions.
class CameraMotion {
  public:
    virtual ~CameraMotion() = default;
    // Orientation of the shaking camera at `t` seconds after the start of the recording.
    virtual Mat3 actual(double t) const = 0;
    // Orientation the camera operator meant (the same path without shake): what an ideal
    // stabilizer would show.
    virtual Mat3 intended(double t) const = 0;
};

enum class Trajectory { Walk, Pan, Still, SimWalk, SimPan, SimStill, SimJog, SimViolent };

// Parses "walk", "pan", "still", or "sim-walk", "sim-pan", "sim-still", "sim-jog",
// "sim-violent" (the stabilizer's reference scenarios from qlmr_sim); throws ReplayError
// otherwise.
Trajectory parseTrajectory(const std::string& name);
const char* trajectoryName(Trajectory t);

// A hand-held camera: slow intended motion plus the shake of walking (step bob about 1.8 Hz,
// sway at half of it), hand tremor (4..9 Hz) and a band-limited random wander, all as sums of
// sinusoids whose phases and small frequency offsets come from `seed`.
//  - Walk: intended slow sweep of a few degrees; full walking shake (about 1 degree).
//  - Pan: intended smooth back-and-forth pan of +-9 degrees; lighter shake.
//  - Still: intended fixed; tremor and wander only.
// The sim-* trajectories are qlmr_sim's scenarios of the same name (their own length; the
// replay's time 0 is the scenario's).
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
Vec3 angularVelocity(const CameraMotion& motion, double t);

// Gyro axes of a phone whose back camera's sensor is turned a quarter turn (the usual layout,
// and the one the real phone recording has): camera x = -gyro y, camera y = -gyro x,
// camera z = -gyro z, written "-y,-x,-z". Maps camera-axis rates to what the gyroscope
// reports and back.
constexpr const char* kDeviceGyroAxes = "-y,-x,-z";
inline Vec3 mapCameraToDevice(Vec3 cam) {
    return {-cam.y, -cam.x, -cam.z};
}
inline Vec3 mapDeviceToCamera(Vec3 dev) {
    return {-dev.y, -dev.x, -dev.z};
}

}  // namespace qlmr::replay
