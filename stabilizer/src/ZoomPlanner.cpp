#include "ZoomPlanner.h"

namespace vstab {

double ZoomPlanner::asked(const double* need, const double* tS, int count, double from) {
    double z = from;
    for (int i = 0; i < count; ++i) {
        const double n = need[i] - kRisePerS * tS[i];
        z = n > z ? n : z;
    }
    return z;
}

void ZoomPlanner::start(const double* need, const double* tS, int count, double atLeast) {
    zoom_ = clamp(asked(need, tS, count, atLeast));
}

double ZoomPlanner::next(double dtS, const double* need, const double* tS, int count) {
    if (!(dtS > 0.0)) {
        return zoom_;
    }
    zoom_ = clamp(asked(need, tS, count, zoom_ - kFallPerS * dtS));
    return zoom_;
}

}  // namespace vstab
