#include "sim/Sensors.h"

#include <cmath>
#include <random>
#include <stdexcept>

namespace qlmr::sim {

namespace {

constexpr double kPi = 3.14159265358979323846;

// "-y,-x,-z" -> camera axis i = sign[i] * sensor axis axis[i].
void parseAxes(const std::string& text, int axis[3], int sign[3]) {
    size_t p = 0;
    for (int i = 0; i < 3; ++i) {
        sign[i] = 1;
        if (p < text.size() && (text[p] == '-' || text[p] == '+')) {
            sign[i] = text[p] == '-' ? -1 : 1;
            ++p;
        }
        if (p >= text.size() || text[p] < 'x' || text[p] > 'z') {
            throw std::invalid_argument("gyro axes must look like -y,-x,-z: " + text);
        }
        axis[i] = text[p] - 'x';
        ++p;
        if (i < 2) {
            if (p >= text.size() || text[p] != ',') {
                throw std::invalid_argument("gyro axes must look like -y,-x,-z: " + text);
            }
            ++p;
        }
    }
}

}  // namespace

std::vector<GyroSample> simulateGyro(const Trajectory& truth, const GyroSetup& setup, double t0S,
                                     double t1S) {
    int axis[3];
    int sign[3];
    parseAxes(setup.axes, axis, sign);
    std::mt19937_64 rng(setup.seed);
    std::normal_distribution<double> noise(0.0, setup.noiseRadPerS);
    std::uniform_real_distribution<double> jitter(-setup.jitterS, setup.jitterS);
    std::vector<GyroSample> out;
    const double period = 1.0 / setup.rateHz;
    for (int64_t k = 0;; ++k) {
        const double t = t0S + static_cast<double>(k) * period;
        if (t >= t1S) {
            break;
        }
        const double tSample = t + jitter(rng);
        const V3 cam = truth.angularVelocity(tSample) + setup.biasRadPerS;
        GyroSample s;
        s.timestampNs = toClockNs(tSample + setup.timeOffsetS);
        for (int i = 0; i < 3; ++i) {
            s.rate[axis[i]] = static_cast<float>(sign[i] * cam[i] + noise(rng));
        }
        out.push_back(s);
    }
    return out;
}

double CameraSetup::fovVerticalDeg() const {
    return 2.0 * std::atan(std::tan(fovHorizontalDeg * kPi / 360.0) * height / width) * 180.0 / kPi;
}
double CameraSetup::fx() const {
    return 0.5 / std::tan(fovHorizontalDeg * kPi / 360.0);
}
double CameraSetup::fy() const {
    return fx() * width / height;
}

std::vector<FrameStamp> simulateFrames(const CameraSetup& camera, double t0S, double t1S) {
    std::vector<FrameStamp> out;
    const int64_t exposureNs = std::llround(camera.exposureS * 1e9);
    for (int k = 0;; ++k) {
        const double t = t0S + k / camera.fps;
        if (t >= t1S) {
            break;
        }
        out.push_back({toClockNs(t), exposureNs});
    }
    return out;
}

double rowTimeS(const CameraSetup& camera, const FrameStamp& frame, double v) {
    return toSeconds(frame.timestampNs) + v * camera.readoutS +
           0.5 * static_cast<double>(frame.exposureNs) * 1e-9;
}

V3 worldDirection(const Trajectory& truth, const CameraSetup& camera, const FrameStamp& frame,
                  double u, double v) {
    const V3 ray = V3((u - 0.5) / camera.fx(), (v - 0.5) / camera.fy(), 1.0).normalized();
    return truth.orientation(rowTimeS(camera, frame, v)) * ray;
}

}  // namespace qlmr::sim
