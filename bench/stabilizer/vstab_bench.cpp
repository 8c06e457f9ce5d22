// Cost of the stabilization library's per-sample and per-frame calls, through its C interface,
// on simulated recordings (default grid, 30 ms rolling-shutter readout, 400 Hz gyro).
#include <benchmark/benchmark.h>

#include <time.h>
#include <string>
#include <vector>

#include "sim/Scenario.h"
#include "zef_gyro_vstab.h"

namespace {

struct Recording {
    std::vector<qlmr::sim::GyroSample> gyro;
    std::vector<qlmr::sim::FrameStamp> frames;
    std::string config;
};

Recording makeRecording(const char* scenario) {
    const qlmr::sim::Scenario s = qlmr::sim::makeScenario(scenario);
    const qlmr::sim::Trajectory truth(s.motion);
    Recording r;
    r.gyro = qlmr::sim::simulateGyro(truth, s.gyro, 0.0, s.durationS + 2.0);
    r.frames = qlmr::sim::simulateFrames(s.camera, 0.0, s.durationS);
    r.config =
        "vstab.readoutNs=" + std::to_string(static_cast<long long>(s.camera.readoutS * 1e9)) +
        "\nvstab.gyroTimeOffsetNs=" +
        std::to_string(static_cast<long long>(s.gyro.timeOffsetS * 1e9)) + "\n";
    return r;
}

void* create(const std::string& config) {
    void* h = nullptr;
    char message[512];
    unsigned int size = sizeof message;
    if (vStabCreateUseCharCnfgBuff(&h, config.c_str(), static_cast<int>(config.size()), message,
                                   &size) != 0) {
        return nullptr;
    }
    return h;
}

void BM_AddAngularVelocity(benchmark::State& state) {
    const Recording r = makeRecording("walk");
    void* h = create(r.config);
    if (h == nullptr) {
        state.SkipWithError("configuration refused");
        return;
    }
    size_t i = 0;
    int64_t base = 0;
    const int64_t span = r.gyro.back().timestampNs - r.gyro.front().timestampNs + 2500000;
    for (auto _ : state) {
        const qlmr::sim::GyroSample& g = r.gyro[i];
        benchmark::DoNotOptimize(vStabAddAngularVelocity(h, g.timestampNs + base, g.rate));
        if (++i == r.gyro.size()) {
            i = 0;
            base += span;  // keep timestamps increasing when the recording repeats
        }
    }
    vStabDestroy(h);
}
BENCHMARK(BM_AddAngularVelocity);

// CPU time of the calling thread, in seconds: unlike wall time it does not count the time the
// thread waits for a core, so figures stay meaningful on a loaded machine.
double threadCpuS() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

// One warp per frame as the engine calls it once the look-ahead has arrived; only the warp
// call is timed, in thread CPU time.
void warpFrames(benchmark::State& state, const char* scenario) {
    const Recording r = makeRecording(scenario);
    void* h = create(r.config);
    if (h == nullptr) {
        state.SkipWithError("configuration refused");
        return;
    }
    const VStabConfigRecord* cfg = vStabConfig(h);
    std::vector<float> vertices(static_cast<size_t>(cfg->gridColumns) * cfg->gridRows * 3);
    VStabOutput out{0, 0, vertices.data()};
    size_t f = 0;
    size_t g = 0;
    int64_t warped = 0;
    for (auto _ : state) {
        VStabFrameInfo info{40, 2, r.frames[f].timestampNs, r.frames[f].exposureNs, 1.0f, 1.0f,
                            0,  0};
        int status;
        for (;;) {
            const double t0 = threadCpuS();
            status = vStabWarpGrid(h, &info, &out);
            const double t1 = threadCpuS();
            if (status != 2 || g == r.gyro.size()) {
                state.SetIterationTime(t1 - t0);
                break;
            }
            // Not enough look-ahead yet: deliver the next 10 ms of samples (not timed).
            const int64_t until = r.gyro[g].timestampNs + 10000000;
            for (; g < r.gyro.size() && r.gyro[g].timestampNs < until; ++g) {
                vStabAddAngularVelocity(h, r.gyro[g].timestampNs, r.gyro[g].rate);
            }
        }
        warped += status == 0;
        if (++f == r.frames.size()) {
            state.PauseTiming();
            vStabDestroy(h);
            h = create(r.config);
            f = 0;
            g = 0;
            state.ResumeTiming();
        }
    }
    state.counters["warpedShare"] =
        benchmark::Counter(static_cast<double>(warped), benchmark::Counter::kAvgIterations);
    state.counters["vertices"] = static_cast<double>(cfg->gridColumns * cfg->gridRows);
    vStabDestroy(h);
}

void BM_WarpGridWalk(benchmark::State& state) {
    warpFrames(state, "walk");
}
void BM_WarpGridJog(benchmark::State& state) {
    warpFrames(state, "jog");
}
BENCHMARK(BM_WarpGridWalk)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WarpGridJog)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
