#include "Runner.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "zef_gyro_vstab.h"

namespace qlmr::harness {

namespace {

// Delivery delays after the event's true time.
constexpr double kGyroDelayS = 0.002;
constexpr double kFrameDelayS = 0.005;
// The engine's processing loop sleeps this long when it has nothing to render.
constexpr double kPollS = 0.010;
// Recording stops with the last frame; the engine forces its queue out this much later.
constexpr double kForceAfterStopS = 1.0;

struct Handle {
    void* h = nullptr;
    ~Handle() {
        if (h != nullptr) {
            vStabDestroy(h);
        }
    }
};

}  // namespace

std::string configFor(const sim::Scenario& s, const std::string& extraLines) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "vstab.fovHorizontalDeg=%.6f\n"
                  "vstab.fovVerticalDeg=%.6f\n"
                  "vstab.readoutNs=%lld\n"
                  "vstab.gyroTimeOffsetNs=%lld\n"
                  "vstab.gyroAxes=%s\n",
                  s.camera.fovHorizontalDeg, s.camera.fovVerticalDeg(),
                  static_cast<long long>(std::llround(s.camera.readoutS * 1e9)),
                  static_cast<long long>(std::llround(s.gyro.timeOffsetS * 1e9)),
                  s.gyro.axes.c_str());
    // The scenario's lines, less those whose key the extra lines set (a key may appear once).
    std::string out = "# simulated " + s.name + "\n";
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const std::string key = line.substr(0, line.find('='));
        if (("\n" + extraLines).find("\n" + key + "=") == std::string::npos) {
            out += line + "\n";
        }
    }
    return out + extraLines;
}

RunResult runScenario(const sim::Scenario& s, const std::string& configText, double trimS,
                      const GyroDelivery& delivery) {
    RunResult result;
    const sim::Trajectory truth(s.motion);
    const std::vector<sim::FrameStamp> frames = sim::simulateFrames(s.camera, 0.0, s.durationS);
    std::vector<sim::GyroSample> gyro;
    for (const sim::GyroSample& g :
         sim::simulateGyro(truth, s.gyro, -delivery.leadS, s.durationS + delivery.tailS)) {
        const double t = sim::toSeconds(g.timestampNs) - s.gyro.timeOffsetS;
        if (delivery.stallAtS < 0.0 || t < delivery.stallAtS ||
            t >= delivery.stallAtS + delivery.stallS) {
            gyro.push_back(g);
        }
    }

    Handle lib;
    char message[512] = {};
    unsigned int messageSize = sizeof message;
    if (vStabCreateUseCharCnfgBuff(&lib.h, configText.c_str(), static_cast<int>(configText.size()),
                                   message, &messageSize) != 0) {
        throw std::runtime_error(std::string("configuration refused: ") + message);
    }
    const VStabConfigRecord* cfg = vStabConfig(lib.h);
    if (cfg == nullptr) {
        throw std::runtime_error("no configuration record");
    }
    const int columns = static_cast<int>(cfg->gridColumns);
    const int rows = static_cast<int>(cfg->gridRows);
    // The engine's unwarped grid and vertex array.
    std::vector<float> uniform(static_cast<size_t>(columns) * rows * 3);
    for (int j = 0; j < rows; ++j) {
        for (int i = 0; i < columns; ++i) {
            float* p = &uniform[3 * (static_cast<size_t>(j) * columns + i)];
            p[0] = (2.0f * i / (columns - 1) - 1.0f) * 1.25f;
            p[1] = (2.0f * j / (rows - 1) - 1.0f) * 1.25f;
            p[2] = 0.0f;
        }
    }
    std::vector<float> vertices(uniform.size(), 0.0f);
    VStabOutput out{0, 0, vertices.data()};
    // The engine's queue length rule.
    const int64_t span = std::max(cfg->latencyNs, cfg->windowNs / 2);
    const int capacity = static_cast<int>(
        static_cast<float>(s.camera.fps) * 1e-9f * static_cast<float>(span) + 13.0f);

    std::deque<size_t> queue;
    auto render = [&](size_t f, const float* grid) {
        result.output.push_back(evaluateFrame(grid, columns, rows, truth, s.camera, frames[f]));
        result.input.push_back(
            evaluateFrame(uniform.data(), columns, rows, truth, s.camera, frames[f]));
        result.warped.push_back(grid == vertices.data() ? 1 : 0);
    };
    // One pass of the processing loop at time `now`; returns when it would sleep.
    auto pass = [&](bool force) {
        while (!queue.empty()) {
            const size_t f = queue.front();
            VStabFrameInfo info{40, 2, frames[f].timestampNs, frames[f].exposureNs, 1.0f, 1.0f,
                                0,  0};
            const int status = vStabWarpGrid(lib.h, &info, &out);
            if (status == 0) {
                ++result.framesWarped;
                render(f, vertices.data());
            } else if (status == 1 || status == 26) {
                ++result.framesUnwarped;
                render(f, uniform.data());
            } else if (status == 2 || status == 5 || status == 25 || status == 27) {
                if (!force && static_cast<int>(queue.size()) < capacity - 1) {
                    return;
                }
                ++result.framesUnwarped;
                render(f, uniform.data());
            } else {
                throw std::runtime_error("fatal warp status " + std::to_string(status));
            }
            queue.pop_front();
        }
    };
    auto frameArrival = [&](size_t f) {
        return sim::toSeconds(frames[f].timestampNs) + s.camera.readoutS +
               static_cast<double>(frames[f].exposureNs) * 1e-9 + kFrameDelayS;
    };
    auto gyroArrival = [&](size_t g) {
        return sim::toSeconds(gyro[g].timestampNs) - s.gyro.timeOffsetS + kGyroDelayS;
    };
    const double inf = std::numeric_limits<double>::infinity();
    const double stopAt = frames.empty() ? 0.0 : frameArrival(frames.size() - 1);
    size_t g = 0;
    size_t f = 0;
    double nextPoll = 0.0;
    for (;;) {
        const double tg = g < gyro.size() ? gyroArrival(g) : inf;
        const double tf = f < frames.size() ? frameArrival(f) : inf;
        if (f == frames.size() && queue.empty()) {
            break;
        }
        if (tg <= tf && tg <= nextPoll) {
            if (vStabAddAngularVelocity(lib.h, gyro[g].timestampNs, gyro[g].rate) != 0) {
                throw std::runtime_error("gyro sample refused");
            }
            ++g;
        } else if (tf <= nextPoll) {
            if (static_cast<int>(queue.size()) >= capacity) {
                ++result.framesDropped;
            } else {
                queue.push_back(f);
            }
            ++f;
        } else {
            pass(f == frames.size() && nextPoll >= stopAt + kForceAfterStopS);
            nextPoll += kPollS;
        }
    }
    result.outputFigures = summarize(result.output, s.camera, trimS);
    result.inputFigures = summarize(result.input, s.camera, trimS);
    return result;
}

}  // namespace qlmr::harness
