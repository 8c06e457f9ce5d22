#include "ZoomPlanner.h"

namespace vstab {

double ZoomPlanner::largest(const double* need, int count) {
    double z = 0.0;
    for (int i = 0; i < count; ++i) {
        z = need[i] > z ? need[i] : z;
    }
    return z;
}

void ZoomPlanner::start(const double* need, int count, double atLeast) {
    // A camera at rest needs nothing above the lowest zoom and gets no margin either.
    const double most = largest(need, count);
    const double z = most > lowest_ ? most * (1.0 + kStartMargin) : most;
    zoom_ = clamp(z > atLeast ? z : atLeast);
    speed_ = 0.0;
}

double ZoomPlanner::next(double dtS, const double* need, int count) {
    if (!(dtS > 0.0)) {
        return zoom_;
    }
    const double most = largest(need, count);
    double target = 0.0;
    if (most > zoom_) {
        target = kRisePerS;
    } else if (most < zoom_ * (1.0 - kFallGap)) {
        target = -kFallPerS;
    }
    const double step = kAccelPerS2 * dtS;
    const double change = target - speed_;
    speed_ += change > step ? step : (change < -step ? -step : change);
    zoom_ = clamp(zoom_ + speed_ * dtS);
    if ((zoom_ == highest_ && speed_ > 0.0) || (zoom_ == lowest_ && speed_ < 0.0)) {
        speed_ = 0.0;
    }
    return zoom_;
}

}  // namespace vstab
