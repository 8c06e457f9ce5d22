// The whole pipeline: frames through the queue, the library's statuses, the outputs, the drain.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <unistd.h>

#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "SystemHooks.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

// Reads the frame number painted as 8x8 blocks down the right edge of an RGBA picture.
int64_t readFrameMarks(const host::MemorySink::StoredFrame& f) {
    int blocks = std::min<int>(f.height / 8, 32);
    int64_t value = 0;
    for (int k = 0; k < blocks; ++k) {
        const uint8_t* px =
            &f.pixels[(static_cast<size_t>(8 * k + 4) * f.stride + f.width - 4) * 4];
        if (px[0] == 255 && px[1] == 255 && px[2] == 255 && px[3] == 255) {
            value |= int64_t{1} << k;
        } else if (px[0] != 0 || px[1] != 0 || px[2] != 0 || px[3] != 0) {
            return -1;  // neither mark colour: not a mark
        }
    }
    return value;
}

// Every frame comes out once per window in order, marked (debug mode) with the buffer count.
TEST(EnginePipeline, EveryCameraFrameYieldsOneOutputPerWindowInOrder) {
    EngineHarness h;
    vstabDouble().debugFrameIndex = 1;
    h.makeCamera(syntheticCamera(640, 480, 60, Feed::Paced));
    auto& a = h.addOutput(1, 320, 240);
    auto& b = h.addOutput(2, 250, 64);  // stride 256: marks follow the row pitch
    h.start();
    ASSERT_TRUE(h.cameraDevice->waitUntilDrained(20s));
    ASSERT_TRUE(waitFor([&] { return a.sink->count() == 60 && b.sink->count() == 60; }, 20s))
        << a.sink->count() << " " << b.sink->count();
    systemhooks::recordSleepsOf(pthread_self());
    h.stop();
    systemhooks::recordSleepsOf(pthread_t{});
    EXPECT_EQ(systemhooks::recordedSleeps().size(), 0u);  // joined without polling
    EXPECT_EQ(h.engine->forceRecordStop.load(), 0);

    auto framesA = a.sink->frames();
    auto framesB = b.sink->frames();
    std::vector<int64_t> warped = snapshot(vstabDouble().warpTimestamps);
    ASSERT_EQ(warped.size(), 60u);
    for (size_t i = 0; i < 60; ++i) {
        EXPECT_EQ(framesA[i].timestampNs, warped[i]) << i;
        EXPECT_EQ(framesB[i].timestampNs, warped[i]) << i;
        EXPECT_EQ(readFrameMarks(framesA[i]), static_cast<int64_t>(2 * i)) << i;
        EXPECT_EQ(readFrameMarks(framesB[i]) & 0xFF, static_cast<int64_t>(2 * i + 1) & 0xFF) << i;
        EXPECT_GT(warped[i], i == 0 ? INT64_MIN : warped[i - 1]) << i;
    }
    EXPECT_EQ(h.engine->outputFrameCount, 120);
    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.delivered, 60u);
    EXPECT_EQ(counters.released, 60u);
}

// Statuses 1 and 26 render unwarped at once; the others keep frames until a forced stop.
TEST(EnginePipeline, NotEnoughGyroKeepsFramesUntilForcedThenRendersThemUnwarped) {
    for (int status : {1, 26, 2, 5, 25, 27}) {
        SCOPED_TRACE(status);
        const bool kept = status != 1 && status != 26;
        EngineHarness h;
        vstabDouble().defaultStatus = status;
        vstabDouble().script({ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN,
                              ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN,
                              ZEF_GYRO_V_STAB_INTERP_AFTER_END});
        h.makeCamera(syntheticCamera(320, 240, 10, Feed::Free));
        auto& out = h.addOutput(1, 160, 120);
        h.start();
        ASSERT_TRUE(waitFor([&] { return h.cameraDevice->counters().released == 10; }, 10s));
        if (kept) {
            ASSERT_TRUE(waitFor([&] { return vstabDouble().warpCalls.load() >= 20; }, 5s));
            EXPECT_EQ(out.sink->count(), 0u);
            EXPECT_EQ(h.engine->frameQueue->size(), 10);
            if (status == 2)  // nine go; stop() waits for the last one and forces it out
                vstabDouble().script({0, 0, 0, 0, 0, 0, 0, 0, 0});
            else
                h.engine->forceRecordStop = 1;
        }
        ASSERT_TRUE(waitFor([&] { return out.sink->count() == (status == 2 ? 9u : 10u); }, 10s));
        // The renderer read the unwarped grid, copied over the library's array.
        EXPECT_FLOAT_EQ(h.engine->vstabOutput.warpVertices[0], -1.25f);
        EXPECT_FLOAT_EQ(h.engine->vstabOutput.warpVertices[1], -1.25f);
        h.stop();
        EXPECT_EQ(out.sink->count(), 10u);
        // The interpolation-range statuses keep the first frame at the head, rendered later.
        const std::vector<int64_t> warped = snapshot(vstabDouble().warpTimestamps);
        ASSERT_GE(warped.size(), 13u);
        EXPECT_EQ(std::count(warped.begin(), warped.begin() + 4, warped[0]), 4);
        EXPECT_TRUE(kept || warped[3] < warped[4]);
        EXPECT_EQ(out.sink->frames()[0].timestampNs, warped[0]);
        EXPECT_EQ(warped.size() == 13u, !kept) << "removed at once";
    }
}

TEST(EnginePipeline, NotEnoughGyroRendersHeadWhenQueueIsAlmostFull) {
    LogCapture log;
    EngineHarness h;
    vstabDouble().defaultStatus = 2;
    auto& out = h.addOutput(1, 320, 240);
    // Never more than 15 waiting: a completely full queue is another case (below).
    host::CameraSetup setup = syntheticCamera(640, 480, 20, Feed::Free);
    std::shared_ptr<host::MemorySink> sink = out.sink;
    setup.gate = [sink](uint64_t index, int64_t) { return index < sink->count() + 15; };
    h.makeCamera(std::move(setup));
    h.start();
    ASSERT_TRUE(h.cameraDevice->waitUntilDrained(10s));
    ASSERT_EQ(h.engine->frameQueue->capacity, 16);
    // The head is rendered as soon as 15 wait: of 20 frames 6 leave early and 14 stay.
    ASSERT_TRUE(waitFor([&] { return out.sink->count() == 6; }, 10s)) << out.sink->count();
    const int callsBefore = vstabDouble().warpCalls.load();
    ASSERT_TRUE(waitFor([&] { return vstabDouble().warpCalls.load() >= callsBefore + 5; }, 10s));
    EXPECT_EQ(out.sink->count(), 6u);
    EXPECT_EQ(log.count("[VStab][Status] forceRecordStop=0", 4), 6);
    EXPECT_EQ(h.engine->forceRecordStop.load(), 0);

    // stop() polls every 33 ms and forces the rest out after more than a second asleep.
    systemhooks::recordSleepsOf(pthread_self());
    h.stop();
    systemhooks::recordSleepsOf(pthread_t{});
    const std::vector<useconds_t> sleeps = systemhooks::recordedSleeps();
    EXPECT_GE(sleeps.size(), 31u);
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), 33000u),
              static_cast<std::ptrdiff_t>(sleeps.size()));
    EXPECT_EQ(out.sink->count(), 20u);
    EXPECT_EQ(log.count("forceRecordStop = 1", 5), 1);
}

// An unhandled status throws on the processing thread, which ends the process.
TEST(EnginePipelineDeathTest, ErrorStatusEndsThreadWithException) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int status : {3, -1}) {
        EXPECT_DEATH(
            {
                EngineHarness h;
                vstabDouble().defaultStatus = status;
                h.makeCamera(syntheticCamera(640, 480, 2, Feed::Paced));
                h.addOutput(1, 320, 240);
                h.start();
                std::this_thread::sleep_for(5s);
            },
            "VStab returned error in main loop \\(" + std::to_string(status) +
                "\\)(.|\n)*\\[Exception\\] VStab returned error in main loop");
    }
}

// A full queue reads size 0: under status 2 its head stays and stop() does not wait for it.
TEST(EnginePipeline, FullQueueKeepsItsHeadUnderStatus2AndStopDoesNotWaitForIt) {
    LogCapture log;
    EngineHarness h;
    vstabDouble().holdStatus = ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN;
    vstabDouble().hold = true;  // keep every frame while the queue fills
    h.makeCamera(syntheticCamera(640, 480, 16, Feed::Free));
    auto& out = h.addOutput(1, 320, 240);
    h.start();
    ASSERT_EQ(h.engine->frameQueue->capacity, 16);
    ASSERT_TRUE(waitFor([&] { return h.cameraDevice->counters().released == 16; }, 10s));
    ASSERT_EQ(log.count("[Warning] Dropping new frame, internal buffer queue is full"), 0);
    EXPECT_EQ(h.engine->frameQueue->size(), 0);  // full

    vstabDouble().defaultStatus = 2;
    const int callsBefore = vstabDouble().warpCalls.load();
    vstabDouble().hold = false;
    ASSERT_TRUE(waitFor([&] { return vstabDouble().warpCalls.load() >= callsBefore + 5; }, 10s));
    EXPECT_EQ(out.sink->count(), 0u);

    finishesWithin(10000ms, "stop", [&] { h.stop(); });
    EXPECT_EQ(log.count("forceRecordStop = 1"), 0);
    EXPECT_EQ(out.sink->count(), 0u);
}

// A pass with nothing to render sleeps 5000 us at exactly 60 fps, 10000 us otherwise.
TEST(EnginePipeline, IdlePassSleeps5000UsAt60FpsAnd10000UsOtherwise) {
    for (int fps : {60, 30, 24}) {
        EngineHarness h;
        h.makeCamera(idleCamera(640, 480, fps));
        h.start();
        systemhooks::recordSleepsOf(h.engine->thread);
        const bool slept = waitFor([] { return systemhooks::recordedSleeps().size() >= 3; }, 10s);
        systemhooks::recordSleepsOf(pthread_t{});
        h.stop();
        ASSERT_TRUE(slept) << fps;
        for (useconds_t us : systemhooks::recordedSleeps())
            EXPECT_EQ(us, fps == 60 ? 5000u : 10000u) << fps << " fps";
    }
}

// Child process: a GL error releases the context, drops the buffer, skips the other windows.
void runRenderWithBrokenProgram() {
    EngineHarness h;
    h.makeCamera(syntheticCamera(640, 480, 1, Feed::Paced));
    auto& a = h.addOutput(1, 320, 240);
    auto& b = h.addOutput(2, 320, 240);
    h.engine->program->program = 0xBAD;  // glUseProgram fails: GL_INVALID_VALUE
    h.start();
    bool warped = waitFor([&] { return vstabDouble().warpCalls.load() == 1; }, 10s);
    std::this_thread::sleep_for(300ms);
    host::WindowCounters ca{};
    host::WindowCounters cb{};
    host::windowCounters(a.window.get(), &ca);
    host::windowCounters(b.window.get(), &cb);
    bool dropped = ca.dequeued == 1 && ca.queued == 0 && cb.dequeued == 0;
    bool released = h.engine->glContext->threadId == -1;
    h.camera->stopRecording();  // joins the camera's threads, which have nothing left to do
    _exit(warped && dropped && released && h.engine->outputFrameCount == 0 ? 0 : 1);
}

TEST(EnginePipelineDeathTest, GlErrorInRenderIsLoggedAndSkipsTheRemainingWindows) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(runRenderWithBrokenProgram(), ::testing::ExitedWithCode(0),
                " void Context::Render\\(const Context::VStabFrame \\*, const VStabOutput &, "
                "int64_t\\) [0-9]+ \\(1281\\)");
}

}  // namespace
