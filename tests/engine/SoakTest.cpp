// Camera, gyro and processing threads at work together (above all for ThreadSanitizer).
#include <gtest/gtest.h>

#include <thread>

#include "EngineHarness.h"
#include "EngineTestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

TEST(EngineSoak, CameraGyroAndProcessingThreadsRunTogether) {
    ScopedGyro gyro(std::make_shared<host::SyntheticGyroSource>(), 2500);
    EngineHarness h;
    h.makeCamera(syntheticCamera(320, 240, 0, Feed::Live));
    auto& output = h.addOutput(1, 160, 120);
    LogCapture log;
    h.start();
    // Two recordings back to back, so that start and stop also meet running threads.
    for (int round = 0; round < 2; ++round) {
        if (round > 0)
            h.start();
        const uint64_t deliveredBefore = h.cameraDevice->counters().delivered;
        std::this_thread::sleep_for(1500ms);
        // At least 20 more frames have flowed (waits longer on a slow sanitizer build).
        EXPECT_TRUE(h.cameraDevice->waitForDelivered(deliveredBefore + 20, 20000ms)) << round;
        finishesWithin(20000ms, "stop", [&] { h.stop(); });
    }

    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.released, counters.delivered);
    EXPECT_EQ(counters.releaseErrors, 0u);
    // Every frame the library warped went out once, with its own timestamp, in order.
    ASSERT_TRUE(output.sink->waitForCount(vstabDouble().warpedOk.load(), 5s));
    std::vector<host::MemorySink::StoredFrame> frames = output.sink->frames();
    std::vector<int64_t> warped = snapshot(vstabDouble().warpTimestamps);
    ASSERT_EQ(frames.size(), warped.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].timestampNs, warped[i]) << i;
        EXPECT_GT(warped[i], i == 0 ? INT64_MIN : warped[i - 1]) << i;
    }
    EXPECT_EQ(static_cast<uint64_t>(warped.size()) +
                  log.count("[Warning] Dropping new frame, internal buffer queue is full"),
              counters.delivered);
    // The gyroscope ran alongside, its samples in order.
    std::vector<int64_t> samples = snapshot(vstabDouble().gyroTimestamps);
    EXPECT_GT(samples.size(), 200u);
    for (size_t i = 1; i < samples.size(); ++i)
        EXPECT_GE(samples[i], samples[i - 1]) << i;
    EXPECT_EQ(log.countContaining("[Exception]"), 0);
}

}  // namespace
