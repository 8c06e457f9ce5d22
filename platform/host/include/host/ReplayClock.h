// Moves the timestamps of a recording onto this host's clocks.
//
// A recording's frame and gyro timestamps share the recording device's clock, which means
// nothing on the host. A ReplayClock anchors one recording instant (the origin) to "now" on the
// host, the first time any stream asks, and maps every recording timestamp t to
// now + (t - origin) on the clock asked for. Frame sources map to CLOCK_MONOTONIC (where a
// device camera stamps frames) and gyro sources to CLOCK_BOOTTIME (where a device sensor
// stamps events); one shared ReplayClock keeps the two streams aligned to the nanosecond.
//
// Thread-safe: the anchor is taken once (by whichever thread maps first) and never changes.
#pragma once

#include <stdint.h>
#include <time.h>

#include <atomic>
#include <mutex>

namespace host {

class ReplayClock {
  public:
    // `recordingOriginNs`: the recording timestamp that is to appear as the anchoring "now".
    explicit ReplayClock(int64_t recordingOriginNs);

    ReplayClock(const ReplayClock&) = delete;
    ReplayClock& operator=(const ReplayClock&) = delete;

    // Anchors the origin to the current CLOCK_MONOTONIC and CLOCK_BOOTTIME readings. Only the
    // first call (explicit or through toHost()) has an effect.
    void start();
    bool started() const { return mStarted.load(std::memory_order_acquire); }

    // `recordingNs` on the host clock `clock`: CLOCK_MONOTONIC, CLOCK_BOOTTIME or
    // CLOCK_REALTIME (another clock id throws std::invalid_argument). Anchors first when not
    // yet started.
    int64_t toHost(int64_t recordingNs, clockid_t clock);

    int64_t recordingOriginNs() const { return mOriginNs; }

  private:
    const int64_t mOriginNs;
    std::once_flag mOnce;
    std::atomic<bool> mStarted{false};
    int64_t mMonotonicAnchorNs = 0;  // written once under mOnce, read after mStarted
    int64_t mBoottimeAnchorNs = 0;
    int64_t mRealtimeAnchorNs = 0;
};

}  // namespace host
