// The reference recordings the stabilizer is measured on: each a named trajectory with the
// gyro and camera that observe it. Deterministic for a given seed.
#ifndef QLMR_SIM_SCENARIO_H
#define QLMR_SIM_SCENARIO_H

#include <cstdint>
#include <string>
#include <vector>

#include "sim/Sensors.h"
#include "sim/Trajectory.h"

namespace qlmr::sim {

struct Scenario {
    std::string name;
    std::string description;
    double durationS = 0.0;
    MotionPlan motion;
    GyroSetup gyro;
    CameraSetup camera;
};

// "walk": handheld walk, slow looking around, 2-12 Hz shake of 1.2-2 degrees per axis.
// "pan": a 40 degree pan over 7 s (far beyond the crop margin) with light shake.
// "still": a camera that does not move at all (gyro noise and bias only).
// "jog": strong shake (up to 3 degrees) on quick turns.
// "violent": shake of 6 degrees that no crop margin can absorb: the crop limit's stress case.
std::vector<std::string> scenarioNames();

// Throws std::invalid_argument for an unknown name. durationScale shortens or lengthens the
// recording; pans keep their place relative to its length, waves their frequency.
Scenario makeScenario(const std::string& name, double durationScale = 1.0, uint64_t seed = 1);

}  // namespace qlmr::sim

#endif  // QLMR_SIM_SCENARIO_H
