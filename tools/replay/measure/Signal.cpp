#include "measure/Signal.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qlmr::replay {

std::vector<double> gaussianSmooth(const std::vector<double>& v, double sigma) {
    const int n = static_cast<int>(v.size());
    if (sigma <= 0 || n < 2)
        return v;
    std::vector<double> out(v.size());
    const int radius = static_cast<int>(std::ceil(3 * sigma));
    std::vector<double> k(static_cast<size_t>(2 * radius + 1));
    for (int i = -radius; i <= radius; ++i) {
        k[static_cast<size_t>(i + radius)] = std::exp(-0.5 * i * i / (sigma * sigma));
    }
    // Gaussian-weighted quadratic fit around every sample (local polynomial regression): a
    // steady pan and a slow turn pass unchanged, ends included, while motion faster than
    // about 1 / (2 pi sigma) cycles per sample is removed.
    for (int i = 0; i < n; ++i) {
        double m[5] = {0, 0, 0, 0, 0};  // sums of w * d^k
        double r[3] = {0, 0, 0};        // sums of w * d^k * v
        for (int j = std::max(0, i - radius); j <= std::min(n - 1, i + radius); ++j) {
            const double w = k[static_cast<size_t>(j - i + radius)];
            const double d = (j - i) / sigma;  // scaled for conditioning
            double p = w;
            for (int e = 0; e < 5; ++e, p *= d) {
                m[e] += p;
                if (e < 3)
                    r[e] += p * v[static_cast<size_t>(j)];
            }
        }
        // Solve [m0 m1 m2; m1 m2 m3; m2 m3 m4] c = r for c0 by Cramer's rule; near the ends
        // with too few samples for a parabola, fall back to the weighted mean.
        const double det = m[0] * (m[2] * m[4] - m[3] * m[3]) - m[1] * (m[1] * m[4] - m[3] * m[2]) +
                           m[2] * (m[1] * m[3] - m[2] * m[2]);
        const double det0 = r[0] * (m[2] * m[4] - m[3] * m[3]) -
                            m[1] * (r[1] * m[4] - m[3] * r[2]) + m[2] * (r[1] * m[3] - m[2] * r[2]);
        out[static_cast<size_t>(i)] =
            std::fabs(det) > 1e-9 * m[0] * m[0] * m[0] ? det0 / det : r[0] / m[0];
    }
    return out;
}

double highPassRms(const std::vector<double>& v, double sigma) {
    if (v.size() < 2)
        return 0;
    const std::vector<double> s = gaussianSmooth(v, sigma);
    double sum = 0;
    for (size_t i = 0; i < v.size(); ++i)
        sum += (v[i] - s[i]) * (v[i] - s[i]);
    return std::sqrt(sum / v.size());
}

double highPassRms2(const std::vector<double>& x, const std::vector<double>& y, double sigma,
                    size_t from) {
    if (x.size() < 2 || x.size() != y.size() || from >= x.size())
        return 0;
    const std::vector<double> sx = gaussianSmooth(x, sigma);
    const std::vector<double> sy = gaussianSmooth(y, sigma);
    double sum = 0;
    for (size_t i = from; i < x.size(); ++i) {
        sum += (x[i] - sx[i]) * (x[i] - sx[i]) + (y[i] - sy[i]) * (y[i] - sy[i]);
    }
    return std::sqrt(sum / (x.size() - from));
}

double stabilityScore(const std::vector<double>& motion) {
    const size_t n = motion.size();
    if (n < 12)
        return std::numeric_limits<double>::quiet_NaN();
    const double kPi = 3.14159265358979323846;
    // Power spectrum by direct DFT (sequences are a few thousand values at most).
    const size_t half = n / 2;
    double low = 0, total = 0;
    for (size_t k = 1; k <= half; ++k) {
        double re = 0, im = 0;
        for (size_t i = 0; i < n; ++i) {
            const double a = 2 * kPi * static_cast<double>(k * i % n) / n;
            re += motion[i] * std::cos(a);
            im -= motion[i] * std::sin(a);
        }
        const double p = re * re + im * im;
        total += p;
        if (k <= 5)
            low += p;
    }
    if (total <= 1e-18)
        return 1.0;
    return low / total;
}

Percentiles percentiles(std::vector<double> values) {
    Percentiles p;
    p.count = static_cast<int>(values.size());
    if (values.empty())
        return p;
    std::sort(values.begin(), values.end());
    double sum = 0;
    for (double v : values)
        sum += v;
    p.mean = sum / values.size();
    auto rank = [&](double q) {
        size_t r = static_cast<size_t>(std::ceil(q / 100.0 * values.size()));
        if (r < 1)
            r = 1;
        return values[std::min(r, values.size()) - 1];
    };
    p.p50 = rank(50);
    p.p90 = rank(90);
    p.p99 = rank(99);
    p.max = values.back();
    return p;
}

}  // namespace qlmr::replay
