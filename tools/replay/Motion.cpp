#include "Motion.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

namespace qlmr::replay {

namespace {

inline float bilinear(const std::vector<float>& p, int w, float x, float y) {
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const float fx = x - ix;
    const float fy = y - iy;
    const float* r = p.data() + static_cast<size_t>(iy) * w + ix;
    return (r[0] * (1 - fx) + r[1] * fx) * (1 - fy) + (r[w] * (1 - fx) + r[w + 1] * fx) * fy;
}

// Parameters in the linear form used by Gauss-Newton: A = [[1+a, -b], [b, 1+a]], t.
struct Linear {
    double a, b, tx, ty;
};
Linear toLinear(const Similarity& s) {
    return {s.scale * std::cos(s.angle) - 1, s.scale * std::sin(s.angle), s.tx, s.ty};
}
Similarity fromLinear(const Linear& l) {
    Similarity s;
    s.scale = std::hypot(1 + l.a, l.b);
    s.angle = std::atan2(l.b, 1 + l.a);
    s.tx = l.tx;
    s.ty = l.ty;
    return s;
}

// Mean squared difference over a sparse grid of reference pixels; infinity when fewer than
// a third map inside.
double sparseCost(const std::vector<float>& ref, const std::vector<float>& mov, int w, int h,
                  const Linear& l, int step) {
    const double cx = w / 2.0, cy = h / 2.0;
    double sum = 0;
    int n = 0, total = 0;
    for (int y = 1; y < h - 1; y += step) {
        for (int x = 1; x < w - 1; x += step) {
            ++total;
            const double dx = x - cx, dy = y - cy;
            const float mx = static_cast<float>((1 + l.a) * dx - l.b * dy + cx + l.tx);
            const float my = static_cast<float>(l.b * dx + (1 + l.a) * dy + cy + l.ty);
            if (mx < 0 || my < 0 || mx >= w - 1 || my >= h - 1)
                continue;
            const double d = bilinear(mov, w, mx, my) - ref[static_cast<size_t>(y) * w + x];
            sum += std::min(d * d, 40.0 * 40.0);
            ++n;
        }
    }
    if (n * 3 < total)
        return std::numeric_limits<double>::infinity();
    return sum / n;
}

}  // namespace

void MotionEstimator::build(const GrayImage& image, int levels, std::vector<Level>& pyr) {
    pyr.resize(static_cast<size_t>(levels));
    Level& base = pyr[0];
    base.width = image.width;
    base.height = image.height;
    base.pixels.resize(image.data.size());
    for (size_t i = 0; i < image.data.size(); ++i)
        base.pixels[i] = image.data[i];
    for (int l = 1; l < levels; ++l) {
        const Level& src = pyr[static_cast<size_t>(l - 1)];
        Level& dst = pyr[static_cast<size_t>(l)];
        dst.width = src.width / 2;
        dst.height = src.height / 2;
        dst.pixels.resize(static_cast<size_t>(dst.width) * dst.height);
        for (int y = 0; y < dst.height; ++y) {
            const float* r0 = src.pixels.data() + static_cast<size_t>(2 * y) * src.width;
            const float* r1 = r0 + src.width;
            for (int x = 0; x < dst.width; ++x) {
                dst.pixels[static_cast<size_t>(y) * dst.width + x] =
                    0.25f * (r0[2 * x] + r0[2 * x + 1] + r1[2 * x] + r1[2 * x + 1]);
            }
        }
    }
    for (Level& lv : pyr) {
        lv.gx.assign(lv.pixels.size(), 0.0f);
        lv.gy.assign(lv.pixels.size(), 0.0f);
        for (int y = 1; y < lv.height - 1; ++y) {
            for (int x = 1; x < lv.width - 1; ++x) {
                const size_t i = static_cast<size_t>(y) * lv.width + x;
                lv.gx[i] = 0.5f * (lv.pixels[i + 1] - lv.pixels[i - 1]);
                lv.gy[i] = 0.5f * (lv.pixels[i + lv.width] - lv.pixels[i - lv.width]);
            }
        }
    }
}

MotionEstimate MotionEstimator::estimate(const GrayImage& reference, const GrayImage& moving,
                                         const Similarity& initial, const MotionOptions& options) {
    MotionEstimate result;
    if (reference.width != moving.width || reference.height != moving.height ||
        reference.width < options.minSize || reference.height < options.minSize) {
        return result;
    }
    int levels = 1;
    while ((reference.width >> levels) >= options.minSize &&
           (reference.height >> levels) >= options.minSize) {
        ++levels;
    }
    build(reference, levels, ref_);
    build(moving, levels, mov_);

    // Coarsest level: translations (and scales) searched on a sparse grid.
    const int top = levels - 1;
    const double topScale = 1.0 / (1 << top);
    Linear best{};
    {
        const Level& r = ref_[static_cast<size_t>(top)];
        const Level& m = mov_[static_cast<size_t>(top)];
        std::vector<double> scales = options.scales;
        if (std::find(scales.begin(), scales.end(), initial.scale) == scales.end())
            scales.push_back(initial.scale);
        double bestCost = std::numeric_limits<double>::infinity();
        const int radius = options.searchRadius;
        for (double scale : scales) {
            Similarity s = initial;
            s.scale = scale;
            Linear l = toLinear(s);
            // Every other offset first (the coarsest level is blurred by the pyramid: its cost
            // basin is wider than one pixel), then the 8 neighbours of the best of them.
            double scaleCost = std::numeric_limits<double>::infinity();
            int bestDx = 0, bestDy = 0;
            auto tryOffset = [&](int dx, int dy) {
                l.tx = initial.tx * topScale + dx;
                l.ty = initial.ty * topScale + dy;
                const double c = sparseCost(r.pixels, m.pixels, r.width, r.height, l, 2);
                if (c < scaleCost) {
                    scaleCost = c;
                    bestDx = dx;
                    bestDy = dy;
                }
            };
            for (int dy = -radius; dy <= radius; dy += 2) {
                for (int dx = -radius; dx <= radius; dx += 2)
                    tryOffset(dx, dy);
            }
            const int cx = bestDx, cy = bestDy;
            for (int dy = cy - 1; dy <= cy + 1; ++dy) {
                for (int dx = cx - 1; dx <= cx + 1; ++dx) {
                    if ((dx != cx || dy != cy) && std::abs(dx) <= radius && std::abs(dy) <= radius)
                        tryOffset(dx, dy);
                }
            }
            if (scaleCost < bestCost) {
                bestCost = scaleCost;
                best = l;
                best.tx = initial.tx * topScale + bestDx;
                best.ty = initial.ty * topScale + bestDy;
            }
        }
        if (!std::isfinite(bestCost))
            return result;
    }

    // Gauss-Newton with Huber weights, coarse to fine.
    double rms = 0;
    double used = 0;
    for (int lv = top; lv >= 0; --lv) {
        const Level& r = ref_[static_cast<size_t>(lv)];
        const Level& m = mov_[static_cast<size_t>(lv)];
        const int w = r.width, h = r.height;
        const double cx = w / 2.0, cy = h / 2.0;
        // Levels below the coarsest start within about a pixel of the answer (the level above
        // converged): a few iterations settle them, and on a large picture the two finest
        // levels sample every finestStep-th row and column.
        const bool large = reference.width * reference.height >= options.finestStepMinPixels;
        const int step = lv < top && lv <= 1 && large ? std::max(1, options.finestStep) : 1;
        const int iterations = lv < top ? std::min(options.iterations, 6) : options.iterations;
        for (int it = 0; it < iterations; ++it) {
            double H[4][4] = {};
            double g[4] = {};
            double sse = 0;
            int n = 0, total = 0;
            // Robust scale: Huber threshold from the previous pass (grey levels).
            const double huber = it == 0 ? 20.0 : std::max(4.0, 1.5 * rms);
            for (int y = 2; y < h - 2; y += step) {
                for (int x = 2; x < w - 2; x += step) {
                    ++total;
                    const double dx = x - cx, dy = y - cy;
                    const float mx =
                        static_cast<float>((1 + best.a) * dx - best.b * dy + cx + best.tx);
                    const float my =
                        static_cast<float>(best.b * dx + (1 + best.a) * dy + cy + best.ty);
                    if (mx < 1 || my < 1 || mx >= w - 2 || my >= h - 2)
                        continue;
                    const double e =
                        bilinear(m.pixels, w, mx, my) - r.pixels[static_cast<size_t>(y) * w + x];
                    const double ix = bilinear(m.gx, w, mx, my);
                    const double iy = bilinear(m.gy, w, mx, my);
                    const double J[4] = {ix * dx + iy * dy, -ix * dy + iy * dx, ix, iy};
                    const double ae = std::fabs(e);
                    const double wgt = ae <= huber ? 1.0 : huber / ae;
                    for (int i = 0; i < 4; ++i) {
                        g[i] += wgt * J[i] * e;
                        for (int j = i; j < 4; ++j)
                            H[i][j] += wgt * J[i] * J[j];
                    }
                    sse += e * e;
                    ++n;
                }
            }
            if (n < 50 || n * 4 < total)
                return result;
            rms = std::sqrt(sse / n);
            used = static_cast<double>(n) / total;
            for (int i = 0; i < 4; ++i) {
                for (int j = 0; j < i; ++j)
                    H[i][j] = H[j][i];
                H[i][i] *= 1.0 + 1e-6;
            }
            // Solve H d = -g by Gaussian elimination with partial pivoting.
            double A[4][5];
            for (int i = 0; i < 4; ++i) {
                for (int j = 0; j < 4; ++j)
                    A[i][j] = H[i][j];
                A[i][4] = -g[i];
            }
            bool singular = false;
            for (int c = 0; c < 4 && !singular; ++c) {
                int p = c;
                for (int i = c + 1; i < 4; ++i) {
                    if (std::fabs(A[i][c]) > std::fabs(A[p][c]))
                        p = i;
                }
                if (std::fabs(A[p][c]) < 1e-12) {
                    singular = true;
                    break;
                }
                for (int j = 0; j < 5; ++j)
                    std::swap(A[c][j], A[p][j]);
                for (int i = 0; i < 4; ++i) {
                    if (i == c)
                        continue;
                    const double f = A[i][c] / A[c][c];
                    for (int j = c; j < 5; ++j)
                        A[i][j] -= f * A[c][j];
                }
            }
            if (singular)
                return result;
            const double d[4] = {A[0][4] / A[0][0], A[1][4] / A[1][1], A[2][4] / A[2][2],
                                 A[3][4] / A[3][3]};
            best.a += d[0];
            best.b += d[1];
            best.tx += d[2];
            best.ty += d[3];
            const double moveAtEdge = std::fabs(d[2]) + std::fabs(d[3]) +
                                      (std::fabs(d[0]) + std::fabs(d[1])) * std::max(w, h) / 2.0;
            if (moveAtEdge < 0.01)
                break;
        }
        if (lv > 0) {
            best.tx *= 2;
            best.ty *= 2;
        }
    }
    result.motion = fromLinear(best);
    result.rmsResidual = rms;
    result.usedShare = used;
    result.ok = true;
    return result;
}

}  // namespace qlmr::replay
