// Platform faults met by the real engine: gyro, camera, windows, GL session, sensor service.
#include <gtest/gtest.h>

#include <thread>

#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "SystemHooks.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

// True when the frames `sink` received carry strictly increasing timestamps.
bool strictlyIncreasing(const host::MemorySink& sink) {
    int64_t last = INT64_MIN;
    for (const auto& frame : sink.frames()) {
        if (frame.timestampNs <= last)
            return false;
        last = frame.timestampNs;
    }
    return true;
}

// The gyro stream ends mid-recording: its thread ends, frames flow on, stop() still joins.
TEST(EngineFaults, GyroscopeStoppingMidRecordingLeavesFramesFlowing) {
    // 100 samples at 400 Hz (a quarter of a second), stamped on CLOCK_BOOTTIME from now on.
    std::vector<host::GyroSample> samples;
    const int64_t now = clockNs(CLOCK_BOOTTIME);
    for (int k = 0; k < 100; ++k)
        samples.push_back({now + k * 2500000LL, 0.1f, 0.0f, 0.0f});
    ScopedGyro gyro(std::make_shared<host::ReplayGyroSource>(samples), 2500,
                    host::Pacing::RealTime);
    EngineHarness h;
    h.makeCamera(syntheticCamera(320, 240, 0, Feed::Live, 60));
    auto& out = h.addOutput(1, 160, 120);
    LogCapture log;
    h.start();
    ASSERT_TRUE(waitFor([&] { return log.contains("[JJJ] SensorManager Thread Exit"); }, 10s));
    // The thread logs its exit last in its body; its state turns Exited just after.
    EXPECT_TRUE(
        waitFor([&] { return h.engine->sensorManager->state.load() == ThreadState::Exited; }, 5s));
    const size_t atGyroEnd = out.sink->count();
    // Windows come and go: removal waits for the frame being drawn, then nothing more arrives.
    struct Removed {
        android::sp<ANativeWindow> window;
        std::shared_ptr<host::MemorySink> sink;
        uint64_t queuedAtRemoval;
    };
    std::vector<Removed> removed;
    for (int round = 0; round < 20; ++round) {
        auto sink = std::make_shared<host::MemorySink>();
        android::sp<ANativeWindow> window = connectedWindow(sink, 160, 120);
        h.engine->jsm.addSurface(7, window);
        ASSERT_TRUE(sink->waitForCount(2, 10s)) << round;
        android::sp<ANativeWindow> taken;
        finishesWithin(10000ms, "remSurface", [&] { taken = h.engine->jsm.remSurface(7); });
        ASSERT_EQ(taken.get(), window.get());
        host::WindowCounters counters{};
        ASSERT_TRUE(host::windowCounters(window.get(), &counters));
        removed.push_back({window, sink, counters.queued});
        native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_CPU);
    }
    ASSERT_TRUE(out.sink->waitForCount(atGyroEnd + 10, 10s));
    finishesWithin(10000ms, "stop", [&] { h.stop(); });
    EXPECT_EQ(vstabDouble().addCalls.load(), 100);
    EXPECT_TRUE(strictlyIncreasing(*out.sink));
    EXPECT_EQ(log.countContaining("[Exception]"), 0);
    for (const Removed& r : removed) {
        host::WindowCounters counters{};
        ASSERT_TRUE(host::windowCounters(r.window.get(), &counters));
        EXPECT_EQ(counters.queued, r.queuedAtRemoval);
        ASSERT_TRUE(host::waitForIdle(r.window.get(), 10s));
        EXPECT_EQ(r.sink->count(), r.queuedAtRemoval);
        EXPECT_TRUE(strictlyIncreasing(*r.sink));
    }
}

// A 60 fps camera, 40 ms a warp: each frame is released, rendered once or dropped, in order.
TEST(EngineFaults, CameraFasterThanRenderingDropsAndCountsFrames) {
    EngineHarness h;
    vstabDouble().warpDelayUs = 40000;
    h.makeCamera(syntheticCamera(320, 240, 0, Feed::Live, 60));
    auto& out = h.addOutput(1, 160, 120);
    LogCapture log;
    const char* const kDropped = "[Warning] Dropping new frame, internal buffer queue is full";
    h.start();
    ASSERT_TRUE(waitFor([&] { return log.count(kDropped, kWarn) >= 5; }, 20s));
    // The library speeds up again and works the backlog off. (A queue still completely full at
    // stop() would go unrendered: its size reads 0, so stop() does not wait for it.)
    vstabDouble().warpDelayUs = 0;
    const size_t rendered = out.sink->count();
    ASSERT_TRUE(out.sink->waitForCount(rendered + 40, 20s));
    finishesWithin(20000ms, "stop", [&] { h.stop(); });

    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.released, counters.delivered);
    EXPECT_EQ(counters.releaseErrors, 0u);
    EXPECT_EQ(out.sink->count() + static_cast<size_t>(log.count(kDropped, kWarn)),
              counters.delivered);
    EXPECT_TRUE(strictlyIncreasing(*out.sink));
    EXPECT_EQ(log.countContaining("[Exception]"), 0);
}

// Framebuffer and shader failures in onResume/onPause are logged; the session recovers.
TEST(EngineSession, FramebufferFailuresAreLoggedAndTheSessionRecovers) {
    EngineHarness h;
    h.engine->onPause();
    LogCapture log;
    systemhooks::failFramebufferCallsOnThisThread(true);
    h.engine->onResume();
    systemhooks::failFramebufferCallsOnThisThread(false);
    EXPECT_EQ(log.count(" void Context::onResume() 566 (1281)\n", kError), 1);
    EXPECT_EQ(h.engine->program, nullptr);
    EXPECT_NE(h.engine->cameraTexture.data, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    h.engine->onPause();
    h.engine->onResume();
    EXPECT_NE(h.engine->program, nullptr);

    systemhooks::failFramebufferCallsOnThisThread(true);
    h.engine->onPause();
    systemhooks::failFramebufferCallsOnThisThread(false);
    EXPECT_EQ(log.count(" void Context::onPause() 679 (1281)\n", kError), 1);
    EXPECT_NE(h.engine->glContext.data, nullptr);
    EXPECT_NE(h.engine->program, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    h.engine->onPause();
    EXPECT_EQ(h.engine->glContext.data, nullptr);

    systemhooks::breakShaderSourcesOnThisThread(true);
    h.engine->onResume();
    systemhooks::breakShaderSourcesOnThisThread(false);
    const std::vector<LogLine> lines = log.lines();
    for (const char* text :
         {"Could not compile Vertex Shader: ", "Could not compile Fragment Shader: ",
          "Could not link gl program: "}) {
        auto line = std::find_if(lines.begin(), lines.end(),
                                 [&](const LogLine& l) { return l.text == text; });
        ASSERT_TRUE(line != lines.end() && line + 1 != lines.end()) << text;
        EXPECT_EQ(line->priority, kError) << text;
        EXPECT_FALSE((line + 1)->text.empty()) << text;  // the driver's info log follows
    }
    EXPECT_NE(h.engine->program, nullptr);
    EXPECT_NE(h.engine->framebuffer, 0u);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    h.engine->onPause();
    h.engine->onResume();  // for the harness's own pause
}

// Child-process body: a sensor service fault on the gyro thread must end the process.
void runSensorThreadWith(host::SensorFault fault) {
    ScopedGyro gyro(std::make_shared<host::SyntheticGyroSource>(), 2500);
    resetVStabDouble();
    Context engine;
    engine.clockIdFrame = CLOCK_BOOTTIME;
    engine.clockIdGyro = CLOCK_BOOTTIME;
    host::injectSensorFault(fault);
    auto* sensor = new SensorManager(&engine);
    // Clean-up faults come at the end of the loop: let samples flow, then stop the thread.
    waitFor([] { return vstabDouble().addCalls.load() >= 5; }, 5s);
    delete sensor;
    std::this_thread::sleep_for(1s);
}

TEST(EngineSensorDeathTest, EveryPlatformFailureOnTheGyroThreadIsFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::pair<host::SensorFault, const char*> cases[] = {
        {host::SensorFault::LooperPrepare, "Could not create looper, fatal error"},
        {host::SensorFault::CreateEventQueue, "Could not create Event Queue"},
        {host::SensorFault::EnableSensor, "ASensorEventQueue_enableSensor Error"},
        {host::SensorFault::SetEventRate, "ASensorEventQueue_setEventRate Error"},
        {host::SensorFault::DisableSensor, "ASensorEventQueue_disableSensor Error"},
        {host::SensorFault::DestroyEventQueue, "ASensorManager_destroyEventQueue Error"},
    };
    for (const auto& c : cases) {
        const std::string message = c.second;
        EXPECT_DEATH(runSensorThreadWith(c.first), message + "(.|\n)*what\\(\\): +" + message)
            << message;
    }
}

}  // namespace
