// Small numeric helpers over per-frame sequences: smoothing, high-pass RMS, percentiles and
// the stability score of Liu et al. (2013).
#pragma once

#include <cstddef>
#include <vector>

namespace qlmr::replay {

// Gaussian smoothing with standard deviation `sigma` samples, as a Gaussian-weighted local
// quadratic fit, so that steady and slowly turning motion (pans, looking around) passes
// unchanged, ends included, and only faster motion is taken out.
std::vector<double> gaussianSmooth(const std::vector<double>& v, double sigma);

// Root mean square of v - gaussianSmooth(v, sigma): the part of a path that moves faster
// than about 1 / (2 pi sigma) cycles per sample. 0 for fewer than 2 values.
double highPassRms(const std::vector<double>& v, double sigma);

// Root mean square of the per-sample length of the high-passed 2-D path (x, y). With `from`
// > 0 the samples before index `from` are filtered with the rest but left out of the mean
// (the settling time of a stabilizer that starts from the first frame's view).
double highPassRms2(const std::vector<double>& x, const std::vector<double>& y, double sigma,
                    size_t from = 0);

// Stability score of one sequence of frame-to-frame motion values (Liu, Yuan, Tan, Sun:
// "Bundled camera paths for video stabilization", 2013): the energy in the 2nd to 6th lowest
// frequency components of its spectrum (DC excluded, i.e. bins 1..5) divided by the energy of
// all components up to the Nyquist frequency (DC excluded). 1 = all motion is slow. Returns
// 1 for a sequence with no energy outside DC (perfectly constant motion), and NaN for fewer
// than 12 values (too short to have 5 low bins).
double stabilityScore(const std::vector<double>& motion);

struct Percentiles {
    int count = 0;
    double mean = 0;
    double p50 = 0;
    double p90 = 0;
    double p99 = 0;
    double max = 0;
};

// Nearest-rank percentiles (p-th percentile = the ceil(p/100 * n)-th smallest value).
Percentiles percentiles(std::vector<double> values);

}  // namespace qlmr::replay
