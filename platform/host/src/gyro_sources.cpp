// Gyroscope sources of the host sensor service: synthetic motion, recorded samples, callbacks.
#include <cmath>
#include <stdexcept>

#include "host/HostSensors.h"

namespace host {

SyntheticGyroSource::SyntheticGyroSource(GyroMotion motion, uint64_t sampleLimit)
    : mMotion(motion), mLimit(sampleLimit) {}

float SyntheticGyroSource::rate(const GyroMotion& motion, int axis, int64_t sinceFirstNs) {
    if (axis < 0 || axis > 2)
        throw std::invalid_argument("gyro axis must be 0, 1 or 2");
    const double t = static_cast<double>(sinceFirstNs) * 1e-9;
    return static_cast<float>(motion.amplitude[axis] *
                              std::sin(2.0 * M_PI * motion.frequencyHz[axis] * t));
}

bool SyntheticGyroSource::next(const GyroTick& tick, GyroSample& sample) {
    if (mLimit != 0 && mCount >= mLimit)
        return false;
    if (mCount == 0)
        mFirstNs = tick.timestampNs;
    ++mCount;
    const int64_t since = tick.timestampNs - mFirstNs;
    sample.timestampNs = tick.timestampNs;
    sample.x = rate(mMotion, 0, since);
    sample.y = rate(mMotion, 1, since);
    sample.z = rate(mMotion, 2, since);
    return true;
}

ReplayGyroSource::ReplayGyroSource(std::vector<GyroSample> samples,
                                   std::shared_ptr<ReplayClock> clock)
    : mSamples(std::move(samples)), mClock(std::move(clock)) {}

bool ReplayGyroSource::next(const GyroTick& tick, GyroSample& sample) {
    (void)tick;
    if (mNext >= mSamples.size())
        return false;
    sample = mSamples[mNext++];
    if (mClock)
        sample.timestampNs = mClock->toHost(sample.timestampNs, CLOCK_BOOTTIME);
    return true;
}

CallbackGyroSource::CallbackGyroSource(NextFn next, bool live)
    : mNext(std::move(next)), mLive(live) {
    if (!mNext)
        throw std::invalid_argument("a callback gyro source needs a function");
}

}  // namespace host
