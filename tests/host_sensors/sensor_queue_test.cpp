// The host sensor service through the NDK API: sensors, event queues, pacing and replay.
#include <atomic>
#include <cerrno>
#include <string>

#include "SensorTestSupport.h"

using host::Pacing;
using sensortest::kIdent;
using sensortest::Queue;
using sensortest::replaySetup;
using namespace std::chrono_literals;

TEST(SensorManager, DescribesTheInstalledGyroscope) {
    host::GyroSetup setup = replaySetup(1, Pacing::RealTime, 8);
    setup.name = "Test Gyro";
    setup.minDelayUs = 5000;
    ASensorManager* manager = ASensorManager_getInstance();
    ASSERT_TRUE(host::removeGyro());
    EXPECT_EQ(ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE), nullptr);
    ASSERT_TRUE(host::installGyro(setup));
    const ASensor* gyro = ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE);
    ASSERT_NE(gyro, nullptr);
    EXPECT_STREQ(ASensor_getName(gyro), "Test Gyro");
    EXPECT_EQ(ASensor_getMinDelay(gyro), 5000);
    EXPECT_THROW(host::installGyro(host::GyroSetup{}), std::invalid_argument);
    host::GyroSetup bad = replaySetup(1, Pacing::RealTime, 0);
    EXPECT_THROW(host::installGyro(bad), std::invalid_argument);
}

TEST(SensorQueue, EnableRateAndDisableSemantics) {
    host::GyroSetup setup = replaySetup(1000, Pacing::AsFastAsConsumed, 4);
    setup.gate = [](int64_t) { return false; };  // nothing flows: only the bookkeeping counts
    ASSERT_TRUE(host::installGyro(setup));
    Queue q;
    ASSERT_NE(q.queue, nullptr);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 5000), -EINVAL);  // not enabled
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 1000), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 2500000);  // raised to the minimum delay
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, 20000), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 20000000);
    EXPECT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, -1), -EINVAL);

    ASSERT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
    EXPECT_EQ(host::sensorCounters().periodNs, 0);
}

// 2000 samples through a queue of 4: back-pressure keeps every one, in order.
TEST(SensorQueue, ReplayArrivesInOrderThroughTheLooperThenWakesIt) {
    constexpr size_t kSamples = 2000;
    ASSERT_TRUE(host::installGyro(replaySetup(kSamples, Pacing::AsFastAsConsumed, 4)));
    Queue q;
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    ASSERT_EQ(ASensorEventQueue_setEventRate(q.queue, q.sensor, ASensor_getMinDelay(q.sensor)), 0);
    std::vector<ASensorEvent> events = q.read(kSamples);
    ASSERT_EQ(events.size(), kSamples);
    const auto expected = sensortest::samples(kSamples);
    for (size_t i = 0; i < events.size(); ++i) {
        const ASensorEvent& e = events[i];
        ASSERT_EQ(e.timestamp, expected[i].timestampNs) << i;
        EXPECT_EQ(e.data[0], expected[i].x);
        EXPECT_EQ(e.data[1], expected[i].y);
        EXPECT_EQ(e.data[2], 0.5f);
        EXPECT_EQ(e.type, ASENSOR_TYPE_GYROSCOPE);
    }
    // The source has ended: the next poll is woken instead of waiting out its 10 s time-out.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ALooper_pollAll(10000, nullptr, nullptr, nullptr), ALOOPER_POLL_WAKE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(host::sensorCounters().eventsDropped, 0u);
    EXPECT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
}

TEST(SensorQueue, GetEventsReadsBatchesUpToTheQueueCapacity) {
    ASSERT_TRUE(host::installGyro(replaySetup(20, Pacing::AsFastAsConsumed, 8)));
    Queue q;
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (host::sensorCounters().eventsQueued < 8 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(ASensorEventQueue_hasEvents(q.queue), 1);
    ASensorEvent batch[32];
    ASSERT_EQ(ASensorEventQueue_getEvents(q.queue, batch, 32), 8);  // the queue holds 8
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(batch[i].data[0], static_cast<float>(i));
    size_t total = 8;
    while (total < 20 && std::chrono::steady_clock::now() < deadline) {
        ssize_t n = ASensorEventQueue_getEvents(q.queue, batch, 32);
        ASSERT_GE(n, 0);
        for (ssize_t i = 0; i < n; ++i)
            EXPECT_EQ(batch[i].data[0], static_cast<float>(total + i));
        total += static_cast<size_t>(n);
    }
    EXPECT_EQ(total, 20u);
    EXPECT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
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

TEST(SensorQueue, ReplayResumesWithoutLossAfterADisable) {
    ASSERT_TRUE(host::installGyro(replaySetup(100, Pacing::AsFastAsConsumed, 10)));
    std::vector<ASensorEvent> events;
    {
        Queue q;
        ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
        events = q.read(25);
        ASSERT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
    }
    const uint64_t queuedBefore = host::sensorCounters().eventsQueued;
    Queue q;  // a new queue, as a restarted sensor thread makes
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    std::vector<ASensorEvent> rest = q.read(100);
    ASSERT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0);
    // Samples queued to the first queue but never read went with it; the one taken from the
    // source when the first queue stopped comes first on the second.
    ASSERT_FALSE(rest.empty());
    EXPECT_EQ(static_cast<uint64_t>(rest.front().data[0]), queuedBefore);
    EXPECT_EQ(static_cast<uint64_t>(rest.back().data[0]), 99u);
    EXPECT_EQ(rest.size(), 100u - queuedBefore);
    EXPECT_EQ(events.size(), 25u);
}

TEST(SensorQueue, GateHoldsSamplesBack) {
    host::GyroSetup setup = replaySetup(100, Pacing::AsFastAsConsumed, 64);
    std::atomic<int64_t> limitNs{1000000000 + 9 * 1000000};  // the first 10 samples
    setup.gate = [&](int64_t timestampNs) { return timestampNs <= limitNs.load(); };
    ASSERT_TRUE(host::installGyro(setup));
    Queue q;
    ASSERT_EQ(ASensorEventQueue_enableSensor(q.queue, q.sensor), 0);
    std::vector<ASensorEvent> events = q.read(10);
    ASSERT_EQ(events.size(), 10u);
    EXPECT_EQ(q.read(1, 50).size(), 0u);  // the 11th waits at the gate
    EXPECT_EQ(q.lastPoll, ALOOPER_POLL_TIMEOUT);
    limitNs = 1000000000 + 19 * 1000000;
    events = q.read(10);
    ASSERT_EQ(events.size(), 10u);
    EXPECT_EQ(events.front().data[0], 10.0f);
    EXPECT_EQ(events.back().data[0], 19.0f);
    EXPECT_TRUE(finishesWithin(
        5s, [&] { EXPECT_EQ(ASensorEventQueue_disableSensor(q.queue, q.sensor), 0); }));
}

TEST(SensorQueue, DisableAndDestroyReturnWhileTheServiceWaitsForRoom) {
    ASSERT_TRUE(host::installGyro(replaySetup(1000, Pacing::AsFastAsConsumed, 2)));
    auto q = std::make_unique<Queue>();
    ASSERT_EQ(ASensorEventQueue_enableSensor(q->queue, q->sensor), 0);
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (host::sensorCounters().samplesRead < 3 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(host::sensorCounters().eventsQueued, 2u);   // full, and one more waiting
    EXPECT_TRUE(finishesWithin(5s, [&] { q.reset(); }));  // destroys with the sensor enabled
    EXPECT_EQ(host::sensorCounters().enabledQueues, 0);
}

TEST(SensorQueue, WakeEndsABlockedPoll) {
    host::GyroSetup setup = replaySetup(10, Pacing::AsFastAsConsumed, 4);
    setup.gate = [](int64_t) { return false; };
    ASSERT_TRUE(host::installGyro(setup));
    std::promise<ALooper*> looperReady;
    std::atomic<int> result{0};
    std::atomic<int> enabled{-1};
    std::thread poller([&] {
        Queue q;
        enabled = ASensorEventQueue_enableSensor(q.queue, q.sensor);
        looperReady.set_value(q.looper);
        result = ALooper_pollAll(30000, nullptr, nullptr, nullptr);
        ASensorEventQueue_disableSensor(q.queue, q.sensor);
    });
    ALooper* looper = looperReady.get_future().get();
    std::this_thread::sleep_for(20ms);
    ALooper_wake(looper);
    EXPECT_TRUE(finishesWithin(5s, [&] { poller.join(); }));
    EXPECT_EQ(enabled.load(), 0);
    EXPECT_EQ(result.load(), ALOOPER_POLL_WAKE);
}

TEST(ReplayClock, MapsRecordingTimeOntoHostClocks) {
    host::ReplayClock clock(4328040426246000000);
    EXPECT_FALSE(clock.started());
    timespec before{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    const int64_t origin = clock.toHost(4328040426246000000, CLOCK_MONOTONIC);
    EXPECT_TRUE(clock.started());
    const int64_t beforeNs = before.tv_sec * 1000000000LL + before.tv_nsec;
    EXPECT_GE(origin, beforeNs);
    EXPECT_LT(origin - beforeNs, 1000000000);
    EXPECT_EQ(clock.toHost(4328040426246000000 + 33312000, CLOCK_MONOTONIC), origin + 33312000);
    EXPECT_EQ(clock.toHost(4328040426246000000 - 5, CLOCK_MONOTONIC), origin - 5);
    // Boot time runs ahead of monotonic time by the time spent suspended, never behind.
    EXPECT_GE(clock.toHost(4328040426246000000, CLOCK_BOOTTIME), origin);
    EXPECT_THROW(clock.toHost(0, CLOCK_PROCESS_CPUTIME_ID), std::invalid_argument);
}
