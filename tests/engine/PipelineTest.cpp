#include <gtest/gtest.h>

#include "EngineHarness.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;

TEST(EnginePipeline, EveryCameraFrameYieldsOneOutputPerWindowInOrder) {
    EngineHarness h;
    h.makeCamera(pacedCamera(*h.engine, 640, 480, 60));
    auto& a = h.addOutput(1, 320, 240);
    auto& b = h.addOutput(2, 640, 480);
    h.start();
    ASSERT_TRUE(h.cameraDevice->waitUntilDrained(20s));
    ASSERT_TRUE(waitFor([&] { return a.sink->count() == 60 && b.sink->count() == 60; }, 20s))
        << a.sink->count() << " " << b.sink->count();
    h.stop();

    auto framesA = a.sink->frames();
    auto framesB = b.sink->frames();
    std::vector<int64_t> warped = vstabDouble().warpSnapshot();
    ASSERT_EQ(warped.size(), 60u);
    for (size_t i = 0; i < 60; ++i) {
        EXPECT_EQ(framesA[i].timestampNs, warped[i]) << i;
        EXPECT_EQ(framesB[i].timestampNs, warped[i]) << i;
        if (i > 0) {
            EXPECT_GT(warped[i], warped[i - 1]);
        }
    }
    EXPECT_EQ(h.engine->outputFrameCount, 120);
    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.delivered, 60u);
    EXPECT_EQ(counters.released, 60u);
}

}  // namespace
