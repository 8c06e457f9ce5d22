// Engine lifecycle: the GL session, configuration lookup, start/stop, their failures, the queue.
#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <host/Properties.h>

#include "EngineHarness.h"
#include "EngineTestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

TEST(EngineSession, ResumeReadsTheDiagnosticProperties) {
    EngineHarness h;  // resumes with no property set
    EXPECT_EQ(eis_debug, 0);
    EXPECT_EQ(StartTimeOffsetUs, 0);

    struct Case {
        const char* debug;
        const char* startUs;
        int32_t eisDebug;
        int32_t offsetUs;
    };
    for (Case c : {Case{"1", "2500", 1, 2500}, Case{"7", "-40", 1, -40},
                   Case{"abc", "12abc", 0, 12}, Case{"0", "0", 0, 0}}) {
        h.engine->onPause();
        host::setProperty("debug.camera.qlmr.EIS.log", c.debug);
        host::setProperty("persist.qlmr.EIS.vid.startUs", c.startUs);
        Boottime_Monotonic_timerDiff_got = 1;
        h.engine->onResume();
        EXPECT_EQ(eis_debug, c.eisDebug) << c.debug;
        EXPECT_EQ(StartTimeOffsetUs, c.offsetUs) << c.startUs;
        EXPECT_EQ(Boottime_Monotonic_timerDiff_got, 0) << "the clock offset is measured anew";
    }
    // lock() keeps the engine's context current on the calling thread until unlock().
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    h.engine->lock();
    EXPECT_NE(h.engine->glGuard.data, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), h.engine->glContext->context);
    h.engine->unlock();
    EXPECT_EQ(h.engine->glGuard.data, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
}

TEST(EngineConfig, ValueIsTheTextAfterTheFirstMatchUpToTheLineFeed) {
    auto number = [](const std::string& text, const char* key) {
        int value = 99;
        readConfigParam<int>(text, key, value, -1);
        return value;
    };
    auto text = [](const std::string& config, const char* key) {
        std::string value = "unchanged";
        readConfigParam(config, key, value, std::string("default"));
        return value;
    };
    EXPECT_EQ(number("a=1\nnative.bufferFrameCount=40\nb=2\n", "native.bufferFrameCount"), 40);
    EXPECT_EQ(number("a=1\n", "native.bufferFrameCount"), -1);
    EXPECT_EQ(text("a=1\n", "native.cameraHeight"), "default");
    // Plain substring search: prefixes, suffixes and commented-out lines all match.
    EXPECT_EQ(number("native.cameraHeight=720\n", "native.camera"), 720);
    EXPECT_EQ(
        number("#native.cameraUvOffset=64\nnative.cameraUvOffset=128\n", "native.cameraUvOffset"),
        64);
    // The "=" may be on a later line; with none after the key the default stays.
    EXPECT_EQ(number("native.cameraHeight\nother=5\n", "native.cameraHeight"), 5);
    EXPECT_EQ(number("x=1\nnative.cameraHeight\n", "native.cameraHeight"), -1);
    // No trimming: the carriage return stays in the text, atof stops at it.
    EXPECT_EQ(number("native.cameraHeight=1080\r\n", "native.cameraHeight"), 1080);
    EXPECT_EQ(text("native.cameraHeight=1080\r\n", "native.cameraHeight"), "1080\r");
    // Truncated toward zero; no number reads 0; the last line needs no line feed.
    EXPECT_EQ(number("k=12.9\n", "k"), 12);
    EXPECT_EQ(number("k=-3.7\n", "k"), -3);
    EXPECT_EQ(number("k=abc\n", "k"), 0);
    EXPECT_EQ(number("k=33", "k"), 33);
}

// Recordings 2 and 3 are stamped before the end of the first: a frame order kept would refuse them.
TEST(EngineLifecycle, StartStopCyclesRecordAgainWithFreshState) {
    EngineHarness h;
    const int64_t offsets[] = {20000000000LL, 200000000LL, 1000000000LL};
    auto cycle = std::make_shared<std::atomic<int>>(0);
    host::CameraSetup setup =
        sourceCamera(320, 240,
                     periodicSource(20, 0,
                                    [cycle, offsets](uint64_t, host::FrameInfo& info) {
                                        info.timestampNs += offsets[cycle->load()];
                                    }),
                     24);
    setup.cameraField = 0x5A5A1234;
    paceByWarps(setup);
    h.makeCamera(setup);
    int width = 0, height = 0, fps = 0, field = 0;
    h.engine->getCamConfig(h.camera, width, height, fps, field);
    EXPECT_EQ(std::vector<int>({width, height, fps, field}),
              std::vector<int>({320, 240, 24, 0x5A5A1234}));
    const std::string config = engineConfig("native.cameraUvOffset=-1\n");
    for (int c = 0; c < 3; ++c) {
        cycle->store(c);
        h.start(config);
        ASSERT_TRUE(waitFor([&] { return vstabDouble().warpedOk.load() == 20 * (c + 1); }, 10s))
            << "cycle " << c << ": " << vstabDouble().warpedOk.load();
        EXPECT_EQ(h.engine->threadState.load(), 1);
        if (c == 0) {
            // The unwarped grid spans +-1.25 with z = 0; the library's grid is not touched.
            const float* u = h.engine->uniform_vrtxArr;
            for (int k = 0; k < 12; ++k) {
                EXPECT_FLOAT_EQ(u[k * 3], (2.0f * (k % 4) / 3.0f - 1.0f) * 1.25f) << k;
                EXPECT_FLOAT_EQ(u[k * 3 + 1], (k / 4 - 1.0f) * 1.25f) << k;
                EXPECT_EQ(u[k * 3 + 2], 0.0f) << k;
            }
            EXPECT_EQ(h.engine->mesh.width, 6);
            EXPECT_EQ(h.engine->mesh.height, 5);
            LogCapture log;
            EXPECT_EQ(thrownMessage([&] { h.start(); }),
                      "Logical Error in Context Thread state on initialization");
            EXPECT_EQ(log.countContaining("Context::start"), 0);
            EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
        }
        h.stop();
        EXPECT_EQ(h.engine->forceRecordStop.load(), 0) << "an empty queue needs no forcing";
        EXPECT_EQ(h.engine->threadState.load(), 4);
        EXPECT_EQ(vstabDouble().createCalls.load(), c + 1);
        EXPECT_EQ(vstabDouble().destroyCalls.load(), c + 1);
        EXPECT_EQ(vstabDouble().liveHandles.load(), 0);
        EXPECT_EQ(vstabDouble().lastConfigText, config);
        EXPECT_EQ(h.engine->mCamera.get(), nullptr);
        EXPECT_EQ(h.engine->sensorManager.data, nullptr);
        EXPECT_EQ(h.engine->frameQueue.data, nullptr);
        host::CameraCounters counters = h.cameraDevice->counters();
        EXPECT_EQ(counters.delivered, 20u * (c + 1));
        EXPECT_EQ(counters.released, 20u * (c + 1));
    }
    EXPECT_STREQ(android::CameraParameters(h.camera->getParameters()).get("recording-hint"),
                 "true");
}

// Log writer holding the thread that logs "Context Thread Run" until opened (10 s at most).
struct LogBarrier {
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool open = false;
    std::vector<std::string> texts;
};
LogBarrier* gBarrier = nullptr;

void barrierLogger(const __android_logger_data*, const char* message) {
    std::unique_lock<std::mutex> lock(gBarrier->mutex);
    gBarrier->texts.push_back(message);
    gBarrier->changed.notify_all();
    if (std::string(message).rfind("Context Thread Run", 0) == 0) {
        gBarrier->holding = true;
        gBarrier->changed.notify_all();
        gBarrier->changed.wait_for(lock, 10s, [] { return gBarrier->open; });
    }
}

TEST(EngineLifecycle, StopBeforeTheProcessingThreadStartedStillEndsIt) {
    EngineHarness h;
    h.makeCamera(idleCamera());
    LogBarrier barrier;
    gBarrier = &barrier;
    __android_log_set_logger(barrierLogger);
    h.start();
    std::future<void> stopping;
    {
        std::unique_lock<std::mutex> lock(barrier.mutex);
        ASSERT_TRUE(barrier.changed.wait_for(lock, 5s, [&] { return barrier.holding; }));
        stopping = std::async(std::launch::async, [&] { h.stop(); });
        // stop requests the end right after this line; give it a moment to do so.
        EXPECT_TRUE(barrier.changed.wait_for(lock, 5s, [&] {
            return std::find(barrier.texts.begin(), barrier.texts.end(),
                             "Frame Queue Length = 0, exit") != barrier.texts.end();
        }));
    }
    std::this_thread::sleep_for(50ms);
    {
        std::lock_guard<std::mutex> lock(barrier.mutex);
        barrier.open = true;
        barrier.changed.notify_all();
    }
    if (stopping.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "stop did not end the processing thread";
        std::abort();  // the join cannot be undone
    }
    __android_log_set_logger(__android_log_stderr_logger);
    gBarrier = nullptr;
    EXPECT_EQ(h.engine->threadState.load(), 4);
}

// max(latency, window / 2) at the preview rate + 13 frames, truncated; the config may override.
TEST(EngineLifecycle, QueueHoldsTheLibraryLatencyAtThePreviewRatePlusThirteen) {
    const struct {
        int fps;
        int64_t latencyNs, windowNs;
        const char* lines;
        int capacity;
        bool tooSmall;
        int bufferHeight;
    } cases[] = {
        {30, 100000000, 200000000, "", 16, false, 480},   // latency rules: 3 frames
        {24, 250000000, 300000000, "", 19, false, 480},   // 6 frames
        {30, 50000000, 800000000, "", 25, false, 480},    // half the window: 12 frames
        {15, 10000000, 1300000000, "", 22, false, 480},   // 9.75 frames, truncated
        {30, 150000000, 0, "", 17, false, 480},           // 4.5 frames, truncated
        {60, 0, 0, "", 13, false, 480},                   // the margin alone
        {30, -150000000, -400000000, "", 8, false, 480},  // signed: 13 - 4.5, toward zero
        {30, 100000000, 200000000, "native.bufferFrameCount=5\n", 16, true, 480},
        {30, 100000000, 200000000, "native.bufferFrameCount=16\n", 16, false, 480},
        {30, 100000000, 200000000, "native.bufferFrameCount=40\nnative.cameraHeight=360\n", 40,
         false, 360},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.fps << " fps, latency " << c.latencyNs << " " << c.lines);
        EngineHarness h;
        vstabDouble().latencyNs = c.latencyNs;
        vstabDouble().windowNs = c.windowNs;
        h.makeCamera(idleCamera(640, 480, c.fps));
        LogCapture log;
        h.start(engineConfig(c.lines));
        auto* queue = h.engine->frameQueue.data;
        ASSERT_EQ(queue->getCapacity(), c.capacity);
        EXPECT_EQ(log.count("Internal Buffer size set in config is too small: 5 < 16, using "
                            "minimum count",
                            kWarn),
                  c.tooSmall ? 1 : 0);
        // Every slot got its own NV21 buffer of the video size; the queue ends up empty.
        pthread_mutex_lock(&queue->mutex.mutex);
        EXPECT_EQ(queue->readIndex, queue->writeIndex);
        EXPECT_EQ(queue->full, 0);
        for (int i = 0; i < c.capacity; ++i) {
            ASSERT_NE(queue->slots[i].buffer.data, nullptr) << i;
            const android::sp<android::GraphicBuffer>& gb = queue->slots[i].buffer->buffer;
            EXPECT_EQ(gb->getWidth(), 640u);
            EXPECT_EQ(gb->getHeight(), static_cast<uint32_t>(c.bufferHeight));
            EXPECT_EQ(gb->getPixelFormat(), 17);
        }
        pthread_mutex_unlock(&queue->mutex.mutex);
        for (int k = 0; k < 36; ++k)
            EXPECT_EQ(h.engine->vstabOutput.warpVertices[k], 0.0f) << "no warp yet: all zero";
        h.stop();
    }
}

// Refused starts undo nothing but leave the locks free and nothing running.
TEST(EngineLifecycle, StartAndStopFailuresAreThrownAndLeaveTheLocksFree) {
    EngineHarness h;
    host::CameraSetup setup = idleCamera(640, 480);
    setup.videoSizes.push_back({1080, 720});
    h.makeCamera(setup);
    const std::string config = engineConfig();
    const std::string oddHeight = engineConfig("native.cameraHeight=481\n");
    struct Case {
        const char* config;
        int width, createStatus;
        bool configNull, buffers;  // buffers: refused by the graphics, after the grids are made
        const char* message;
        const char* logged;
    };
    const Case cases[] = {
        {nullptr, 640, 0, false, false, "VStabConfig missing",
         "VStabConfig configuration in java assets was not found ... aborting"},
        {config.c_str(), 640, 7, false, false, "Could not create VStab with given configuration",
         "Could not create VStab with given configuration"},
        {config.c_str(), 640, 0, true, false, "VStab config is not valid",
         "VStab config is not valid"},
        {config.c_str(), 1080, 0, false, true,
         "[CPGL] allocateGB buffer width is not a multiple of 16",
         "[CPGL] allocateGB buffer width is not a multiple of 16"},
        {oddHeight.c_str(), 640, 0, false, true, "[CPGL] Could not initialize GraphicBuffer",
         "[CPGL] Could not initialize GraphicBuffer"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        vstabDouble().createStatus = c.createStatus;
        vstabDouble().configNull = c.configNull;
        LogCapture log;
        EXPECT_EQ(thrownMessage([&] {
                      h.engine->start(h.camera, c.width, c.width == 640 ? 480 : 720, c.config);
                  }),
                  c.message);
        EXPECT_EQ(log.count(c.logged, kWarn), 1);
        EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
        EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
        EXPECT_EQ(h.engine->threadState.load(), 0);
        EXPECT_EQ(h.engine->sensorManager.data, nullptr);
        EXPECT_FALSE(h.cameraDevice->recording());
        if (c.width == 1080) {
            for (int i = 0; i < h.engine->frameQueue->getCapacity(); ++i)
                EXPECT_EQ(h.engine->frameQueue->slots[i].buffer.data, nullptr) << i;
        }
        if (c.configNull || c.buffers)  // the handle made before the failure
            vStabDestroy(h.engine->vstabHandle);
        if (c.buffers) {
            delete[] h.engine->uniform_vrtxArr;
            delete[] h.engine->vstabOutput.warpVertices;
        }
    }
    vstabDouble().createStatus = 0;
    vstabDouble().configNull = false;

    // The engine is still usable; a library that cannot be destroyed fails the stop.
    h.start(config);
    EXPECT_TRUE(h.cameraDevice->recording());
    vstabDouble().destroyStatus = 9;
    LogCapture log;
    EXPECT_EQ(thrownMessage([&] { h.stop(); }), "Could not destroy VStab");
    EXPECT_EQ(log.count("Native stopped recording"), 0);
    EXPECT_EQ(h.engine->threadState.load(), 4);
    EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
    EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
    vstabDouble().destroyStatus = 0;
    vStabDestroy(h.engine->vstabHandle);  // the handle the failed destroy kept
}

}  // namespace
