// The replay session that runs the real engine, driven as the Java side drives it: resume, the
// output surfaces attached, the camera handed over with the configuration text, frames and gyro
// samples flowing through the host camera and the host gyroscope, the camera taken away, the
// surfaces detached, pause. The recording's timestamps are moved onto the host clocks with one
// ReplayClock (frames onto CLOCK_MONOTONIC, as a device camera stamps them, gyro samples onto
// CLOCK_BOOTTIME, as a device sensor does) and the outputs' timestamps are moved back.
#include <android/log.h>
#include <host/HostCamera.h>
#include <host/HostSensors.h>
#include <host/Properties.h>
#include <host/ReplayClock.h>
#include <host/Window.h>
#include <system/window.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <map>
#include <mutex>
#include <thread>

#include "Context.h"
#include "ReplayError.h"
#include "ReplaySession.h"

namespace qlmr::replay {
namespace {

using namespace std::chrono_literals;

// The engine logs its build banner (info lines) when the program loads. The command keeps
// stderr for its own messages, so until a replay installs its log tap only warnings and errors
// reach stderr. Constructed before the engine's own static objects.
void startupLogger(const __android_logger_data* data, const char* message) {
    if (data->priority >= ANDROID_LOG_WARN)
        __android_log_stderr_logger(data, message);
}
struct QuietStartup {
    QuietStartup() { __android_log_set_logger(startupLogger); }
};
__attribute__((init_priority(101))) QuietStartup quietStartup;

// GRALLOC_USAGE_SW_WRITE_OFTEN: what surface attachment asks of every output window.
constexpr int kSurfaceUsage = 0x30;
// How far the gyroscope may run ahead of the newest frame handed to the engine: more than the
// library's look-ahead, less than the history it keeps.
constexpr int64_t kGyroLeadNs = 1500000000;
// The engine's queue must keep this many free slots before the camera hands it another frame.
constexpr int kQueueHeadroom = 2;

// Translates output timestamps (the engine's frame clock) back to the recording's clock.
// Filled on the camera's capture thread, read on the windows' consumer threads.
class TimestampMap {
  public:
    void add(int64_t hostMonotonicNs, int64_t recordingNs) {
        std::lock_guard<std::mutex> lock(mutex_);
        map_[hostMonotonicNs] = recordingNs;
    }
    // The engine adds CLOCK_BOOTTIME - CLOCK_MONOTONIC to frames when its frame clock is
    // CLOCK_BOOTTIME; that offset is taken off first.
    int64_t toRecording(int64_t engineNs) const {
        int64_t hostNs = engineNs;
        if (ctx.clockIdFrame == CLOCK_BOOTTIME)
            hostNs -= Boottime_Monotonic_timerDiff;
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = map_.find(hostNs);
        return it == map_.end() ? engineNs : it->second;
    }

  private:
    mutable std::mutex mutex_;
    std::map<int64_t, int64_t> map_;
};

// Hands every frame an output window receives to the observer.
class ObserverSink : public host::FrameSink {
  public:
    ObserverSink(int surface, SessionObserver& observer, const TimestampMap& timestamps)
        : surface_(surface), observer_(observer), timestamps_(timestamps) {}
    void onFrame(const host::Frame& frame) override {
        RgbaView view;
        view.width = static_cast<int>(frame.width);
        view.height = static_cast<int>(frame.height);
        view.stride = static_cast<int>(frame.stride);
        view.data = frame.pixels;
        observer_.onFrameOutput(surface_, timestamps_.toRecording(frame.timestampNs), view);
        received.fetch_add(1);
    }
    std::atomic<int> received{0};

  private:
    const int surface_;
    SessionObserver& observer_;
    const TimestampMap& timestamps_;
};

// Frame rate the camera reports: the recording's median frame interval, rounded.
int frameRateOf(const FrameSource& frames) {
    std::vector<int64_t> intervals;
    for (int i = 1; i < frames.count(); ++i) {
        intervals.push_back(frames.timestampNs(i) - frames.timestampNs(i - 1));
    }
    if (intervals.empty())
        return 30;
    std::nth_element(intervals.begin(), intervals.begin() + intervals.size() / 2, intervals.end());
    int64_t median = intervals[intervals.size() / 2];
    return median > 0 ? std::max(1, static_cast<int>(std::lround(1e9 / median))) : 30;
}

class EngineSession : public ReplaySession {
  public:
    const char* name() const override { return "engine"; }

    SessionResult run(FrameSource& frames, const std::vector<GyroSample>& gyro,
                      const SessionConfig& config, SessionObserver& observer) override {
        if (frames.count() == 0)
            throw ReplayError("the recording has no frames");
        if (config.surfaces.empty())
            throw ReplayError("a replay needs at least one output");
        const auto begin = std::chrono::steady_clock::now();
        host::setProperty("debug.camera.qlmr.EIS.log", config.engineDebugLog ? "1" : "0");

        auto clock = std::make_shared<host::ReplayClock>(frames.timestampNs(0));
        TimestampMap timestamps;
        std::atomic<int64_t> newestFrameNs{frames.timestampNs(0)};
        std::vector<std::shared_ptr<ObserverSink>> sinks;

        // Gyroscope: the recording's samples, kept at most kGyroLeadNs ahead of the frames.
        std::vector<host::GyroSample> samples;
        samples.reserve(gyro.size());
        for (const GyroSample& s : gyro)
            samples.push_back({s.timestampNs, s.x, s.y, s.z});
        host::GyroSetup gyroSetup;
        gyroSetup.source = std::make_shared<host::ReplayGyroSource>(std::move(samples), clock);
        gyroSetup.pacing =
            config.realtime ? host::Pacing::RealTime : host::Pacing::AsFastAsConsumed;
        gyroSetup.queueCapacity = 1024;
        // The clock anchors on its first use, which must come after the engine has taken its
        // start time (frames stamped before it are skipped): the gyro service and the camera
        // first ask from inside start().
        const int64_t originNs = frames.timestampNs(0);
        gyroSetup.gate = [&newestFrameNs, clock, originNs](int64_t hostBootNs) {
            int64_t recordingNs = hostBootNs - clock->toHost(originNs, CLOCK_BOOTTIME) + originNs;
            return recordingNs <= newestFrameNs.load() + kGyroLeadNs;
        };
        if (!host::installGyro(gyroSetup))
            throw std::runtime_error("the host gyroscope is busy");

        // Camera: the recording's frames, held back while the engine's queue is nearly full.
        Nv21Image picture;
        picture.resize(frames.width(), frames.height());
        std::vector<int64_t> hostTimestamps(static_cast<size_t>(frames.count()));
        auto source = std::make_shared<host::CallbackFrameSource>(
            [&](uint64_t index, host::FrameInfo& info) {
                if (index >= static_cast<uint64_t>(frames.count()))
                    return false;
                const int i = static_cast<int>(index);
                info.timestampNs = clock->toHost(frames.timestampNs(i), CLOCK_MONOTONIC);
                info.exposureUs = static_cast<uint16_t>(std::clamp(frames.exposureUs(i), 0, 65535));
                info.zoomX100 = 100;
                hostTimestamps[index] = info.timestampNs;
                timestamps.add(info.timestampNs, frames.timestampNs(i));
                return true;
            },
            [&](uint64_t index, const host::FrameInfo&, const host::FrameImage& image) {
                const int i = static_cast<int>(index);
                frames.read(i, picture);
                host::copyPackedNv21(picture.data.data(), image);
                newestFrameNs.store(frames.timestampNs(i));
                observer.onFrameDelivered(i, frames.timestampNs(i), picture);
                return true;
            });
        host::CameraSetup cameraSetup;
        const android::Size size{frames.width(), frames.height()};
        cameraSetup.videoSizes = {size};
        cameraSetup.previewSizes = {size};
        cameraSetup.pictureSizes = {size};
        cameraSetup.videoSize = size;
        cameraSetup.previewSize = size;
        cameraSetup.pictureSize = size;
        cameraSetup.frameRate = frameRateOf(frames);
        cameraSetup.frameRates = {cameraSetup.frameRate};
        cameraSetup.pacing =
            config.realtime ? host::Pacing::RealTime : host::Pacing::AsFastAsConsumed;
        cameraSetup.source = source;
        if (!config.realtime) {
            // Frame `index` may go once the engine has output all but a queue's worth of the
            // frames before it (outputs of surface 0 count the frames that left the queue).
            cameraSetup.gate = [&sinks](uint64_t index, int64_t) {
                if (ctx.frameQueue.data == nullptr)
                    return false;
                const int capacity = ctx.frameQueue->capacity;
                return static_cast<int64_t>(index) <
                       static_cast<int64_t>(sinks[0]->received.load()) + capacity - kQueueHeadroom;
            };
        }
        std::shared_ptr<host::CameraDevice> device = host::CameraDevice::create(cameraSetup);
        host::addCamera(device);

        // The Java side's order of calls.
        ctx.onResume();
        std::vector<android::sp<ANativeWindow>> windows;
        for (size_t s = 0; s < config.surfaces.size(); ++s) {
            const OutputSurfaceSpec& layout = config.surfaces[s];
            auto sink = std::make_shared<ObserverSink>(static_cast<int>(s), observer, timestamps);
            host::WindowConfig windowConfig;
            windowConfig.defaultWidth = static_cast<uint32_t>(layout.width);
            windowConfig.defaultHeight = static_cast<uint32_t>(layout.height);
            windowConfig.defaultFormat = layout.format;
            windowConfig.bufferCount = static_cast<size_t>(layout.bufferCount);
            windowConfig.dequeueTimeoutMs = 10000;
            android::sp<ANativeWindow> window = host::createWindow(sink, windowConfig);
            if (window == nullptr)
                throw ReplayError("output surface " + std::to_string(s) + " is not valid");
            ANativeWindow* w = window.get();
            native_window_api_connect(w, NATIVE_WINDOW_API_CPU);
            native_window_set_buffers_dimensions(w, layout.width, layout.height);
            native_window_set_buffers_format(w, layout.format);
            native_window_set_usage(w, kSurfaceUsage);
            native_window_set_buffer_count(w, layout.bufferCount);
            ctx.jsm.addSurface(static_cast<int>(s) + 1, window);
            windows.push_back(window);
            sinks.push_back(sink);
        }
        android::sp<android::Camera> camera = device->connect();
        ctx.start(camera, frames.width(), frames.height(), config.configText.c_str());

        // A generous bound: the slowest engine here renders a 4K frame in well under 2 s.
        const auto limit = std::chrono::seconds(60) + frames.count() * 2s;
        bool drained =
            device->waitUntilDrained(std::chrono::duration_cast<std::chrono::milliseconds>(limit));
        ctx.stop();
        for (size_t s = 0; s < windows.size(); ++s) {
            host::waitForIdle(windows[s].get(), 10s);
            android::sp<ANativeWindow> removed = ctx.jsm.remSurface(static_cast<int>(s) + 1);
            if (removed != nullptr)
                native_window_api_disconnect(removed.get(), NATIVE_WINDOW_API_CPU);
        }
        camera.clear();
        ctx.onPause();
        host::removeCamera(device->setup().cameraId);
        host::removeGyro();
        if (!drained)
            throw std::runtime_error("the engine stopped taking frames");

        SessionResult result;
        host::CameraCounters counters = device->counters();
        result.framesDelivered = static_cast<int>(counters.delivered);
        result.framesLate = static_cast<int>(counters.dropped);
        result.wallSec =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        result.notes.push_back("engine session: " + std::to_string(counters.delivered) +
                               " frames delivered, " + std::to_string(counters.dropped) +
                               " dropped by the camera");
        return result;
    }
};

}  // namespace

std::unique_ptr<ReplaySession> makeDefaultSession() {
    return std::make_unique<EngineSession>();
}

}  // namespace qlmr::replay
