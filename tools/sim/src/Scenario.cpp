#include "sim/Scenario.h"

#include <random>
#include <stdexcept>

namespace qlmr::sim {

namespace {
constexpr double kDeg = 3.14159265358979323846 / 180.0;
}

std::vector<std::string> scenarioNames() {
    return {"walk", "pan", "still", "jog", "violent"};
}

Scenario makeScenario(const std::string& name, double scale, uint64_t seed) {
    Scenario s;
    s.name = name;
    std::mt19937_64 rng(seed * 7919 + name.size());
    s.gyro.seed = seed;
    // Hand shake of 2..12 Hz about x, y and z (degrees), `count` waves each.
    auto shake = [&](double xDeg, double yDeg, double zDeg, int count) {
        const double deg[3] = {xDeg, yDeg, zDeg};
        for (int axis = 0; axis < 3; ++axis)
            s.motion.shake[axis] = handShake(rng, 2.0, 12.0, deg[axis] * kDeg, count);
    };
    if (name == "walk") {
        s.description = "handheld walk, looking around, shake 2-12 Hz";
        s.durationS = 30.0 * scale;
        s.motion.yaw.waves = {{12 * kDeg, 0.06, 0.3}, {6 * kDeg, 0.11, 1.9}};
        s.motion.pitch.waves = {{4 * kDeg, 0.05, 2.2}};
        s.motion.roll.waves = {{2.5 * kDeg, 0.07, 0.7}};
        shake(2.0, 1.5, 1.2, 6);
    } else if (name == "pan") {
        s.description = "40 degree pan over 7 s, light shake";
        s.durationS = 20.0 * scale;
        s.motion.yaw.pans = {{5.0 * scale, 7.0 * scale, 40 * kDeg}};
        s.motion.pitch.pans = {{13.0 * scale, 4.0 * scale, -8 * kDeg}};
        shake(0.8, 0.8, 0.5, 5);
    } else if (name == "still") {
        s.description = "camera at rest, gyro noise and bias only";
        s.durationS = 20.0 * scale;
    } else if (name == "jog") {
        s.description = "strong shake up to 3 degrees on quick turns";
        s.durationS = 20.0 * scale;
        s.motion.yaw.waves = {{20 * kDeg, 0.09, 0.0}};
        s.motion.pitch.waves = {{5 * kDeg, 0.13, 1.0}};
        shake(3.0, 2.5, 1.5, 6);
        s.gyro.rateHz = 200.0;
    } else if (name == "violent") {
        s.description = "shake of 6 degrees, beyond the crop margin";
        s.durationS = 20.0 * scale;
        s.motion.yaw.waves = {{10 * kDeg, 0.1, 0.0}};
        shake(6.0, 6.0, 4.0, 6);
    } else {
        throw std::invalid_argument("unknown scenario: " + name);
    }
    return s;
}

}  // namespace qlmr::sim
