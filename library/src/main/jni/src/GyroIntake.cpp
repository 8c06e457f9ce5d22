// Gyro intake and clock alignment. gyroCallbackTimestamp runs on the gyro sensor thread; the
// clock helpers are pure functions usable from any thread.
#include <ctime>
#include <cstdlib>

#include "Context.h"
#include "Log.h"
#include "cTTiming.h"

namespace {

// Budget of one clock-offset measurement; a preempted measurement is retried.
constexpr long long kDeltaBudgetNs = 100000;
// A gyro timestamp this far ahead of the monotonic clock is reported (debug only).
constexpr long long kGyroAheadLimitNs = 200000001;
// findClosestClock gives up beyond this distance.
constexpr long long kClosestClockLimitNs = 500000000;

bool readClockNs(int clock, long long* ns) {
    timespec ts{};
    if (clock_gettime(static_cast<clockid_t>(clock), &ts) != 0)
        return false;
    *ns = static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
    return true;
}

}  // namespace

bool getDeltaTime(int clockA, int clockB, long long* delta) {
    if (clockA == -1 || clockB == -1) {
        QLOGW("[Warning] getDeltaTime requested for invalid timer index: (%d - %d)", clockA,
              clockB);
        *delta = 0;
        return true;
    }
    long long t0 = 0;
    if (!readClockNs(clockB, &t0))
        return false;
    long long a1 = 0, b = 0, a2 = 0;
    for (;;) {
        if (!readClockNs(clockA, &a1) || !readClockNs(clockB, &b) || !readClockNs(clockA, &a2)) {
            return false;
        }
        if (b - t0 > kDeltaBudgetNs)
            return false;
        if (a2 - a1 <= kDeltaBudgetNs)
            break;
    }
    *delta = (a1 + a2) / 2 - b;
    return true;
}

const char* getClockName(int id) {
    static const char* const kNames[] = {"CLOCK_REALTIME",           "CLOCK_MONOTONIC",
                                         "CLOCK_PROCESS_CPUTIME_ID", "CLOCK_THREAD_CPUTIME_ID",
                                         "CLOCK_MONOTONIC_RAW",      "CLOCK_REALTIME_COARSE",
                                         "CLOCK_MONOTONIC_COARSE",   "CLOCK_BOOTTIME",
                                         "CLOCK_REALTIME_ALARM",     "CLOCK_BOOTTIME_ALARM"};
    if (id < 0 || id > 9)
        return "Unknown";
    return kNames[id];
}

int findClosestClock(long long timestamp) {
    const int ids[3] = {CLOCK_REALTIME, CLOCK_MONOTONIC, CLOCK_BOOTTIME};
    long long values[3] = {};
    long long diffs[3] = {};
    for (int k = 0; k < 3; ++k) {
        readClockNs(ids[k], &values[k]);
        diffs[k] = std::llabs(timestamp - values[k]);
    }
    int best = 0;
    for (int k = 1; k < 3; ++k) {
        if (diffs[k] < diffs[best])
            best = k;
    }
    auto logTable = [&]() {
        QLOGW("[Warning] (clock_id) clock_name: |clock - timestamp| = diff ns (diff ms)");
        for (int k = 0; k < 3; ++k) {
            QLOGW("[Warning] (%d) %s: |%lld - %lld| = %lld ns (%d ms)", ids[k],
                  getClockName(ids[k]), values[k], timestamp, diffs[k],
                  static_cast<int>(diffs[k] / 1000000));
        }
    };
    if (diffs[best] <= kClosestClockLimitNs) {
        logTable();
        return ids[best];
    }
    QLOGW("[Warning] Autodetected timer is too far away from sample: %lld ms",
          diffs[best] / 1000000);
    logTable();
    return -1;
}

void Context::gyroCallbackTimestamp(long long timestamp, float* xyz, float* /*next*/) {
    cTTiming timing("gyroCallbackTimestamp()");
    if (eis_debug)
        QLOGW("Gyro callback: %lld", timestamp);
    if (timestamp == 0) {
        QLOGW("[Warning] Received invalid gyro sample timestamp (ignoring sample)");
        return;
    }
    const float rates[3] = {xyz[0], xyz[1], xyz[2]};
    vstabMutex.lock();
    timing("vstabMutex");

    if (clockIdFrame == -1 || clockIdGyro == -1) {
        QLOGW(
            "[Error] gyro or frames TIMER is NOT SET! Run Verification mode, observe the "
            "autodetected timers in the log and set them in config");
        vstabMutex.unlock();
        timing("addAngularVelocity");
        return;
    }

    long long delta = 0;
    while (!getDeltaTime(clockIdFrame, clockIdGyro, &delta)) {
    }
    timing("deltaTime");
    timestamp += delta;

    long long gyroNow = 0;
    if (!readClockNs(clockIdGyro, &gyroNow)) {
        QLOGW("[Error] Could not query clockIdGyro timer");
    } else if (eis_debug) {
        long long monotonicNs = 0;
        readClockNs(CLOCK_MONOTONIC, &monotonicNs);
        monotonicNs = monotonicNs / 1000 * 1000;
        if (timestamp - monotonicNs >= kGyroAheadLimitNs) {
            QLOGW("[Warning] Gyro and system clock deviate with more than 200ms, ");
        }
    }

    if (eis_debug) {
        QLOGW("[VStab] Gyro: %lld ( %f %f %f )", timestamp, static_cast<double>(rates[0]),
              static_cast<double>(rates[1]), static_cast<double>(rates[2]));
    }

    if (vStabAddAngularVelocity(vstabHandle, timestamp, rates) != 0) {
        QLOGW("[Error] Could not add gyro to VStab ... aborting");
        vstabMutex.unlock();
        throw std::runtime_error("[Error] Could not add gyro to VStab ... aborting");
    }
    vstabMutex.unlock();
    timing("addAngularVelocity");
}
