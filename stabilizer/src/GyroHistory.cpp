#include "GyroHistory.h"

namespace vstab {

namespace {
size_t roundUpPow2(size_t n) {
    size_t p = 2;
    while (p < n) {
        p <<= 1;
    }
    return p;
}
}  // namespace

GyroHistory::GyroHistory(size_t capacity, int64_t gapMaxNs)
    : nodes_(roundUpPow2(capacity)), mask_(nodes_.size() - 1), gapMaxNs_(gapMaxNs) {}

GyroHistory::AddResult GyroHistory::add(int64_t tNs, const Vec3& rate) {
    if (!isFinite(rate)) {
        return AddResult::NonFinite;
    }
    if (tNs > kMaxAbsTimestampNs || tNs < -kMaxAbsTimestampNs || norm(rate) > kMaxRateRadPerS) {
        return AddResult::Implausible;
    }
    Node n;
    n.tNs = tNs;
    n.sample = rate;
    if (size_ == 0) {
        n.rate = rate;
        n.q = Quat{};
    } else {
        const Node& last = at(size_ - 1);
        if (tNs < last.tNs) {
            return AddResult::OutOfOrder;
        }
        if (tNs == last.tNs) {
            return AddResult::Duplicate;
        }
        const int64_t dtNs = tNs - last.tNs;
        if (dtNs > gapMaxNs_) {
            // Nothing is known about the motion inside a long gap; holding the orientation is
            // the least harmful guess and keeps the path continuous.
            n.rate = Vec3{};
            ++gaps_;
        } else {
            n.rate = (last.sample + rate) * 0.5;
        }
        n.q = normalized(last.q * expMap(n.rate * (static_cast<double>(dtNs) * 1e-9)));
    }
    if (size_ < nodes_.size()) {
        nodes_[(head_ + size_) & mask_] = n;
        ++size_;
    } else {
        nodes_[head_] = n;
        head_ = (head_ + 1) & mask_;
    }
    return AddResult::Accepted;
}

size_t GyroHistory::lowerBound(int64_t t) const {
    size_t lo = 0;
    size_t hi = size_;
    while (lo < hi) {
        const size_t mid = lo + (hi - lo) / 2;
        if (at(mid).tNs < t) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return lo;
}

bool GyroHistory::orientationAt(int64_t tNs, Quat& out) const {
    if (size_ == 0) {
        out = Quat{};
        return false;
    }
    if (tNs <= at(0).tNs) {
        out = at(0).q;
        return tNs == at(0).tNs;
    }
    if (tNs >= at(size_ - 1).tNs) {
        out = at(size_ - 1).q;
        return tNs == at(size_ - 1).tNs;
    }
    const size_t j = lowerBound(tNs);
    const Node& b = at(j);
    if (b.tNs == tNs) {
        out = b.q;
        return true;
    }
    const Node& a = at(j - 1);
    out = normalized(a.q * expMap(b.rate * (static_cast<double>(tNs - a.tNs) * 1e-9)));
    return true;
}

void GyroHistory::orientationsAt(const int64_t* tNs, size_t count, Quat* out) const {
    if (count == 0) {
        return;
    }
    size_t j = 0;  // first node with time >= the current query
    for (size_t k = 0; k < count; ++k) {
        const int64_t t = tNs[k];
        if (size_ == 0 || t <= at(0).tNs || t >= at(size_ - 1).tNs) {
            orientationAt(t, out[k]);
            continue;
        }
        if (j == 0 || at(j - 1).tNs >= t) {
            j = lowerBound(t);
        }
        while (at(j).tNs < t) {
            ++j;
        }
        const Node& b = at(j);
        if (b.tNs == t) {
            out[k] = b.q;
            continue;
        }
        const Node& a = at(j - 1);
        out[k] = normalized(a.q * expMap(b.rate * (static_cast<double>(t - a.tNs) * 1e-9)));
    }
}

}  // namespace vstab
