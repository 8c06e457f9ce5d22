// The host sensor service through the NDK API: the gyroscope, event rates, real-time drops.
#include <android/looper.h>
#include <android/sensor.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "host/HostSensors.h"

namespace {

using host::Pacing;
using namespace std::chrono_literals;

constexpr int kIdent = 5565;

// An event queue on the calling thread's looper; destroyed with the object.
struct Queue {
    Queue() {
        looper = ALooper_prepare(ALOOPER_PREPARE_ALLOW_NON_CALLBACKS);
        // Take a wake left on this thread's looper by an earlier test's replay end.
        while (ALooper_pollAll(0, nullptr, nullptr, nullptr) == ALOOPER_POLL_WAKE) {
        }
        manager = ASensorManager_getInstance();
        sensor = ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE);
        queue = ASensorManager_createEventQueue(manager, looper, kIdent, nullptr, nullptr);
    }
    ~Queue() {
        if (queue != nullptr)
            ASensorManager_destroyEventQueue(manager, queue);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Reads events until `count` have arrived or a poll returns a negative lastPoll.
    std::vector<ASensorEvent> read(size_t count, int timeoutMs = 5000) {
        std::vector<ASensorEvent> events;
        while (events.size() < count) {
            lastPoll = ALooper_pollAll(timeoutMs, nullptr, nullptr, nullptr);
            if (lastPoll < 0)
                break;
            if (lastPoll != kIdent)
                continue;
            ASensorEvent e;
            while (events.size() < count && ASensorEventQueue_getEvents(queue, &e, 1) > 0) {
                events.push_back(e);
            }
        }
        return events;
    }

    ALooper* looper = nullptr;
    ASensorManager* manager = nullptr;
    const ASensor* sensor = nullptr;
    ASensorEventQueue* queue = nullptr;
    int lastPoll = 0;
};

// `count` samples 1 ms apart, with rates that identify each sample.
host::GyroSetup replaySetup(size_t count, host::Pacing pacing, size_t capacity) {
    std::vector<host::GyroSample> list(count);
    for (size_t i = 0; i < count; ++i) {
        list[i].timestampNs = 1000000000 + static_cast<int64_t>(i) * 1000000;
        list[i].x = static_cast<float>(i);
        list[i].y = -static_cast<float>(i);
        list[i].z = 0.5f;
    }
    host::GyroSetup setup;
    setup.source = std::make_shared<host::ReplayGyroSource>(list);
    setup.pacing = pacing;
    setup.queueCapacity = capacity;
    return setup;
}

}  // namespace

TEST(SensorQueue, DescribesTheInstalledGyroscopeEnableRateAndDisableSemantics) {
    ASSERT_TRUE(host::removeGyro());
    EXPECT_EQ(Queue().sensor, nullptr);
    EXPECT_THROW(host::installGyro(host::GyroSetup{}), std::invalid_argument);
    EXPECT_THROW(host::installGyro(replaySetup(1, Pacing::RealTime, 0)), std::invalid_argument);
    host::GyroSetup setup = replaySetup(1000, Pacing::AsFastAsConsumed, 4);
    setup.name = "Test Gyro";
    setup.minDelayUs = 5000;
    setup.gate = [](int64_t) { return false; };  // nothing flows: only the bookkeeping counts
    ASSERT_TRUE(host::installGyro(setup));
    Queue q;
    ASSERT_NE(q.queue, nullptr);
    EXPECT_STREQ(ASensor_getName(q.sensor), "Test Gyro");
    EXPECT_EQ(ASensor_getMinDelay(q.sensor), 5000);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 5000), -EINVAL);  // not enabled
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 1000), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 5000000);  // raised to the minimum delay
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 20000), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 20000000);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, -1), -EINVAL);

    ASSERT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 0);
}

TEST(SensorQueue, RealTimeReplayDropsWhatAStalledConsumerCannotHold) {
    ASSERT_TRUE(host::installGyro(replaySetup(200, Pacing::RealTime, 16)));  // 200 ms of samples
    Queue q;
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!host::sensorCounters().sourceEnded && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    std::vector<ASensorEvent> events = q.read(200);
    EXPECT_EQ(q.lastPoll, ALOOPER_POLL_WAKE);
    ASSERT_EQ(events.size(), 16u);  // the first 16 fitted; the rest were lost
    for (size_t i = 0; i < events.size(); ++i)
        EXPECT_EQ(events[i].data[0], static_cast<float>(i));
    EXPECT_EQ(host::sensorCounters().eventsDropped, 184u);
    EXPECT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
}
