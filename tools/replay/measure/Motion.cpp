#include "measure/Motion.h"

#include "common/WorkerPool.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <limits>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace qlmr::replay {

namespace {

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

// One row of a Gauss-Newton pass: the samples of a reference row at x = x0, x0 + step, ...
// (`count` of them, x measured from the picture's centre), read from the moving picture at
// (rowX + a x, rowY + b x); only positions inside [minX, maxX) x [minY, maxY) count. Robust
// weight w = min(1, huber / |e|) for the residual e; Jacobian j = (gx x + gy y, gy x - gx y,
// gx, gy) with y the row's offset from the centre.
struct RowPass {
    const float* pixels;  // moving level
    int width;
    const float* value;
    const float* gx;
    const float* gy;
    int count;
    float x0, step, y;
    float rowX, rowY, a, b;
    float huber;
    float minX, minY, maxX, maxY;
};

// The row's sums: g = sum w e j, the upper triangle of H = sum w j j^T (h[i][j], j >= i),
// sum e^2 and the number of samples inside.
struct RowSums {
    float g[4];
    float h[4][4];
    float e2;
    int n;
};

// The row's samples one at a time, added to `sums`.
void accumulateRowPortable(const RowPass& p, RowSums& sums) {
    for (int k = 0; k < p.count; ++k) {
        const float dx = p.x0 + p.step * static_cast<float>(k);
        const float mx = p.rowX + p.a * dx;
        const float my = p.rowY + p.b * dx;
        if (!(mx >= p.minX && my >= p.minY && mx < p.maxX && my < p.maxY))
            continue;
        const float e = bilinear(p.pixels, p.width, mx, my) - p.value[k];
        const float j[4] = {p.gx[k] * dx + p.gy[k] * p.y, p.gy[k] * dx - p.gx[k] * p.y, p.gx[k],
                            p.gy[k]};
        const float ae = std::fabs(e);
        const float wgt = ae <= p.huber ? 1.0f : p.huber / ae;
        for (int r = 0; r < 4; ++r) {
            const float wj = wgt * j[r];
            sums.g[r] += wj * e;
            for (int c = r; c < 4; ++c)
                sums.h[r][c] += wj * j[c];
        }
        sums.e2 += e * e;
        ++sums.n;
    }
}

#if defined(__x86_64__)
__attribute__((target("avx2,fma"))) float sum8(__m256 v) {
    const __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    const __m128 t = _mm_add_ps(s, _mm_movehl_ps(s, s));
    return _mm_cvtss_f32(_mm_add_ss(t, _mm_shuffle_ps(t, t, 1)));
}

// Bilinear reads of eight pixels of a float picture `width` floats wide: `at` indexes each
// one's top-left neighbour, (fx, fy) are its weights.
__attribute__((target("avx2,fma"))) __m256 bilinear8(const float* pixels, int width, __m256i at,
                                                     __m256 fx, __m256 fy) {
    const float* below = pixels + width;
    const __m256 p00 = _mm256_i32gather_ps(pixels, at, 4);
    const __m256 p01 = _mm256_i32gather_ps(pixels + 1, at, 4);
    const __m256 p10 = _mm256_i32gather_ps(below, at, 4);
    const __m256 p11 = _mm256_i32gather_ps(below + 1, at, 4);
    const __m256 top = _mm256_fmadd_ps(_mm256_sub_ps(p01, p00), fx, p00);
    const __m256 bottom = _mm256_fmadd_ps(_mm256_sub_ps(p11, p10), fx, p10);
    return _mm256_fmadd_ps(_mm256_sub_ps(bottom, top), fy, top);
}

// The same sums eight samples at a time: the moving picture's four bilinear neighbours are
// gathered, lanes outside the picture (or past the row's end) read its first inside pixel and
// are weighted 0.
__attribute__((target("avx2,fma"))) void accumulateRowAvx2(const RowPass& p, RowSums& sums) {
    const __m256 lane = _mm256_setr_ps(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256 step = _mm256_set1_ps(p.step);
    const __m256 a = _mm256_set1_ps(p.a), b = _mm256_set1_ps(p.b);
    const __m256 rowX = _mm256_set1_ps(p.rowX), rowY = _mm256_set1_ps(p.rowY);
    const __m256 y = _mm256_set1_ps(p.y);
    const __m256 minX = _mm256_set1_ps(p.minX), minY = _mm256_set1_ps(p.minY);
    const __m256 maxX = _mm256_set1_ps(p.maxX), maxY = _mm256_set1_ps(p.maxY);
    const __m256 huber = _mm256_set1_ps(p.huber);
    const __m256 one = _mm256_set1_ps(1.0f);
    const __m256 absMask = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fffffff));
    const __m256i width = _mm256_set1_epi32(p.width);
    __m256 g0 = _mm256_setzero_ps(), g1 = g0, g2 = g0, g3 = g0;
    __m256 h00 = g0, h01 = g0, h02 = g0, h03 = g0, h11 = g0, h12 = g0, h13 = g0, h22 = g0, h23 = g0,
           h33 = g0, e2 = g0;
    int n = 0;
    for (int k = 0; k < p.count; k += 8) {
        // The row's last group may be partial: its missing lanes load nothing and count as
        // outside.
        const __m256i valid = _mm256_cmpgt_epi32(_mm256_set1_epi32(p.count - k),
                                                 _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7));
        const __m256 dx = _mm256_fmadd_ps(
            _mm256_add_ps(lane, _mm256_set1_ps(static_cast<float>(k))), step, _mm256_set1_ps(p.x0));
        __m256 mx = _mm256_fmadd_ps(a, dx, rowX);
        __m256 my = _mm256_fmadd_ps(b, dx, rowY);
        const __m256 inside =
            _mm256_and_ps(_mm256_and_ps(_mm256_and_ps(_mm256_cmp_ps(mx, minX, _CMP_GE_OQ),
                                                      _mm256_cmp_ps(my, minY, _CMP_GE_OQ)),
                                        _mm256_and_ps(_mm256_cmp_ps(mx, maxX, _CMP_LT_OQ),
                                                      _mm256_cmp_ps(my, maxY, _CMP_LT_OQ))),
                          _mm256_castsi256_ps(valid));
        const int mask = _mm256_movemask_ps(inside);
        if (mask == 0)
            continue;
        mx = _mm256_blendv_ps(minX, mx, inside);
        my = _mm256_blendv_ps(minY, my, inside);
        const __m256i ix = _mm256_cvttps_epi32(mx);
        const __m256i iy = _mm256_cvttps_epi32(my);
        const __m256 fx = _mm256_sub_ps(mx, _mm256_cvtepi32_ps(ix));
        const __m256 fy = _mm256_sub_ps(my, _mm256_cvtepi32_ps(iy));
        const __m256i at = _mm256_add_epi32(_mm256_mullo_epi32(iy, width), ix);
        const __m256 read = bilinear8(p.pixels, p.width, at, fx, fy);
        const __m256 e =
            _mm256_and_ps(_mm256_sub_ps(read, _mm256_maskload_ps(p.value + k, valid)), inside);
        const __m256 gx = _mm256_maskload_ps(p.gx + k, valid);
        const __m256 gy = _mm256_maskload_ps(p.gy + k, valid);
        const __m256 j0 = _mm256_fmadd_ps(gx, dx, _mm256_mul_ps(gy, y));
        const __m256 j1 = _mm256_fmsub_ps(gy, dx, _mm256_mul_ps(gx, y));
        const __m256 ae = _mm256_and_ps(e, absMask);
        const __m256 wgt = _mm256_and_ps(
            _mm256_blendv_ps(_mm256_div_ps(huber, ae), one, _mm256_cmp_ps(ae, huber, _CMP_LE_OQ)),
            inside);
        const __m256 we = _mm256_mul_ps(wgt, e);
        g0 = _mm256_fmadd_ps(we, j0, g0);
        g1 = _mm256_fmadd_ps(we, j1, g1);
        g2 = _mm256_fmadd_ps(we, gx, g2);
        g3 = _mm256_fmadd_ps(we, gy, g3);
        const __m256 w0 = _mm256_mul_ps(wgt, j0);
        const __m256 w1 = _mm256_mul_ps(wgt, j1);
        const __m256 w2 = _mm256_mul_ps(wgt, gx);
        h00 = _mm256_fmadd_ps(w0, j0, h00);
        h01 = _mm256_fmadd_ps(w0, j1, h01);
        h02 = _mm256_fmadd_ps(w0, gx, h02);
        h03 = _mm256_fmadd_ps(w0, gy, h03);
        h11 = _mm256_fmadd_ps(w1, j1, h11);
        h12 = _mm256_fmadd_ps(w1, gx, h12);
        h13 = _mm256_fmadd_ps(w1, gy, h13);
        h22 = _mm256_fmadd_ps(w2, gx, h22);
        h23 = _mm256_fmadd_ps(w2, gy, h23);
        h33 = _mm256_fmadd_ps(_mm256_mul_ps(wgt, gy), gy, h33);
        e2 = _mm256_fmadd_ps(e, e, e2);
        n += __builtin_popcount(static_cast<unsigned>(mask));
    }
    sums.g[0] += sum8(g0);
    sums.g[1] += sum8(g1);
    sums.g[2] += sum8(g2);
    sums.g[3] += sum8(g3);
    sums.h[0][0] += sum8(h00);
    sums.h[0][1] += sum8(h01);
    sums.h[0][2] += sum8(h02);
    sums.h[0][3] += sum8(h03);
    sums.h[1][1] += sum8(h11);
    sums.h[1][2] += sum8(h12);
    sums.h[1][3] += sum8(h13);
    sums.h[2][2] += sum8(h22);
    sums.h[2][3] += sum8(h23);
    sums.h[3][3] += sum8(h33);
    sums.e2 += sum8(e2);
    sums.n += n;
}
#endif

#if defined(__x86_64__)
// Whether this processor has the vector unit of the kernels above (AVX2 and FMA). Elsewhere
// (32-bit ARM) only the portable kernels exist.
bool vectorUnit() {
    static const bool has = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
    return has;
}
#endif

using RowKernel = void (*)(const RowPass&, RowSums&);

RowKernel rowKernel(bool vector) {
#if defined(__x86_64__)
    if (vector && vectorUnit())
        return accumulateRowAvx2;
#else
    (void)vector;
#endif
    return accumulateRowPortable;
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
template <typename Grid>
void mapSearchGrid(const std::vector<float>& ref, int w, int h, double a, double b, double tx,
                   double ty, int step, Grid& out) {
    out.ix.clear();
    out.iy.clear();
    out.fx.clear();
    out.fy.clear();
    out.value.clear();
    out.total = 0;
    const double cx = w / 2.0, cy = h / 2.0;
    for (int y = 1; y < h - 1; y += step) {
        for (int x = 1; x < w - 1; x += step) {
            ++out.total;
            const double dx = x - cx, dy = y - cy;
            const double mx = (1 + a) * dx - b * dy + cx + tx;
            const double my = b * dx + (1 + a) * dy + cy + ty;
            // Far outside for every offset tried: never read.
            if (mx < -1e6 || my < -1e6 || mx > 1e6 || my > 1e6)
                continue;
            const double fx = std::floor(mx), fy = std::floor(my);
            out.ix.push_back(static_cast<int>(fx));
            out.iy.push_back(static_cast<int>(fy));
            out.fx.push_back(static_cast<float>(mx - fx));
            out.fy.push_back(static_cast<float>(my - fy));
            out.value.push_back(ref[static_cast<size_t>(y) * w + x]);
        }
    }
}

// Sum of squared differences (each capped at 40 grey levels) of the mapped grid moved by
// (dx, dy) moving pixels, over the `count` samples that land inside [0, w-1) x [0, h-1),
// where the bilinear read has its four pixels.
struct SearchSums {
    double sum = 0;
    int count = 0;
};
constexpr float kSearchCap = 40.0f * 40.0f;

template <typename Grid>
SearchSums searchSumsPortable(const Grid& grid, const float* mov, int w, int h, int dx, int dy) {
    SearchSums sums;
    for (size_t k = 0; k < grid.ix.size(); ++k) {
        const int ix = grid.ix[k] + dx, iy = grid.iy[k] + dy;
        if (ix < 0 || iy < 0 || ix >= w - 1 || iy >= h - 1)
            continue;
        const float* r = mov + static_cast<size_t>(iy) * w + ix;
        const float top = r[0] + (r[1] - r[0]) * grid.fx[k];
        const float bottom = r[w] + (r[w + 1] - r[w]) * grid.fx[k];
        const float d = top + (bottom - top) * grid.fy[k] - grid.value[k];
        sums.sum += std::min(d * d, kSearchCap);
        ++sums.count;
    }
    return sums;
}

#if defined(__x86_64__)
// The same eight samples at a time (lanes outside read pixel 0 and add nothing); the sum is
// kept in double lanes as the portable loop keeps it.
template <typename Grid>
__attribute__((target("avx2,fma"))) SearchSums searchSumsAvx2(const Grid& grid, const float* mov,
                                                              int w, int h, int dx, int dy) {
    const int total = static_cast<int>(grid.ix.size());
    const __m256i offX = _mm256_set1_epi32(dx), offY = _mm256_set1_epi32(dy);
    const __m256i lastX = _mm256_set1_epi32(w - 1), lastY = _mm256_set1_epi32(h - 1);
    const __m256i width = _mm256_set1_epi32(w);
    const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256 cap = _mm256_set1_ps(kSearchCap);
    __m256d sumLo = _mm256_setzero_pd(), sumHi = sumLo;
    int count = 0;
    for (int k = 0; k < total; k += 8) {
        const __m256i valid = _mm256_cmpgt_epi32(_mm256_set1_epi32(total - k), lanes);
        const __m256i ix = _mm256_add_epi32(_mm256_maskload_epi32(grid.ix.data() + k, valid), offX);
        const __m256i iy = _mm256_add_epi32(_mm256_maskload_epi32(grid.iy.data() + k, valid), offY);
        // Inside: 0 <= ix < w - 1 and 0 <= iy < h - 1.
        const __m256i inside = _mm256_and_si256(
            _mm256_and_si256(valid,
                             _mm256_andnot_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), ix),
                                                 _mm256_cmpgt_epi32(lastX, ix))),
            _mm256_andnot_si256(_mm256_cmpgt_epi32(_mm256_setzero_si256(), iy),
                                _mm256_cmpgt_epi32(lastY, iy)));
        const int mask = _mm256_movemask_ps(_mm256_castsi256_ps(inside));
        if (mask == 0)
            continue;
        const __m256i at =
            _mm256_and_si256(_mm256_add_epi32(_mm256_mullo_epi32(iy, width), ix), inside);
        const __m256 fx = _mm256_maskload_ps(grid.fx.data() + k, inside);
        const __m256 fy = _mm256_maskload_ps(grid.fy.data() + k, inside);
        const __m256 value = _mm256_maskload_ps(grid.value.data() + k, inside);
        const __m256 d = _mm256_sub_ps(bilinear8(mov, w, at, fx, fy), value);
        const __m256 d2 =
            _mm256_and_ps(_mm256_min_ps(_mm256_mul_ps(d, d), cap), _mm256_castsi256_ps(inside));
        sumLo = _mm256_add_pd(sumLo, _mm256_cvtps_pd(_mm256_castps256_ps128(d2)));
        sumHi = _mm256_add_pd(sumHi, _mm256_cvtps_pd(_mm256_extractf128_ps(d2, 1)));
        count += __builtin_popcount(static_cast<unsigned>(mask));
    }
    alignas(32) double lanesOut[4];
    _mm256_store_pd(lanesOut, _mm256_add_pd(sumLo, sumHi));
    SearchSums sums;
    sums.sum = (lanesOut[0] + lanesOut[1]) + (lanesOut[2] + lanesOut[3]);
    sums.count = count;
    return sums;
}
#endif

// Mean of the capped squared differences; infinity when fewer than a third of the grid's
// pixels map inside.
template <typename Grid>
double searchCost(const Grid& grid, const std::vector<float>& mov, int w, int h, int dx, int dy,
                  bool vector) {
    SearchSums sums;
#if defined(__x86_64__)
    if (vector && vectorUnit())
        sums = searchSumsAvx2(grid, mov.data(), w, h, dx, dy);
    else
        sums = searchSumsPortable(grid, mov.data(), w, h, dx, dy);
#else
    (void)vector;
    sums = searchSumsPortable(grid, mov.data(), w, h, dx, dy);
#endif
    if (sums.count * 3 < grid.total)
        return std::numeric_limits<double>::infinity();
    return sums.sum / sums.count;
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
            mapSearchGrid(r.pixels, r.width, r.height, l.a, l.b, l.tx, l.ty,
                          std::max(1, options.searchStep), search_);
            // Every other offset first (the coarsest level is blurred by the pyramid: its cost
            // basin is wider than one pixel), then the 8 neighbours of the best of them.
            double scaleCost = std::numeric_limits<double>::infinity();
            int bestDx = 0, bestDy = 0;
            auto tryOffset = [&](int dx, int dy) {
                const double c =
                    searchCost(search_, m.pixels, m.width, m.height, dx, dy, options.vectorKernels);
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
        // x = 2, 2 + step, ... < w - 2 on the rows y = 2, 2 + step, ... < h - 2.
        const int perRow = std::max(0, (w - 4 + step - 1) / step);
        const size_t sampleCount =
            static_cast<size_t>(std::max(0, (h - 4 + step - 1) / step)) * perRow;
        sampleValue_.resize(sampleCount);
        sampleGx_.resize(sampleCount);
        sampleGy_.resize(sampleCount);
        size_t at = 0;
        for (int y = 2; y < h - 2; y += step) {
            const float* row = r.pixels.data() + static_cast<size_t>(y) * w;
            for (int x = 2; x < w - 2; x += step, ++at) {
                sampleValue_[at] = row[x];
                sampleGx_[at] = 0.5f * (row[x + 1] - row[x - 1]);
                sampleGy_[at] = 0.5f * (row[x + w] - row[x - w]);
            }
        }
        const RowKernel kernel = rowKernel(options.vectorKernels);
        RowPass pass{};
        pass.pixels = m.pixels.data();
        pass.width = w;
        pass.count = perRow;
        pass.x0 = static_cast<float>(2 - cx);
        pass.step = static_cast<float>(step);
        pass.minX = 1;
        pass.minY = 1;
        pass.maxX = static_cast<float>(w - 2);
        pass.maxY = static_cast<float>(h - 2);
        for (int it = 0; it < iterations; ++it) {
            double H[4][4] = {};
            double g[4] = {};
            double sse = 0;
            int n = 0;
            // Robust scale: Huber threshold from the previous pass (grey levels).
            pass.huber = static_cast<float>(it == 0 ? 20.0 : std::max(4.0, 1.5 * rms));
            pass.a = static_cast<float>(1 + best.a);
            pass.b = static_cast<float>(best.b);
            size_t first = 0;
            for (int y = 2; y < h - 2; y += step, first += static_cast<size_t>(perRow)) {
                // One row's sums in float (a few hundred terms), the whole in double.
                const double dyd = y - cy;
                pass.y = static_cast<float>(dyd);
                pass.rowX = static_cast<float>(cx + best.tx - best.b * dyd);
                pass.rowY = static_cast<float>(cy + best.ty + (1 + best.a) * dyd);
                pass.value = sampleValue_.data() + first;
                pass.gx = sampleGx_.data() + first;
                pass.gy = sampleGy_.data() + first;
                RowSums sums{};
                kernel(pass, sums);
                for (int i = 0; i < 4; ++i) {
                    g[i] += sums.g[i];
                    for (int j = i; j < 4; ++j)
                        H[i][j] += sums.h[i][j];
                }
                sse += sums.e2;
                n += sums.n;
            }
            const int total = static_cast<int>(sampleValue_.size());
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
