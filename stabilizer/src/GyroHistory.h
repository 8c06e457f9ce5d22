// Bounded history of the camera's physical orientation, integrated from gyro samples.
// Fed by the engine's gyro thread and read by its processing thread; the engine serialises both
// with one mutex, so the class itself holds no lock. Allocates only in its constructor.
#ifndef ZEF_VSTAB_GYRO_HISTORY_H
#define ZEF_VSTAB_GYRO_HISTORY_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Quat.h"

namespace vstab {

class GyroHistory {
  public:
    enum class AddResult { Accepted, NonFinite, Implausible, OutOfOrder, Duplicate };

    // Samples whose rate exceeds this are treated as sensor garbage (rad/s; phone gyros
    // saturate near 35 rad/s).
    static constexpr double kMaxRateRadPerS = 100.0;
    // Timestamps beyond +-2^61 ns (73 years) are refused so that neither differences of two
    // timestamps nor a timestamp plus an offset can overflow.
    static constexpr int64_t kMaxAbsTimestampNs = int64_t{1} << 61;

    // capacity: samples kept (rounded up to a power of two, at least 2); gapMaxNs: a longer
    // interval between two samples is bridged as no rotation instead of extrapolating the rates
    // across it.
    GyroHistory(size_t capacity, int64_t gapMaxNs);

    // Adds one sample: timestamp in ns, rate in rad/s about the camera axes. Refused samples
    // leave the history unchanged.
    AddResult add(int64_t tNs, const Vec3& rateCamera);

    bool empty() const { return size_ == 0; }
    size_t size() const { return size_; }
    size_t capacity() const { return nodes_.size(); }
    int64_t oldestNs() const { return at(0).tNs; }
    int64_t newestNs() const { return at(size_ - 1).tNs; }
    uint64_t gapsBridged() const { return gaps_; }

    // Orientation (camera to world; world = camera at the first sample) at tNs, which must lie
    // within [oldestNs, newestNs]; outside that span the nearest end is returned and false.
    bool orientationAt(int64_t tNs, Quat& out) const;

    // orientationAt for `count` times in ascending order (one search, then a forward walk).
    void orientationsAt(const int64_t* tNs, size_t count, Quat* out) const;

  private:
    struct Node {
        int64_t tNs;
        Quat q;       // orientation at tNs
        Vec3 rate;    // constant rate over (previous tNs, tNs], rad/s
        Vec3 sample;  // the rate measured at tNs
    };
    const Node& at(size_t i) const { return nodes_[(head_ + i) & mask_]; }
    // Index of the first node with tNs >= t (size_ if none).
    size_t lowerBound(int64_t t) const;

    std::vector<Node> nodes_;  // ring; its size is a power of two
    size_t mask_;
    size_t head_ = 0;
    size_t size_ = 0;
    int64_t gapMaxNs_;
    uint64_t gaps_ = 0;
};

}  // namespace vstab

#endif  // ZEF_VSTAB_GYRO_HISTORY_H
