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

// How the gyro samples reach the library, beyond the scenario's own setup.
struct GyroDelivery {
    // The gyro starts this long before the first frame (negative: after it). The engine starts
    // the gyroscope with the camera, whose first frame comes later; the replay tool's
    // recordings keep 1 s of gyro before it.
    double leadS = 1.0;
    double tailS = 2.5;      // it ends this long after the last frame
    double stallAtS = -1.0;  // samples of [stallAtS, stallAtS + stallS) never come (< 0: none)
    double stallS = 0.0;
};

struct RunResult {
    std::vector<FrameEvaluation> output;  // what the library's grids show, frame by frame
    std::vector<FrameEvaluation> input;   // the same frames through the unwarped grid
    Figures outputFigures;
    Figures inputFigures;
    int framesWarped = 0;
    int framesUnwarped = 0;    // statuses 1/26 or a full queue
    int framesDropped = 0;     // arrived at a full queue
    std::vector<char> warped;  // per output frame: 1 drawn through the library's grid
    double overscan = 1.25;
};

// The configuration text for a scenario's camera and gyro, followed by `extraLines`
// (key=value lines that override the defaults).
std::string configFor(const sim::Scenario& scenario, const std::string& extraLines);

// Runs the scenario. Throws std::runtime_error when the library refuses the configuration or
// returns a status the engine treats as fatal.
// The engine's processing thread is simulated on the recording's clock: it asks for the head
// frame's grid, and after a status 2 sleeps 10 ms before it asks again; recording stops with
// the last frame, and one second later the frames still queued are forced out unwarped.
RunResult runScenario(const sim::Scenario& scenario, const std::string& configText, double trimS,
                      const GyroDelivery& delivery = GyroDelivery());

}  // namespace qlmr::harness

#endif  // QLMR_STAB_HARNESS_RUNNER_H
