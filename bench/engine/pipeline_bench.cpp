// End-to-end throughput of the engine on llvmpipe: camera frames through intake, the processing
// loop and the warped draw into one output window of the frame's size, as fast as the engine
// takes them. Per-stage times come from the engine's own timing probes, which it logs when its
// debug property is on; a custom logger keeps only those lines.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <host/Properties.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "EngineHarness.h"

namespace {

using namespace std::chrono_literals;

std::mutex gMutex;
// probe name -> stage label -> durations in ms
std::map<std::string, std::map<std::string, std::vector<double>>> gStages;

// "[cTTiming][Render()] Render(8.25) popFrame(1.52) " -> stages of probe "Render()".
void probeLogger(const __android_logger_data*, const char* message) {
    static const std::string kPrefix = "[cTTiming][";
    std::string text(message);
    if (text.compare(0, kPrefix.size(), kPrefix) != 0)
        return;
    size_t nameEnd = text.find("] ", kPrefix.size());
    if (nameEnd == std::string::npos)
        return;
    std::string probe = text.substr(kPrefix.size(), nameEnd - kPrefix.size());
    std::istringstream stages(text.substr(nameEnd + 2));
    std::string item;
    std::lock_guard<std::mutex> lock(gMutex);
    double total = 0;
    double render = 0;
    while (stages >> item) {
        size_t open = item.rfind('(');
        if (open == std::string::npos || item.back() != ')')
            continue;
        double ms = std::stod(item.substr(open + 1, item.size() - open - 2));
        std::string label = item.substr(0, open);
        gStages[probe][label].push_back(ms);
        total += ms;
        if (label == "Render")
            render = ms;
    }
    gStages[probe]["(total)"].push_back(total);
    // Time of the probe outside its "Render" stage (the draw and finish, or the render call).
    gStages[probe]["(outsideRender)"].push_back(total - render);
}

double median(std::vector<double> v) {
    if (v.empty())
        return 0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

void BM_Pipeline(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const uint64_t frames = static_cast<uint64_t>(state.range(2));
    for (auto _ : state) {
        state.PauseTiming();
        {
            std::lock_guard<std::mutex> lock(gMutex);
            gStages.clear();
        }
        host::setProperty("debug.camera.qlmr.EIS.log", "1");
        __android_log_set_logger(probeLogger);
        auto* h = new EngineHarness;
        host::setProperty("debug.camera.qlmr.EIS.log", "1");
        h->engine->onPause();
        h->engine->onResume();  // again, now with the debug property read
        h->makeCamera(pacedCamera(*h->engine, width, height, frames));
        auto& out = h->addOutput(1, static_cast<uint32_t>(width), static_cast<uint32_t>(height));
        state.ResumeTiming();

        auto begin = std::chrono::steady_clock::now();
        h->start();
        bool done = waitFor([&] { return out.sink->count() == frames; }, 120s);
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

        state.PauseTiming();
        delete h;
        __android_log_set_logger(__android_log_stderr_logger);
        host::clearProperties();
        if (!done) {
            state.SkipWithError("the engine did not deliver every frame in time");
            return;
        }
        state.counters["fps"] = static_cast<double>(frames) / seconds;
        std::lock_guard<std::mutex> lock(gMutex);
        for (const auto& probe : gStages) {
            for (const auto& stage : probe.second) {
                state.counters[probe.first + stage.first + "_ms"] = median(stage.second);
            }
        }
        // The engine's own cost outside the GL draw: everything the render call does but the
        // draw-and-finish stage, plus the loop's pass without its render call.
        state.counters["engine_outside_draw_ms"] =
            median(gStages["Render()"]["(outsideRender)"]) +
            median(gStages["triggerVStab()"]["(outsideRender)"]);
        state.ResumeTiming();
    }
}

BENCHMARK(BM_Pipeline)
    ->Args({1920, 1080, 90})
    ->Args({3840, 2160, 30})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
