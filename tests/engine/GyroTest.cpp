// Gyro intake and the clock helpers: samples reach the library in the frame clock, the sensor
// thread's ordering and stand-by stream, and the refusals with their log lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

constexpr int64_t kMs = 1000000;
const char kTimerNotSet[] =
    "[Error] gyro or frames TIMER is NOT SET! Run Verification mode, observe the autodetected "
    "timers in the log and set them in config";

// `a` minus `b` now, from two back-to-back clock reads (error well below a microsecond).
int64_t clockDelta(clockid_t a, clockid_t b) {
    const int64_t before = clockNs(b);
    const int64_t value = clockNs(a);
    const int64_t after = clockNs(b);
    return value - (before + (after - before) / 2);
}

// Gyro samples replayed from CLOCK_BOOTTIME now. The sensor thread's newest timestamp lives as
// long as the process, so a replaying test ends only once the clock has passed its samples.
struct Replay {
    std::shared_ptr<host::ReplayClock> clock;
    std::shared_ptr<host::ReplayGyroSource> source;
    std::vector<int64_t> hostNs;  // each sample's timestamp as the sensor delivers it

    explicit Replay(const std::vector<host::GyroSample>& samples)
        : clock(std::make_shared<host::ReplayClock>(samples.front().timestampNs)) {
        clock->start();
        for (const host::GyroSample& s : samples)
            hostNs.push_back(clock->toHost(s.timestampNs, CLOCK_BOOTTIME));
        source = std::make_shared<host::ReplayGyroSource>(samples, clock);
    }

    void waitPastSamples() const {
        const int64_t newest = *std::max_element(hostNs.begin(), hostNs.end());
        while (clockNs(CLOCK_BOOTTIME) <= newest)
            std::this_thread::sleep_for(1ms);
    }
};

TEST(EngineClocks, ClosestClockIsFoundWithinHalfASecond) {
    EXPECT_EQ(findClosestClock(clockNs(CLOCK_MONOTONIC)), 1);
    EXPECT_EQ(findClosestClock(clockNs(CLOCK_REALTIME) - 200 * kMs), 0);
    // (In the past: BOOTTIME, read after MONOTONIC and never behind it, is farther away.)
    EXPECT_EQ(findClosestClock(clockNs(CLOCK_MONOTONIC) - 400 * kMs), 1);
    // BOOTTIME only runs ahead of MONOTONIC, so this is 600 ms from both and far from the wall
    // clock.
    LogCapture log;
    EXPECT_EQ(findClosestClock(clockNs(CLOCK_MONOTONIC) - 600 * kMs), -1);
    EXPECT_EQ(log.countContaining("Autodetected timer is too far away from sample: 6"), 1);
}

TEST(EngineGyro, SensorSamplesReachTheLibraryInTheFrameClock) {
    struct Case {
        int frameClock;
        int gyroClock;
        int minDelayUs;
        int timeout;  // as the sensor thread logs it
        int64_t toleranceNs;
    };
    // Frame and gyro clock equal: passed unchanged within the measurement error.
    for (Case c : {Case{CLOCK_BOOTTIME, CLOCK_MONOTONIC, 2500, 15000, kMs},
                   Case{CLOCK_REALTIME, CLOCK_MONOTONIC, 20000, 30000, kMs},
                   Case{CLOCK_BOOTTIME, CLOCK_BOOTTIME, 5000, 15000, 100000}}) {
        SCOPED_TRACE(testing::Message()
                     << "frame clock " << c.frameClock << ", gyro clock " << c.gyroClock);
        std::vector<host::GyroSample> samples;
        for (int k = 0; k < 50; ++k)
            samples.push_back({1000000000LL + k * 2 * kMs, 0.01f * k, -0.02f * k, 0.5f});
        Replay replay(samples);
        ScopedGyro gyro(replay.source, c.minDelayUs);
        EngineHarness h;
        vstabDouble().clockIdFrame = c.frameClock;
        vstabDouble().clockIdGyro = c.gyroClock;
        h.makeCamera(idleCamera());
        LogCapture log;
        h.start();
        // The replay ends, the sensor's looper is woken and the sensor thread ends.
        EXPECT_TRUE(waitFor([&] { return log.contains("[JJJ] SensorManager Thread Exit"); }, 10s));
        h.stop();
        const int64_t offset = clockDelta(c.frameClock, c.gyroClock);

        std::vector<int64_t> received = vstabDouble().gyroSnapshot();
        std::vector<std::array<float, 3>> rates = vstabDouble().gyroRateSnapshot();
        ASSERT_EQ(received.size(), samples.size());
        for (size_t k = 0; k < samples.size(); ++k) {
            EXPECT_LT(std::llabs(received[k] - (replay.hostNs[k] + offset)), c.toleranceNs) << k;
            EXPECT_EQ(rates[k][0], samples[k].x);
            EXPECT_EQ(rates[k][1], samples[k].y);
            EXPECT_EQ(rates[k][2], samples[k].z);
        }
        EXPECT_EQ(log.count("SensorManager timeout = " + std::to_string(c.timeout) + " us", kWarn),
                  1);
        replay.waitPastSamples();
    }
}

TEST(EngineGyro, SensorThreadDropsEventsOlderThanTheLastOne) {
    // Recorded ms: a step back after 15, an equal pair at 20, a step back after that.
    const int64_t recordedMs[] = {0, 5, 10, 15, 12, 20, 20, 18, 25};
    const size_t kept[] = {0, 1, 2, 3, 5, 6, 8};
    std::vector<host::GyroSample> samples;
    for (int64_t ms : recordedMs)
        samples.push_back({5000000000LL + ms * kMs, static_cast<float>(ms), 0.0f, 0.0f});
    Replay replay(samples);
    ScopedGyro gyro(replay.source);
    EngineHarness h;
    h.makeCamera(idleCamera());
    LogCapture log;
    h.start();
    EXPECT_TRUE(waitFor([&] { return log.contains("[JJJ] SensorManager Thread Exit"); }, 10s));
    h.stop();

    std::vector<int64_t> received = vstabDouble().gyroSnapshot();
    std::vector<std::array<float, 3>> rates = vstabDouble().gyroRateSnapshot();
    ASSERT_EQ(received.size(), std::size(kept));
    for (size_t i = 0; i < std::size(kept); ++i) {
        EXPECT_LT(std::llabs(received[i] - replay.hostNs[kept[i]]), 100000) << i;
        EXPECT_EQ(rates[i][0], samples[kept[i]].x) << i;
    }
    EXPECT_EQ(log.countContaining("gyro timestamp go past"), 2);
    replay.waitPastSamples();
}

TEST(EngineGyro, WithoutAGyroscopeZeroRatesArriveEveryFourMilliseconds) {
    ScopedGyro none(nullptr);
    EngineHarness h;
    h.makeCamera(idleCamera());
    LogCapture log;
    const int64_t began = clockNs(CLOCK_BOOTTIME);
    h.start();
    EXPECT_TRUE(waitFor([&] { return vstabDouble().addCalls.load() >= 40; }, 10s));
    h.stop();
    const int64_t ended = clockNs(CLOCK_BOOTTIME);

    EXPECT_EQ(log.count("Gyro Sensor Not Available", kWarn), 1);
    std::vector<int64_t> received = vstabDouble().gyroSnapshot();
    std::vector<std::array<float, 3>> rates = vstabDouble().gyroRateSnapshot();
    ASSERT_GE(received.size(), 40u);
    for (size_t k = 0; k < received.size(); ++k) {
        // Stamped on CLOCK_BOOTTIME, the frame clock too: the offset added is about zero.
        EXPECT_GE(received[k], began - 100000);
        EXPECT_LE(received[k], ended + 100000);
        if (k > 0) {
            EXPECT_GE(received[k] - received[k - 1], 3900000) << "samples " << k - 1 << ", " << k;
        }
        EXPECT_EQ(rates[k], (std::array<float, 3>{0.0f, 0.0f, 0.0f}));
    }
}

// Samples the engine loses: unset clock ids (through the stand-by stream, then directly) and a
// zero timestamp are logged and dropped; a library refusing a sample is fatal. The library's
// lock is free after each.
TEST(EngineGyro, UnsetClockIdsLoseEverySampleWithTheErrorLine) {
    {
        ScopedGyro none(nullptr);  // the stand-by stream feeds samples
        EngineHarness h;
        vstabDouble().clockIdGyro = -1;
        h.makeCamera(idleCamera());
        LogCapture log;
        h.start();
        EXPECT_TRUE(waitFor([&] { return log.count(kTimerNotSet, kWarn) >= 10; }, 10s));
        h.stop();
        EXPECT_EQ(vstabDouble().addCalls.load(), 0);
    }
    const char kInvalid[] = "[Warning] Received invalid gyro sample timestamp (ignoring sample)";
    const char kRefused[] = "[Error] Could not add gyro to VStab ... aborting";
    const int64_t now = clockNs(CLOCK_BOOTTIME);
    const struct {
        int frameClock, gyroClock;
        int64_t timestampNs;
        int addStatus;
        const char* line;
        bool thrown;
    } cases[] = {
        {-1, CLOCK_BOOTTIME, now, 0, kTimerNotSet, false},
        {CLOCK_BOOTTIME, -1, now, 0, kTimerNotSet, false},
        {-1, -1, now, 0, kTimerNotSet, false},
        {CLOCK_BOOTTIME, CLOCK_BOOTTIME, 0, 0, kInvalid, false},
        {CLOCK_BOOTTIME, CLOCK_BOOTTIME, now, 4, kRefused, true},
    };
    EngineHarness h;
    float rates[3] = {1.0f, 2.0f, 3.0f};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        h.engine->clockIdFrame = c.frameClock;
        h.engine->clockIdGyro = c.gyroClock;
        vstabDouble().addStatus = c.addStatus;
        LogCapture log;
        EXPECT_EQ(
            thrownMessage([&] { h.engine->gyroCallbackTimestamp(c.timestampNs, rates, nullptr); }),
            c.thrown ? c.line : "<nothing thrown>");
        EXPECT_EQ(log.count(c.line, kWarn), 1);
        EXPECT_EQ(vstabDouble().addCalls.load(), c.thrown ? 1 : 0);
        EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
    }
}

}  // namespace
