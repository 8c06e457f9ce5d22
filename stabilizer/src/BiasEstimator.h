// Gyro offset ("bias") estimation from stretches in which the camera is at rest. A gyro's small
// constant offset is harmless to the smoothing (it looks like a slow pan, which the virtual
// camera follows) but makes the rolling-shutter correction skew frames of a still camera. The
// engine's gyro thread feeds it through Stabilizer; no lock of its own, no allocation.
#ifndef ZEF_VSTAB_BIAS_ESTIMATOR_H
#define ZEF_VSTAB_BIAS_ESTIMATOR_H

#include <cstdint>

#include "Quat.h"

namespace vstab {

class BiasEstimator {
  public:
    // Samples are judged in blocks of this length.
    static constexpr int64_t kBlockNs = 500000000;
    static constexpr int kMinSamples = 20;
    // A block is at rest when every axis varies by less than this (standard deviation, rad/s):
    // sensor noise passes, a hand-held camera does not.
    static constexpr double kStillStdRadPerS = 0.01;
    // Offsets larger than this (rad/s, per axis) are taken for a slow deliberate turn.
    static constexpr double kMaxBiasRadPerS = 0.02;

    // One accepted sample: time in ns (ascending), raw rate in rad/s, camera axes.
    void add(int64_t tNs, const Vec3& rate);
    const Vec3& bias() const { return bias_; }
    bool hasEstimate() const { return estimates_ > 0; }

  private:
    void judgeBlock();

    Vec3 bias_;
    uint32_t estimates_ = 0;
    int64_t blockStartNs_ = 0;
    int count_ = 0;
    Vec3 sum_;
    Vec3 sumSq_;
};

}  // namespace vstab

#endif  // ZEF_VSTAB_BIAS_ESTIMATOR_H
