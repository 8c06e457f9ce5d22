// A gyro thread written as the engine writes it, against the host sensor service: the live
// synthetic gyroscope, the event rate, the clock of the timestamps, and stopping.
#include <time.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "SensorTestSupport.h"

using sensortest::kIdent;
using namespace std::chrono_literals;

namespace {

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// The engine's sensor loop: a looper of its own, one queue with ident 5565, the fastest rate,
// a poll time-out of 1.5 x the minimum delay (in milliseconds, generously), events one at a
// time while `running` holds.
class GyroThread {
  public:
    explicit GyroThread(int32_t rateUs = -1) : mRateUs(rateUs) {
        mThread = std::thread([this] { run(); });
    }
    ~GyroThread() { stop(); }

    void stop() {
        running = false;
        if (mThread.joinable())
            mThread.join();
    }

    std::vector<ASensorEvent> events() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }

    std::atomic<bool> running{true};
    std::atomic<int> failures{0};
    std::atomic<int> lastPoll{0};

  private:
    void run() {
        ASensorManager* manager = ASensorManager_getInstance();
        const ASensor* gyro = ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE);
        if (gyro == nullptr) {
            ++failures;
            return;
        }
        ALooper* looper = ALooper_prepare(ALOOPER_PREPARE_ALLOW_NON_CALLBACKS);
        ALooper_acquire(looper);
        ASensorEventQueue* queue =
            ASensorManager_createEventQueue(manager, looper, kIdent, nullptr, nullptr);
        const int minDelay = ASensor_getMinDelay(gyro);
        if (ASensorEventQueue_enableSensor(queue, gyro) < 0)
            ++failures;
        if (ASensorEventQueue_setEventRate(queue, gyro, mRateUs < 0 ? minDelay : mRateUs) < 0) {
            ++failures;
        }
        const int timeout = static_cast<int>(std::max(minDelay, 10000) * 1.5);
        while (running) {
            const int result = ALooper_pollAll(timeout, nullptr, nullptr, nullptr);
            lastPoll = result;
            if (result < 0)
                break;
            if (result != kIdent)
                continue;
            ASensorEvent event;
            while (running && ASensorEventQueue_getEvents(queue, &event, 1) > 0) {
                std::lock_guard<std::mutex> lock(mMutex);
                mEvents.push_back(event);
            }
        }
        if (ASensorEventQueue_disableSensor(queue, gyro) < 0)
            ++failures;
        if (ASensorManager_destroyEventQueue(manager, queue) < 0)
            ++failures;
        ALooper_release(looper);
    }

    const int32_t mRateUs;
    std::mutex mMutex;
    std::vector<ASensorEvent> mEvents;
    std::thread mThread;
};

void waitForEvents(GyroThread& t, size_t count) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (t.events().size() < count && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(2ms);
    }
}

int64_t medianSpacingNs(const std::vector<ASensorEvent>& events, size_t skip) {
    std::vector<int64_t> gaps;
    for (size_t i = skip + 1; i < events.size(); ++i) {
        gaps.push_back(events[i].timestamp - events[i - 1].timestamp);
    }
    if (gaps.empty())
        return 0;
    std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
    return gaps[gaps.size() / 2];
}

}  // namespace

TEST(GyroThread, LiveGyroscopeIsStampedOnBoottimeAtTheRequestedRate) {
    host::GyroSetup setup;
    host::GyroMotion motion;
    setup.source = std::make_shared<host::SyntheticGyroSource>(motion);
    ASSERT_TRUE(host::installGyro(setup));
    const int64_t before = nowNs(CLOCK_BOOTTIME);
    GyroThread thread(5000);
    waitForEvents(thread, 40);
    thread.stop();
    const int64_t after = nowNs(CLOCK_BOOTTIME);
    EXPECT_EQ(thread.failures.load(), 0);
    std::vector<ASensorEvent> events = thread.events();
    ASSERT_GE(events.size(), 40u);
    EXPECT_GE(events.front().timestamp, before);
    EXPECT_LE(events.back().timestamp, after);
    for (size_t i = 1; i < events.size(); ++i) {
        ASSERT_GE(events[i].timestamp, events[i - 1].timestamp);
        const int64_t since = events[i].timestamp - events[0].timestamp;
        EXPECT_FLOAT_EQ(events[i].data[0], host::SyntheticGyroSource::rate(motion, 0, since));
        EXPECT_FLOAT_EQ(events[i].data[2], host::SyntheticGyroSource::rate(motion, 2, since));
    }
    // Sampled every 5 ms, not at the 200 ms that enabling alone asks for (the first gap may
    // still be the old rate's). Loose bounds: the host is shared.
    const int64_t median = medianSpacingNs(events, 1);
    EXPECT_GE(median, 4000000);
    EXPECT_LE(median, 20000000);
    EXPECT_EQ(host::sensorCounters().enabledQueues, 0);
}

TEST(GyroThread, EndOfAReplayEndsTheLoopWithoutWaitingOutTheTimeout) {
    host::GyroSetup setup;
    setup.source = std::make_shared<host::ReplayGyroSource>(sensortest::samples(30));
    setup.pacing = host::Pacing::AsFastAsConsumed;
    setup.minDelayUs = 2000000;  // a 3000 ms poll time-out
    ASSERT_TRUE(host::installGyro(setup));
    GyroThread thread;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (thread.lastPoll.load() >= 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_EQ(thread.lastPoll.load(), ALOOPER_POLL_WAKE);
    EXPECT_EQ(thread.events().size(), 30u);
    EXPECT_TRUE(finishesWithin(1s, [&] { thread.stop(); }));
    EXPECT_EQ(thread.failures.load(), 0);
}

TEST(GyroThread, NoGyroscopeLeavesTheThreadWithoutASensor) {
    ASSERT_TRUE(host::removeGyro());
    GyroThread thread;
    thread.stop();
    EXPECT_EQ(thread.failures.load(), 1);  // the engine falls back to its zero stream here
    EXPECT_TRUE(thread.events().empty());
}
