#include "ZoomPlanner.h"

namespace vstab {

void ZoomPlanner::start(const double* need, int count, double atLeast) {
    double z = atLeast;
    for (int i = 0; i < count; ++i) {
        z = need[i] > z ? need[i] : z;
    }
    zoom_ = clamp(z);
    rate_ = 0.0;
    heldS_ = 0.0;
}

double ZoomPlanner::next(double dtS, const double* need, const double* tS, int count) {
    if (!(dtS > 0.0)) {
        return zoom_;
    }
    // Rate that reaches every need above the zoom by its node's time, along a straight line
    // from now; the largest need of the look-ahead for the fall back.
    // A rise under way counts half of what its rate still adds, which eases it off as it
    // gets there instead of overshooting by rate x time constant.
    const double coming = zoom_ + (rate_ > 0.0 ? 0.5 * rate_ * kRateTimeConstantS : 0.0);
    double riseRate = 0.0;
    double peak = lowest_;
    bool needNow = false;
    for (int i = 0; i < count; ++i) {
        peak = need[i] > peak ? need[i] : peak;
        if (need[i] > coming || (tS[i] <= 0.0 && need[i] > zoom_)) {
            if (tS[i] > 0.0) {
                const double r = (need[i] - coming) / tS[i];
                riseRate = r > riseRate ? r : riseRate;
            } else {
                needNow = true;
            }
        }
    }
    double wanted = 0.0;
    if (riseRate > 0.0 || needNow) {
        wanted = kRiseLead * riseRate;
        heldS_ = 0.0;
    } else if (peak >= zoom_ - kHoldBand) {
        heldS_ = 0.0;  // a need close to the zoom: hold it
    } else {
        heldS_ += dtS;
        if (heldS_ >= kHoldS && zoom_ > peak) {
            const double fall = (zoom_ - peak) / kFallTimeConstantS;
            wanted = -(fall < kFallMaxPerS ? fall : kFallMaxPerS);
        }
    }
    // The rate follows the wanted one with a first-order lag, the zoom integrates the rate.
    const double a = dtS / (kRateTimeConstantS + dtS);
    rate_ += (wanted - rate_) * a;
    double z = zoom_ + rate_ * dtS;
    // A falling zoom does not pass below the need; the hard floor for a late rise.
    if (rate_ < 0.0 && z < peak) {
        z = zoom_ > peak ? peak : zoom_;
        rate_ = 0.0;
    }
    for (int i = 0; i < count; ++i) {
        const double floor = need[i] - kFloorRisePerS * tS[i];
        if (floor > z) {
            z = floor;
            const double r = (z - zoom_) / dtS;
            rate_ = r > rate_ ? r : rate_;
        }
    }
    const double c = clamp(z);
    if (c != z) {
        rate_ = 0.0;
    }
    zoom_ = c;
    return zoom_;
}

}  // namespace vstab
