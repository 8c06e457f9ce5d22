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
#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "media/ColorConvert.h"
#include "session/ReplaySession.h"

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
// The engine's queue must keep this many free slots before the camera hands it another frame,
// while the gyroscope can still deliver samples the queued frames wait for.
constexpr int kQueueHeadroom = 2;
// Once the gyro has handed over its last sample and the engine has still output nothing for
// kGyroEndedStall, the frames waiting for gyro are pushed out by the engine's almost-full rule,
// which needs the queue one frame short of full: from then on the camera keeps one slot free,
// as a device's camera would fill the queue. (Switching earlier would race the sensor thread,
// which may still be delivering the last samples.)
constexpr int kGyroEndedHeadroom = 1;
constexpr auto kGyroEndedStall = std::chrono::milliseconds(200);
// The camera holds frames back only this long while the engine outputs nothing; then it hands
// the next frame over anyway (the engine renders or drops it, as on a device).
constexpr auto kCameraHoldLimit = std::chrono::seconds(5);
// The replay fails when the engine outputs no frame for this long although frames wait.
constexpr auto kEngineStallLimit = std::chrono::seconds(60);
// The engine's frame buffers: widths are a multiple of this.
constexpr int kEngineWidthAlign = 16;

// Host CLOCK_BOOTTIME of the newest gyro sample that any replay of this process may have handed
// to the engine. The engine ignores gyro events older than the newest it has seen, for the life
// of the process, and replays run ahead of the host clock: a later replay's recording is placed
// after this mark.
std::atomic<int64_t> gyroHighWaterBootNs{0};

int64_t nowNs(clockid_t id) {
    timespec ts{};
    clock_gettime(id, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The first exception raised on one of the session's callback threads (camera capture, window
// consumers), kept to be raised again on the thread that runs the session.
class FirstError {
  public:
    void keep(std::exception_ptr e) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!error_)
            error_ = std::move(e);
        raised_.store(true);
    }
    bool raised() const { return raised_.load(); }
    void rethrow() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (error_)
            std::rethrow_exception(error_);
    }

  private:
    std::mutex mutex_;
    std::exception_ptr error_;
    std::atomic<bool> raised_{false};
};

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
// Called on the window's consumer thread; an observer's exception is kept in `errors` (the
// frame still counts as received, so that the camera is not held back by it).
class ObserverSink : public host::FrameSink {
  public:
    ObserverSink(int surface, SessionObserver& observer, const TimestampMap& timestamps,
                 FirstError& errors)
        : surface_(surface), observer_(observer), timestamps_(timestamps), errors_(errors) {}
    void onFrame(const host::Frame& frame) override {
        RgbaView view;
        view.width = static_cast<int>(frame.width);
        view.height = static_cast<int>(frame.height);
        view.stride = static_cast<int>(frame.stride);
        view.data = frame.pixels;
        if (!errors_.raised()) {
            try {
                observer_.onFrameOutput(surface_, timestamps_.toRecording(frame.timestampNs), view);
            } catch (...) {
                errors_.keep(std::current_exception());
            }
        }
        received.fetch_add(1);
    }
    std::atomic<int> received{0};

  private:
    const int surface_;
    SessionObserver& observer_;
    const TimestampMap& timestamps_;
    FirstError& errors_;
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

        // The recording's first instant (frame or gyro sample) appears as "now" on the host, or
        // just after the gyro samples an earlier replay handed over.
        int64_t firstNs = frames.timestampNs(0);
        if (!gyro.empty())
            firstNs = std::min(firstNs, gyro.front().timestampNs);
        const int64_t behindNs = gyroHighWaterBootNs.load() - nowNs(CLOCK_BOOTTIME) + 1000000;
        auto clock = std::make_shared<host::ReplayClock>(firstNs - std::max<int64_t>(0, behindNs));
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
        // Opened for good when the run ends: the engine's sensor thread notices a stop only when
        // an event arrives (or after its long poll time-out).
        std::atomic<bool> gyroReleased{false};
        // Set once the last sample has been let through (sensor service thread).
        std::atomic<bool> gyroAllDelivered{gyro.empty()};
        const int64_t lastGyroNs = gyro.empty() ? 0 : gyro.back().timestampNs;
        gyroSetup.gate = [&newestFrameNs, &gyroReleased, &gyroAllDelivered, clock, originNs,
                          lastGyroNs](int64_t hostBootNs) {
            const int64_t recordingNs =
                hostBootNs - clock->toHost(originNs, CLOCK_BOOTTIME) + originNs;
            const bool open =
                gyroReleased.load() || recordingNs <= newestFrameNs.load() + kGyroLeadNs;
            if (open && recordingNs >= lastGyroNs)
                gyroAllDelivered.store(true);
            return open;
        };
        if (!host::installGyro(gyroSetup))
            throw std::runtime_error("the host gyroscope is busy");

        // Camera: the recording's frames, held back while the engine's queue is nearly full. The
        // engine's buffers need a width that is a multiple of 16: other widths are scaled to the
        // next one for the camera (the same field of view over a few more columns); the
        // observer and the outputs keep the recording's size.
        const int cameraWidth =
            (frames.width() + kEngineWidthAlign - 1) / kEngineWidthAlign * kEngineWidthAlign;
        Nv21Image picture;
        picture.resize(frames.width(), frames.height());
        Nv21Image scaled;
        if (cameraWidth != frames.width())
            scaled.resize(cameraWidth, frames.height());
        FirstError errors;
        std::vector<int64_t> hostTimestamps(static_cast<size_t>(frames.count()));
        auto source = std::make_shared<host::CallbackFrameSource>(
            [&](uint64_t index, host::FrameInfo& info) {
                if (index >= static_cast<uint64_t>(frames.count()) || errors.raised() ||
                    interruptRequested())
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
                // A decoding fault or an observer's exception ends the stream; the session
                // raises it once the engine is stopped.
                try {
                    const int i = static_cast<int>(index);
                    frames.read(i, picture);
                    if (scaled.width != 0) {
                        scaleNv21(picture, scaled);
                        host::copyPackedNv21(scaled.data.data(), image);
                    } else {
                        host::copyPackedNv21(picture.data.data(), image);
                    }
                    newestFrameNs.store(frames.timestampNs(i));
                    observer.onFrameDelivered(i, frames.timestampNs(i), picture);
                    return true;
                } catch (...) {
                    errors.keep(std::current_exception());
                    return false;
                }
            });
        host::CameraSetup cameraSetup;
        const android::Size size{cameraWidth, frames.height()};
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
        int heldBackFrames = 0;  // capture thread only
        if (!config.realtime) {
            // Frame `index` may go once the engine has output all but a queue's worth of the
            // frames before it (outputs of surface 0 count the frames that left the queue).
            // Capture thread.
            int lastReceived = -1;
            auto lastProgress = std::chrono::steady_clock::now();
            bool gyroEnded = false;
            cameraSetup.gate = [&sinks, &gyroAllDelivered, &heldBackFrames, lastReceived,
                                lastProgress, gyroEnded](uint64_t index, int64_t) mutable {
                if (ctx.frameQueue.data == nullptr || sinks.empty())
                    return false;
                const auto now = std::chrono::steady_clock::now();
                const int received = sinks[0]->received.load();
                if (received != lastReceived) {
                    lastReceived = received;
                    lastProgress = now;
                }
                const int capacity = ctx.frameQueue->capacity;
                gyroEnded =
                    gyroEnded || (gyroAllDelivered.load() && now - lastProgress >= kGyroEndedStall);
                const int headroom = gyroEnded ? kGyroEndedHeadroom : kQueueHeadroom;
                if (static_cast<int64_t>(index) <
                    static_cast<int64_t>(received) + capacity - headroom)
                    return true;
                if (now - lastProgress < kCameraHoldLimit)
                    return false;
                ++heldBackFrames;
                lastProgress = now;
                return true;
            };
        }
        std::shared_ptr<host::CameraDevice> device = host::CameraDevice::create(cameraSetup);
        host::addCamera(device);

        // The Java side's order of calls.
        ctx.onResume();
        std::vector<android::sp<ANativeWindow>> windows;
        for (size_t s = 0; s < config.surfaces.size(); ++s) {
            const OutputSurfaceSpec& layout = config.surfaces[s];
            auto sink =
                std::make_shared<ObserverSink>(static_cast<int>(s), observer, timestamps, errors);
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
        // The Java side's order of calls at the end, also when the run fails (stop only after a
        // start that succeeded).
        auto tearDown = [&](bool started) {
            gyroReleased.store(true);
            if (started)
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
            if (!gyro.empty()) {
                const int64_t lastNs = clock->toHost(gyro.back().timestampNs, CLOCK_BOOTTIME);
                if (lastNs > gyroHighWaterBootNs.load())
                    gyroHighWaterBootNs.store(lastNs);
            }
        };
        try {
            ctx.start(camera, cameraWidth, frames.height(), config.configText.c_str());
        } catch (...) {
            tearDown(false);
            throw;
        }

        // Until every frame has been handed over and delivered: the engine must keep taking
        // them (an output at least every kEngineStallLimit while frames wait), and the run ends
        // early on an interruption or a fault on a callback thread.
        bool stalled = false;
        {
            int lastOutput = -1;
            auto lastProgress = std::chrono::steady_clock::now();
            while (!device->waitUntilDrained(std::chrono::milliseconds(50))) {
                if (interruptRequested() || errors.raised())
                    break;
                const int out = sinks[0]->received.load();
                const auto now = std::chrono::steady_clock::now();
                if (out != lastOutput) {
                    lastOutput = out;
                    lastProgress = now;
                } else if (now - lastProgress > kEngineStallLimit) {
                    stalled = true;
                    break;
                }
            }
        }
        tearDown(true);
        errors.rethrow();
        throwIfInterrupted();
        if (stalled) {
            throw std::runtime_error(
                "the engine stopped taking frames: no output for " +
                std::to_string(
                    std::chrono::duration_cast<std::chrono::seconds>(kEngineStallLimit).count()) +
                " s after " + std::to_string(sinks[0]->received.load()) + " of " +
                std::to_string(frames.count()) + " frames (see engine.log)");
        }

        SessionResult result;
        host::CameraCounters counters = device->counters();
        result.framesDelivered = static_cast<int>(counters.delivered);
        result.framesLate = static_cast<int>(counters.dropped);
        result.wallSec =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        result.notes.push_back("engine session: " + std::to_string(counters.delivered) +
                               " frames delivered, " + std::to_string(counters.dropped) +
                               " dropped by the camera");
        if (cameraWidth != frames.width()) {
            result.notes.push_back(
                "the frames are " + std::to_string(frames.width()) + "x" +
                std::to_string(frames.height()) + "; the engine's buffers need a width that is " +
                "a multiple of 16, so the camera scaled them to " + std::to_string(cameraWidth) +
                "x" + std::to_string(frames.height()) + " (the outputs keep the input's size)");
        }
        if (heldBackFrames > 0) {
            result.warnings.push_back(
                std::to_string(heldBackFrames) + " frames were handed to the engine although it " +
                "had output nothing for " +
                std::to_string(
                    std::chrono::duration_cast<std::chrono::seconds>(kCameraHoldLimit).count()) +
                " s (its queue full of frames it could not stabilize)");
        }
        return result;
    }
};

}  // namespace

std::unique_ptr<ReplaySession> makeDefaultSession() {
    return std::make_unique<EngineSession>();
}

}  // namespace qlmr::replay
