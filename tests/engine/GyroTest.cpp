// Gyro intake and the clock helpers: the frame clock, ordering, stand-by stream and refusals.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "EngineHarness.h"
#include "EngineTestSupport.h"

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

// Gyro samples replayed from CLOCK_BOOTTIME now; the newest one seen outlives the test: wait past.
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
    // BOOTTIME only runs ahead of MONOTONIC: 600 ms from both, far from the wall clock.
    LogCapture log;
    EXPECT_EQ(findClosestClock(clockNs(CLOCK_MONOTONIC) - 600 * kMs), -1);
    EXPECT_EQ(log.countContaining("Autodetected timer is too far away from sample: 6"), 1);
}

// Samples reach the library in the frame clock; one older than the newest so far is dropped.
TEST(EngineGyro, SensorSamplesReachTheLibraryInTheFrameClock) {
    struct Case {
        std::vector<int64_t> recordedMs;  // empty: 50 samples 2 ms apart
        int frameClock;
        int gyroClock;
        int minDelayUs;
        int timeout;  // as the sensor thread logs it
        int64_t toleranceNs;
    };
    const Case cases[] = {
        {{}, CLOCK_BOOTTIME, CLOCK_MONOTONIC, 2500, 15000, kMs},
        {{}, CLOCK_REALTIME, CLOCK_MONOTONIC, 20000, 30000, kMs},
        {{}, CLOCK_BOOTTIME, CLOCK_BOOTTIME, 5000, 15000, 100000},
        {{0, 5, 10, 15, 12, 20, 20, 18, 25}, CLOCK_BOOTTIME, CLOCK_BOOTTIME, 2500, 15000, 100000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "frame clock " << c.frameClock << ", gyro clock "
                                        << c.gyroClock << ", " << c.recordedMs.size());
        std::vector<host::GyroSample> samples;
        std::vector<size_t> kept;
        int64_t newest = 0;
        for (size_t k = 0; k < (c.recordedMs.empty() ? 50 : c.recordedMs.size()); ++k) {
            const int64_t ms = c.recordedMs.empty() ? 2 * static_cast<int64_t>(k) : c.recordedMs[k];
            if (ms >= newest) {
                kept.push_back(k);
                newest = ms;
            }
            samples.push_back({1000000000LL + ms * kMs, 0.01f * k, -0.02f * k, 0.5f});
        }
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

        std::vector<int64_t> received = snapshot(vstabDouble().gyroTimestamps);
        std::vector<std::array<float, 3>> rates = snapshot(vstabDouble().gyroRates);
        ASSERT_EQ(received.size(), kept.size());
        for (size_t i = 0; i < kept.size(); ++i) {
            const size_t k = kept[i];
            EXPECT_LT(std::llabs(received[i] - (replay.hostNs[k] + offset)), c.toleranceNs) << i;
            EXPECT_EQ(rates[i], (std::array<float, 3>{samples[k].x, samples[k].y, samples[k].z}));
        }
        EXPECT_EQ(log.count("SensorManager timeout = " + std::to_string(c.timeout) + " us", kWarn),
                  1);
        EXPECT_EQ(log.countContaining("gyro timestamp go past"),
                  static_cast<int>(samples.size() - kept.size()));
        replay.waitPastSamples();
    }
}

// Without a gyroscope zero rates arrive every 4 ms; with the gyro clock unset each is lost.
TEST(EngineGyro, WithoutAGyroscopeZeroRatesArriveEveryFourMilliseconds) {
    for (int gyroClock : {CLOCK_BOOTTIME, -1}) {
        ScopedGyro none(nullptr);
        EngineHarness h;
        vstabDouble().clockIdGyro = gyroClock;
        h.makeCamera(idleCamera());
        LogCapture log;
        const int64_t began = clockNs(CLOCK_BOOTTIME);
        h.start();
        EXPECT_TRUE(waitFor(
            [&] {
                return gyroClock == -1 ? log.count(kTimerNotSet, kWarn) >= 10
                                       : vstabDouble().addCalls.load() >= 40;
            },
            10s));
        h.stop();
        const int64_t ended = clockNs(CLOCK_BOOTTIME);
        EXPECT_EQ(log.count("Gyro Sensor Not Available", kWarn), 1);
        std::vector<int64_t> received = snapshot(vstabDouble().gyroTimestamps);
        std::vector<std::array<float, 3>> rates = snapshot(vstabDouble().gyroRates);
        EXPECT_EQ(received.empty(), gyroClock == -1) << received.size();
        for (size_t k = 0; k < received.size(); ++k) {
            // Stamped on CLOCK_BOOTTIME, the frame clock too: the offset added is about zero.
            EXPECT_GE(received[k], began - 100000);
            EXPECT_LE(received[k], ended + 100000);
            EXPECT_GE(k == 0 ? 3900000 : received[k] - received[k - 1], 3900000) << k;
            EXPECT_EQ(rates[k], (std::array<float, 3>{0.0f, 0.0f, 0.0f}));
        }
    }
}

// Unset clock ids and a zero timestamp are logged and dropped; a refused sample is fatal.
TEST(EngineGyro, UnsetClockIdsLoseEverySampleWithTheErrorLine) {
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
