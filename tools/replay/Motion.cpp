#include "Motion.h"

#include "WorkerPool.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <limits>

namespace qlmr::replay {

namespace {

// Four floats that the compiler keeps in one SIMD register where it can.
typedef float Float4 __attribute__((vector_size(16)));

// Bilinear read of a float picture `w` pixels wide; (x, y) inside [0, w-1) x [0, h-1).
inline float bilinear(const float* p, int w, float x, float y) {
    const int ix = static_cast<int>(x);
    const int iy = static_cast<int>(y);
    const float fx = x - static_cast<float>(ix);
    const float fy = y - static_cast<float>(iy);
    const float* r = p + static_cast<size_t>(iy) * w + ix;
    const float top = r[0] + (r[1] - r[0]) * fx;
    const float bottom = r[w] + (r[w + 1] - r[w]) * fx;
    return top + (bottom - top) * fy;
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

// The translation search of one scale and angle at the coarsest level maps the reference's
// sparse grid (every `step` pixels) into the moving picture once: trying an integer offset
// then only moves where each sample reads, its bilinear weights stay the same.
template <typename Sample>
int mapSearchGrid(const std::vector<float>& ref, int w, int h, double a, double b, double tx,
                  double ty, int step, std::vector<Sample>& out) {
    out.clear();
    int total = 0;
    const double cx = w / 2.0, cy = h / 2.0;
    for (int y = 1; y < h - 1; y += step) {
        for (int x = 1; x < w - 1; x += step) {
            ++total;
            const double dx = x - cx, dy = y - cy;
            const double mx = (1 + a) * dx - b * dy + cx + tx;
            const double my = b * dx + (1 + a) * dy + cy + ty;
            // Far outside for every offset tried: never read.
            if (mx < -1e6 || my < -1e6 || mx > 1e6 || my > 1e6)
                continue;
            const double fx = std::floor(mx), fy = std::floor(my);
            out.push_back({static_cast<int>(fx), static_cast<int>(fy), static_cast<float>(mx - fx),
                           static_cast<float>(my - fy), ref[static_cast<size_t>(y) * w + x]});
        }
    }
    return total;
}

// Mean squared difference (each capped at 40 grey levels) of the mapped grid moved by
// (dx, dy) moving pixels; infinity when fewer than a third of `total` map inside.
template <typename Sample>
double searchCost(const std::vector<Sample>& samples, int total, const std::vector<float>& mov,
                  int w, int h, int dx, int dy) {
    double sum = 0;
    int n = 0;
    for (const Sample& s : samples) {
        const int ix = s.ix + dx, iy = s.iy + dy;
        // Inside [0, w-1) x [0, h-1), where the bilinear read has its four pixels.
        if (ix < 0 || iy < 0 || ix >= w - 1 || iy >= h - 1)
            continue;
        const float* r = mov.data() + static_cast<size_t>(iy) * w + ix;
        const float top = r[0] + (r[1] - r[0]) * s.fx;
        const float bottom = r[w] + (r[w + 1] - r[w]) * s.fx;
        const float d = top + (bottom - top) * s.fy - s.value;
        sum += std::min(d * d, 40.0f * 40.0f);
        ++n;
    }
    if (n * 3 < total)
        return std::numeric_limits<double>::infinity();
    return sum / n;
}

// Solves the 4x4 system H d = g (H symmetric, upper triangle filled) by Gaussian elimination
// with partial pivoting; false when singular.
bool solve4(double H[4][4], const double g[4], double d[4]) {
    double A[4][5];
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j)
            A[i][j] = j >= i ? H[i][j] : H[j][i];
        A[i][i] *= 1.0 + 1e-6;
        A[i][4] = g[i];
    }
    for (int c = 0; c < 4; ++c) {
        int p = c;
        for (int i = c + 1; i < 4; ++i) {
            if (std::fabs(A[i][c]) > std::fabs(A[p][c]))
                p = i;
        }
        if (std::fabs(A[p][c]) < 1e-12)
            return false;
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
    for (int i = 0; i < 4; ++i)
        d[i] = A[i][4] / A[i][i];
    return true;
}

}  // namespace

void MotionPyramid::build(const GrayImage& image, int minSize) {
    int count = 1;
    while ((image.width >> count) >= minSize && (image.height >> count) >= minSize)
        ++count;
    levels_.resize(static_cast<size_t>(count));
    Level& base = levels_[0];
    base.width = image.width;
    base.height = image.height;
    base.pixels.resize(image.data.size());
    std::copy(image.data.begin(), image.data.end(), base.pixels.begin());
    for (size_t l = 1; l < levels_.size(); ++l) {
        const Level& src = levels_[l - 1];
        Level& dst = levels_[l];
        dst.width = src.width / 2;
        dst.height = src.height / 2;
        dst.pixels.resize(static_cast<size_t>(dst.width) * dst.height);
        for (int y = 0; y < dst.height; ++y) {
            const float* r0 = src.pixels.data() + static_cast<size_t>(2 * y) * src.width;
            const float* r1 = r0 + src.width;
            float* out = dst.pixels.data() + static_cast<size_t>(y) * dst.width;
            for (int x = 0; x < dst.width; ++x)
                out[x] = 0.25f * (r0[2 * x] + r0[2 * x + 1] + r1[2 * x] + r1[2 * x + 1]);
        }
    }
}

MotionEstimate MotionEstimator::estimate(const GrayImage& reference, const GrayImage& moving,
                                         const Similarity& initial, const MotionOptions& options) {
    if (reference.width != moving.width || reference.height != moving.height ||
        reference.width < options.minSize || reference.height < options.minSize) {
        return {};
    }
    ref_.build(reference, options.minSize);
    mov_.build(moving, options.minSize);
    return estimate(ref_, mov_, initial, options);
}

MotionEstimate MotionEstimator::estimate(const MotionPyramid& reference,
                                         const MotionPyramid& moving, const Similarity& initial,
                                         const MotionOptions& options) {
    MotionEstimate result;
    if (reference.width() != moving.width() || reference.height() != moving.height() ||
        reference.width() < options.minSize || reference.height() < options.minSize) {
        return result;
    }
    const int levels = std::min(reference.levels(), moving.levels());

    // Coarsest level: translations (and scales) searched on a sparse grid.
    const int top = levels - 1;
    const double topScale = 1.0 / (1 << top);
    Linear best{};
    {
        const MotionPyramid::Level& r = reference.levels_[static_cast<size_t>(top)];
        const MotionPyramid::Level& m = moving.levels_[static_cast<size_t>(top)];
        std::vector<double> scales = options.scales;
        if (std::find(scales.begin(), scales.end(), initial.scale) == scales.end())
            scales.push_back(initial.scale);
        double bestCost = std::numeric_limits<double>::infinity();
        const int radius = options.searchRadius;
        for (double scale : scales) {
            Similarity s = initial;
            s.scale = scale;
            Linear l = toLinear(s);
            l.tx = initial.tx * topScale;
            l.ty = initial.ty * topScale;
            searchTotal_ = mapSearchGrid(r.pixels, r.width, r.height, l.a, l.b, l.tx, l.ty,
                                         std::max(1, options.searchStep), search_);
            // Every other offset first (the coarsest level is blurred by the pyramid: its cost
            // basin is wider than one pixel), then the 8 neighbours of the best of them.
            double scaleCost = std::numeric_limits<double>::infinity();
            int bestDx = 0, bestDy = 0;
            auto tryOffset = [&](int dx, int dy) {
                const double c =
                    searchCost(search_, searchTotal_, m.pixels, m.width, m.height, dx, dy);
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

    // Inverse-compositional Gauss-Newton with Huber weights, coarse to fine: the Jacobian
    // comes from the reference's gradients at its sampled pixels (computed once per level),
    // so an iteration reads the moving picture once per sample, and the update is composed
    // with the inverse of the step found.
    const bool large = reference.width() * reference.height() >= options.finestStepMinPixels;
    double rms = 0;
    double used = 0;
    for (int lv = top; lv >= 0; --lv) {
        const MotionPyramid::Level& r = reference.levels_[static_cast<size_t>(lv)];
        const MotionPyramid::Level& m = moving.levels_[static_cast<size_t>(lv)];
        const int w = r.width, h = r.height;
        const double cx = w / 2.0, cy = h / 2.0;
        // Levels below the coarsest start within about a pixel of the answer (the level above
        // converged): a few iterations settle them. On a large picture they are sampled
        // sparsely, the finest one gets fewer iterations, and a level above the finest, which
        // only has to bring the next one within its basin, stops at a coarser tolerance.
        int step = 1;
        int iterations = lv == top ? options.iterations : std::min(options.iterations, 6);
        double tolerance = options.finestTolerancePx;
        if (large && lv < top) {
            step = std::max(1, lv <= 1 ? options.finestStep : options.coarserStep);
            if (lv == 0)
                iterations = std::min(iterations, options.finestIterations);
            else
                tolerance = options.coarseTolerancePx;
        }
        samples_.clear();
        for (int y = 2; y < h - 2; y += step) {
            const float* row = r.pixels.data() + static_cast<size_t>(y) * w;
            for (int x = 2; x < w - 2; x += step) {
                samples_.push_back(
                    {row[x], 0.5f * (row[x + 1] - row[x - 1]), 0.5f * (row[x + w] - row[x - w])});
            }
        }
        const float minX = 1, minY = 1;
        const float maxX = static_cast<float>(w - 2), maxY = static_cast<float>(h - 2);
        for (int it = 0; it < iterations; ++it) {
            double H[4][4] = {};
            double g[4] = {};
            double sse = 0;
            int n = 0;
            // Robust scale: Huber threshold from the previous pass (grey levels).
            const float huber = static_cast<float>(it == 0 ? 20.0 : std::max(4.0, 1.5 * rms));
            const float a = static_cast<float>(1 + best.a), b = static_cast<float>(best.b);
            const Sample* s = samples_.data();
            for (int y = 2; y < h - 2; y += step) {
                const double dyd = y - cy;
                const float dy = static_cast<float>(dyd);
                const float rowX = static_cast<float>(cx + best.tx - best.b * dyd);
                const float rowY = static_cast<float>(cy + best.ty + (1 + best.a) * dyd);
                // One row's sums in float (a few hundred terms), the whole in double. The
                // Jacobian row j is one 4-float vector: g += w e j, H += w j j^T by rows.
                Float4 g4 = {0, 0, 0, 0};
                Float4 h0 = g4, h1 = g4, h2 = g4, h3 = g4;
                float e2 = 0;
                int rowN = 0;
                for (int x = 2; x < w - 2; x += step, ++s) {
                    const float dx = static_cast<float>(x - cx);
                    const float mx = rowX + a * dx;
                    const float my = rowY + b * dx;
                    if (!(mx >= minX && my >= minY && mx < maxX && my < maxY))
                        continue;
                    const float e = bilinear(m.pixels.data(), w, mx, my) - s->value;
                    const Float4 j = {s->gx * dx + s->gy * dy, s->gy * dx - s->gx * dy, s->gx,
                                      s->gy};
                    const float ae = std::fabs(e);
                    const float wgt = ae <= huber ? 1.0f : huber / ae;
                    const Float4 wj = j * wgt;
                    g4 += wj * e;
                    h0 += wj * j[0];
                    h1 += wj * j[1];
                    h2 += wj * j[2];
                    h3 += wj * j[3];
                    e2 += e * e;
                    ++rowN;
                }
                for (int k = 0; k < 4; ++k) {
                    g[k] += g4[k];
                    H[0][k] += h0[k];
                    H[1][k] += h1[k];
                    H[2][k] += h2[k];
                    H[3][k] += h3[k];
                }
                sse += e2;
                n += rowN;
            }
            const int total = static_cast<int>(samples_.size());
            if (n < 50 || n * 4 < total)
                return result;
            rms = std::sqrt(sse / n);
            used = static_cast<double>(n) / total;
            double d[4];
            if (!solve4(H, g, d))
                return result;
            // The warp composed with the inverse of the step: A' = A / (1 + d), in complex
            // form, and t' = t - A' d_t.
            const std::complex<double> z =
                std::complex<double>(1 + best.a, best.b) / std::complex<double>(1 + d[0], d[1]);
            const std::complex<double> t =
                std::complex<double>(best.tx, best.ty) - z * std::complex<double>(d[2], d[3]);
            best.a = z.real() - 1;
            best.b = z.imag();
            best.tx = t.real();
            best.ty = t.imag();
            const double moveAtEdge = std::fabs(d[2]) + std::fabs(d[3]) +
                                      (std::fabs(d[0]) + std::fabs(d[1])) * std::max(w, h) / 2.0;
            if (moveAtEdge < tolerance)
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

namespace {

// The pyramids of the last two pictures a thread registered, by picture.
class PyramidCache {
  public:
    // The pyramid of `image`, built unless held; never evicts the one of `keep`.
    const MotionPyramid& get(const GrayImage* image, int minSize, const GrayImage* keep) {
        for (Slot& s : slots_) {
            if (s.image == image && s.minSize == minSize)
                return s.pyramid;
        }
        Slot& s = slots_[0].image == keep ? slots_[1] : slots_[0];
        s.image = image;
        s.minSize = minSize;
        s.pyramid.build(*image, minSize);
        return s.pyramid;
    }

  private:
    struct Slot {
        const GrayImage* image = nullptr;
        int minSize = 0;
        MotionPyramid pyramid;
    };
    Slot slots_[2];
};

void registerRun(void* context, int begin, int end) {
    auto& jobs = *static_cast<std::vector<PairRegistration>*>(context);
    MotionEstimator estimator;
    PyramidCache cache;
    for (int i = begin; i < end; ++i) {
        PairRegistration& j = jobs[static_cast<size_t>(i)];
        const int minSize = j.options->minSize;
        if (j.reference->width != j.moving->width || j.reference->height != j.moving->height) {
            j.result = MotionEstimate{};
            continue;
        }
        const MotionPyramid& ref = cache.get(j.reference, minSize, j.moving);
        const MotionPyramid& mov = cache.get(j.moving, minSize, j.reference);
        j.result = estimator.estimate(ref, mov, j.initial, *j.options);
    }
}

}  // namespace

void registerPairs(std::vector<PairRegistration>& jobs, int threads) {
    if (jobs.empty())
        return;
    WorkerPool pool(std::max(1, threads));
    pool.run(&registerRun, &jobs, static_cast<int>(jobs.size()));
}

}  // namespace qlmr::replay
