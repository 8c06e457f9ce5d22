#include "FSync.h"

#include <android/log.h>

#include <cstdint>

namespace {
constexpr const char* kLogTag = "NAT";
constexpr size_t kRingSlots = 128;
constexpr unsigned long long kFarAwayNs = 10000000;  // 10 ms
}  // namespace

#define FSYNC_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kLogTag, __VA_ARGS__)

const char* const FSync::TAG = "VSTAB][FSync";
const float FSync::mAverageAlpha = 0.05f;

FSync::FSync() : mSamples(kRingSlots, 0) {}

FSync::~FSync() = default;

void FSync::step(size_t& pos) const {
    ++pos;
    if (pos == mSamples.size())
        pos = 0;
}

void FSync::setExpectedDelta(const int& deltaNs) {
    mExpectedDelta = deltaNs;
}

int FSync::getExpectedDelta() {
    return mExpectedDelta + mAverageError;
}

void FSync::addSample(const unsigned long long& timestampNs) {
    // The delta is sign-extended; a negative delta moves the sample later.
    unsigned long long sample =
        timestampNs - static_cast<unsigned long long>(static_cast<int64_t>(mExpectedDelta));
    if (!empty()) {
        unsigned long long ahead = mSamples[mWritePos];  // the slot about to be overwritten
        if (sample < ahead) {
            FSYNC_LOGE("[%s][Error] Trying to add sample before last timestamp (%llu < %llu)", TAG,
                       sample, ahead);
            return;
        }
        if (sample == ahead) {
            FSYNC_LOGE("[%s][Error] Trying to add same sample twice (%llu)", TAG, sample);
            return;
        }
    }
    mSamples[mWritePos] = sample;
    step(mWritePos);
    if (mWritePos == mReadPos) {
        FSYNC_LOGE("[%s][Error] Buffer full dropping sample: %llu", TAG, mSamples[mReadPos]);
        step(mReadPos);
    }
}

void FSync::removeSamples(const unsigned long long& timestampNs) {
    // The slot at the read position is examined before the empty test on purpose.
    while (mSamples[mReadPos] < timestampNs) {
        step(mReadPos);
        if (mReadPos == mWritePos)
            break;
    }
}

unsigned long long FSync::findClosest(const unsigned long long& timestampNs) {
    if (empty())
        return timestampNs;
    if (timestampNs == 0) {
        FSYNC_LOGE("[%s][Error] Searching for invalid timestamp == 0", TAG);
        return 0;
    }

    unsigned long long closest = mSamples[mReadPos];
    unsigned long long bestDistance = ~0ull;
    for (size_t pos = mReadPos; pos != mWritePos; step(pos)) {
        unsigned long long sample = mSamples[pos];
        unsigned long long distance =
            sample > timestampNs ? sample - timestampNs : timestampNs - sample;
        if (distance < bestDistance) {  // strictly nearer: the first of a tie wins
            bestDistance = distance;
            closest = sample;
        }
    }
    if (bestDistance > kFarAwayNs) {
        FSYNC_LOGE("[%s][Error] Closest FSync timestamp found is more than 10ms away.", TAG);
    }

    // Error of this query, narrowed to 32 bits, folded into the average in single precision.
    int32_t error = static_cast<int32_t>(closest - timestampNs);
    if (mAverageError == 0) {
        mAverageError = error;
    } else {
        float blended = static_cast<float>(error) * mAverageAlpha +
                        static_cast<float>(mAverageError) * (1.0f - mAverageAlpha);
        // A blend of two 32-bit values; only float rounding could push it past the int range.
        if (blended >= 2147483648.0f) {
            mAverageError = INT32_MAX;
        } else if (blended < -2147483648.0f) {
            mAverageError = INT32_MIN;
        } else {
            mAverageError = static_cast<int32_t>(blended);  // truncates toward zero
        }
    }

    if (timestampNs != mPrevQuery) {
        mPrevQuery = timestampNs;
        if (mPrevClosest >= closest) {
            FSYNC_LOGE("[%s][Error] Closest FSync timestamp found is not monotonically increasing",
                       TAG);
        }
        mPrevClosest = closest;
    }

    removeSamples(closest);
    return closest;
}
