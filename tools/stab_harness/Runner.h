// Drives the stabilization library through its C interface the way the engine does (a bounded
// frame queue, retries while gyro data is missing, unwarped rendering for statuses 1/26 and for
// a queue about to overflow) over a simulated recording, and evaluates every output frame.
#ifndef QLMR_STAB_HARNESS_RUNNER_H
#define QLMR_STAB_HARNESS_RUNNER_H

#include <string>
#include <vector>

#include "Metrics.h"
#include "sim/Scenario.h"

namespace qlmr::harness {

struct RunResult {
    std::vector<FrameEvaluation> output;  // what the library's grids show, frame by frame
    std::vector<FrameEvaluation> input;   // the same frames through the unwarped grid
    Figures outputFigures;
    Figures inputFigures;
    int framesWarped = 0;
    int framesUnwarped = 0;  // statuses 1/26 or a full queue
    int framesDropped = 0;   // arrived at a full queue
    double overscan = 1.25;
};

// The configuration text for a scenario's camera and gyro, followed by `extraLines`
// (key=value lines that override the defaults).
std::string configFor(const sim::Scenario& scenario, const std::string& extraLines);

// Runs the scenario. Throws std::runtime_error when the library refuses the configuration or
// returns a status the engine treats as fatal.
RunResult runScenario(const sim::Scenario& scenario, const std::string& configText, double trimS);

}  // namespace qlmr::harness

#endif  // QLMR_STAB_HARNESS_RUNNER_H
