// Simulated sensors of a phone camera: the gyroscope (rates with noise, bias, timestamp jitter,
// a clock offset and the sensor's own axes) and the video frames (timestamps and the rolling-
// shutter geometry that ties each image row to a time). Pure functions of their inputs; the
// random streams are seeded, so every run gives the same samples.
#ifndef QLMR_SIM_SENSORS_H
#define QLMR_SIM_SENSORS_H

#include <cstdint>
#include <string>
#include <vector>

#include "sim/Rotation.h"
#include "sim/Trajectory.h"

namespace qlmr::sim {

// Nanoseconds of the frame clock at simulated time 0 (a phone some minutes after boot).
constexpr int64_t kClockBaseNs = 600000000000;

inline int64_t toClockNs(double tS) {
    return kClockBaseNs + std::llround(tS * 1e9);
}
inline double toSeconds(int64_t clockNs) {
    return static_cast<double>(clockNs - kClockBaseNs) * 1e-9;
}

struct GyroSetup {
    double rateHz = 400.0;
    double jitterS = 0.0002;      // timestamp jitter (uniform +-), seconds
    double noiseRadPerS = 0.002;  // white noise per sample and axis, standard deviation
    V3 biasRadPerS{0.002, -0.003, 0.001};
    // Gyro timestamp minus the true time of the sample (frame clock = true time).
    double timeOffsetS = 0.008;
    // Sensor axes as seen from the camera: camera x, y, z rates = these signed sensor axes.
    std::string axes = "-y,-x,-z";
    uint64_t seed = 1;
};

struct GyroSample {
    int64_t timestampNs;  // gyro clock
    float rate[3];        // rad/s about the sensor's x, y, z
};

// Samples over [t0S, t1S). Throws std::invalid_argument for a malformed axes text.
std::vector<GyroSample> simulateGyro(const Trajectory& truth, const GyroSetup& setup, double t0S,
                                     double t1S);

struct CameraSetup {
    int width = 1920;
    int height = 1080;
    double fovHorizontalDeg = 66.0;
    double readoutS = 0.030;  // first to last row
    double exposureS = 0.010;
    double fps = 30.0;

    // Vertical field of view for square pixels.
    double fovVerticalDeg() const;
    // Focal lengths in image fractions (u = 0.5 + fx X / Z).
    double fx() const;
    double fy() const;
    double focalPx() const { return fx() * width; }
};

struct FrameStamp {
    int64_t timestampNs;  // frame clock: start of the first row's exposure
    int64_t exposureNs;
};

std::vector<FrameStamp> simulateFrames(const CameraSetup& camera, double t0S, double t1S);

// True time (seconds) at which image row v (0 = first row in memory, 1 = last) of the frame
// was exposed: the middle of that row's exposure.
double rowTimeS(const CameraSetup& camera, const FrameStamp& frame, double v);

// World direction (unit) of what the frame shows at image point (u, v) in frame fractions.
V3 worldDirection(const Trajectory& truth, const CameraSetup& camera, const FrameStamp& frame,
                  double u, double v);

}  // namespace qlmr::sim

#endif  // QLMR_SIM_SENSORS_H
