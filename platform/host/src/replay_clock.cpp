// Anchoring of recorded timestamps onto the host's clocks.
#include "host/ReplayClock.h"

#include <stdexcept>
#include <string>

namespace host {
namespace {

int64_t readClockNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

ReplayClock::ReplayClock(int64_t recordingOriginNs) : mOriginNs(recordingOriginNs) {}

void ReplayClock::start() {
    std::call_once(mOnce, [this] {
        mMonotonicAnchorNs = readClockNs(CLOCK_MONOTONIC);
        mBoottimeAnchorNs = readClockNs(CLOCK_BOOTTIME);
        mRealtimeAnchorNs = readClockNs(CLOCK_REALTIME);
        mStarted.store(true, std::memory_order_release);
    });
}

int64_t ReplayClock::toHost(int64_t recordingNs, clockid_t clock) {
    start();
    int64_t anchor = 0;
    switch (clock) {
        case CLOCK_MONOTONIC:
            anchor = mMonotonicAnchorNs;
            break;
        case CLOCK_BOOTTIME:
            anchor = mBoottimeAnchorNs;
            break;
        case CLOCK_REALTIME:
            anchor = mRealtimeAnchorNs;
            break;
        default:
            throw std::invalid_argument(
                "ReplayClock maps onto CLOCK_MONOTONIC, CLOCK_BOOTTIME or "
                "CLOCK_REALTIME, not clock id " +
                std::to_string(clock));
    }
    return anchor + (recordingNs - mOriginNs);
}

}  // namespace host
