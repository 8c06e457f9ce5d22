// End-to-end throughput of the engine on llvmpipe: camera frames through intake, the processing
// loop and the warped draw into one output window of the frame's size, as fast as the engine
// takes them. Per-stage times come from the engine's own timing probes, which it logs when its
// debug property is on; a custom logger keeps only those lines.
//
// Arguments: width, height, frames, stand-ins, copied images. With stand-ins 1 the host camera and
// window cost what their hardware costs the CPU on a device, nothing: the camera paints each of its
// buffers once (a sensor's DMA writes them on a device) and the window's consumer counts the frames
// without reading them (a display or encoder reads them on a device). With 0 the camera paints
// a moving picture into every frame on its capture thread and the window keeps a copy of every
// frame (host::MemorySink), as the engine tests do: both compete with the engine for the CPU.
// Copied images 1 makes the host's EGL images hold copies of the buffers (upload on every
// camera unlock, read-back on every output queue) instead of using their bytes in place.
#include <android/log.h>
#include <benchmark/benchmark.h>
#include <host/Graphics.h>
#include <host/Properties.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
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

// CPU time of the whole process (every thread, llvmpipe's included), in milliseconds.
double processCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

// Counts the frames without reading them, noting the wall and process CPU time at the first
// and the latest frame (the window's consumer thread), for the steady-state rate.
class CountingSink : public host::FrameSink {
  public:
    void onFrame(const host::Frame&) override {
        const auto now = std::chrono::steady_clock::now();
        const double cpuMs = processCpuMs();
        std::lock_guard<std::mutex> lock(mutex_);
        if (count_ == 0) {
            first_ = now;
            firstCpuMs_ = cpuMs;
        }
        last_ = now;
        lastCpuMs_ = cpuMs;
        ++count_;
    }
    uint64_t count() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return count_;
    }
    // Frames per second and CPU milliseconds per frame from the first frame to the latest.
    void steady(double& fps, double& cpuMsPerFrame) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const double seconds = std::chrono::duration<double>(last_ - first_).count();
        const double intervals = static_cast<double>(count_ - 1);
        fps = seconds > 0 ? intervals / seconds : 0;
        cpuMsPerFrame = intervals > 0 ? (lastCpuMs_ - firstCpuMs_) / intervals : 0;
    }

  private:
    mutable std::mutex mutex_;
    uint64_t count_ = 0;
    std::chrono::steady_clock::time_point first_;
    std::chrono::steady_clock::time_point last_;
    double firstCpuMs_ = 0;
    double lastCpuMs_ = 0;
};

// The synthetic picture painted once into each camera buffer (told apart by its address), then
// left there: the frames keep their timestamps and metadata, the camera costs no pixel work.
std::shared_ptr<host::FrameSource> paintOnceSource(uint64_t frames) {
    host::SyntheticFrameOptions options;
    options.frameLimit = frames;
    auto synthetic = std::make_shared<host::SyntheticFrameSource>(options);
    auto painted = std::make_shared<std::set<const uint8_t*>>();  // capture thread only
    return std::make_shared<host::CallbackFrameSource>(
        [synthetic](uint64_t index, host::FrameInfo& info) {
            return synthetic->nextFrame(index, info);
        },
        [synthetic, painted](uint64_t index, const host::FrameInfo& info,
                             const host::FrameImage& image) {
            if (!painted->insert(image.luma).second)
                return true;
            return synthetic->render(index, info, image);
        },
        [synthetic](const host::RecordingFormat& format) { synthetic->onRecordingStart(format); });
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
    const bool deviceLike = state.range(3) != 0;
    // The host's EGL images on the buffers' own bytes (the default) or on copies.
    host::setImageMemorySharing(state.range(4) == 0);
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
        host::CameraSetup camera = syntheticCamera(width, height, frames, Feed::Paced);
        std::function<uint64_t()> delivered;
        std::shared_ptr<CountingSink> countingSink;
        android::sp<ANativeWindow> countingWindow;
        if (deviceLike) {
            camera.source = paintOnceSource(frames);
            auto sink = std::make_shared<CountingSink>();
            countingSink = sink;
            host::WindowConfig config;
            config.defaultWidth = static_cast<uint32_t>(width);
            config.defaultHeight = static_cast<uint32_t>(height);
            countingWindow = host::createWindow(sink, config);
            native_window_api_connect(countingWindow.get(), NATIVE_WINDOW_API_CPU);
            native_window_set_usage(countingWindow.get(), 0x30);
            h->engine->jsm.addSurface(1, countingWindow);
            delivered = [sink] { return sink->count(); };
        } else {
            auto& out =
                h->addOutput(1, static_cast<uint32_t>(width), static_cast<uint32_t>(height));
            auto sink = out.sink;
            delivered = [sink] { return static_cast<uint64_t>(sink->count()); };
        }
        h->makeCamera(std::move(camera));
        state.ResumeTiming();

        auto begin = std::chrono::steady_clock::now();
        const double cpuBeginMs = processCpuMs();
        h->start();
        bool done = waitFor([&] { return delivered() == frames; }, 120s);
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        const double cpuMs = processCpuMs() - cpuBeginMs;

        state.PauseTiming();
        if (countingWindow != nullptr) {
            h->stop();
            h->engine->jsm.remSurface(1);
            native_window_api_disconnect(countingWindow.get(), NATIVE_WINDOW_API_CPU);
            countingWindow.clear();
        }
        delete h;
        __android_log_set_logger(__android_log_stderr_logger);
        host::clearProperties();
        host::setImageMemorySharing(true);
        if (!done) {
            state.SkipWithError("the engine did not deliver every frame in time");
            return;
        }
        state.counters["fps"] = static_cast<double>(frames) / seconds;
        // CPU time per output frame, of all threads: comparable on a loaded machine, where the
        // wall time is not.
        state.counters["cpu_ms_per_frame"] = cpuMs / static_cast<double>(frames);
        if (countingSink != nullptr) {
            // From the first output to the last: without the session's start (queue buffers,
            // their images), like the bare draw's loop.
            double steadyFps = 0;
            double steadyCpuMs = 0;
            countingSink->steady(steadyFps, steadyCpuMs);
            state.counters["fps_steady"] = steadyFps;
            state.counters["cpu_ms_per_frame_steady"] = steadyCpuMs;
        }
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
    ->Args({1920, 1080, 300, 1, 0})
    ->Args({1920, 1080, 300, 1, 1})
    ->Args({1920, 1080, 90, 0, 0})
    ->Args({3840, 2160, 30, 1, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
