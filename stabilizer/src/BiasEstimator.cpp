#include "BiasEstimator.h"

#include <cmath>

namespace vstab {

void BiasEstimator::add(int64_t tNs, const Vec3& rate) {
    if (count_ > 0 && tNs - blockStartNs_ >= kBlockNs) {
        judgeBlock();
        count_ = 0;
    }
    if (count_ == 0) {
        blockStartNs_ = tNs;
        sum_ = Vec3{};
        sumSq_ = Vec3{};
    }
    ++count_;
    sum_ = sum_ + rate;
    sumSq_ = sumSq_ + Vec3{rate.x * rate.x, rate.y * rate.y, rate.z * rate.z};
}

void BiasEstimator::judgeBlock() {
    if (count_ < kMinSamples) {
        return;
    }
    const double n = count_;
    const Vec3 mean = sum_ * (1.0 / n);
    const double m[3] = {mean.x, mean.y, mean.z};
    const double sq[3] = {sumSq_.x, sumSq_.y, sumSq_.z};
    for (int i = 0; i < 3; ++i) {
        const double variance = sq[i] / n - m[i] * m[i];
        if (!(variance < kStillStdRadPerS * kStillStdRadPerS) ||
            !(std::fabs(m[i]) <= kMaxBiasRadPerS)) {
            return;
        }
    }
    // Consecutive still blocks refine the estimate; the first one sets it.
    bias_ = estimates_ == 0 ? mean : bias_ + (mean - bias_) * 0.5;
    ++estimates_;
}

}  // namespace vstab
