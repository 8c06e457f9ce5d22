#include "measure/GyroAlignment.h"

#include "common/ReplayError.h"
#include "common/WorkerPool.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace qlmr::replay {

V3 AxisMap::apply(const V3& raw) const {
    return {sign[0] * raw[source[0]], sign[1] * raw[source[1]], sign[2] * raw[source[2]]};
}

std::string AxisMap::text() const {
    std::string out;
    for (int i = 0; i < 3; ++i) {
        if (i)
            out += ",";
        if (sign[i] < 0)
            out += "-";
        out += static_cast<char>('x' + source[i]);
    }
    return out;
}

AxisMap AxisMap::parse(const std::string& text) {
    AxisMap m;
    size_t pos = 0;
    bool used[3] = {false, false, false};
    for (int i = 0; i < 3; ++i) {
        const size_t end = text.find(',', pos);
        std::string part =
            text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        int sign = 1;
        if (!part.empty() && (part[0] == '-' || part[0] == '+')) {
            sign = part[0] == '-' ? -1 : 1;
            part = part.substr(1);
        }
        if (part.size() != 1 || part[0] < 'x' || part[0] > 'z' || used[part[0] - 'x'] ||
            (i < 2 && end == std::string::npos) || (i == 2 && end != std::string::npos)) {
            throw ReplayError("axis map '" + text +
                              "' must name x, y and z once each, e.g. y,x,-z");
        }
        used[part[0] - 'x'] = true;
        m.source[i] = part[0] - 'x';
        m.sign[i] = sign;
        pos = end + 1;
    }
    return m;
}

std::vector<AxisMap> AxisMap::all() {
    std::vector<AxisMap> out;
    int p[3] = {0, 1, 2};
    do {
        for (int s = 0; s < 8; ++s) {
            AxisMap m;
            for (int i = 0; i < 3; ++i) {
                m.source[i] = p[i];
                m.sign[i] = (s >> i) & 1 ? -1 : 1;
            }
            out.push_back(m);
        }
    } while (std::next_permutation(p, p + 3));
    return out;
}

bool AxisMap::isRotation() const {
    // Parity of the permutation times the product of the signs.
    int inversions = 0;
    for (int i = 0; i < 3; ++i) {
        for (int j = i + 1; j < 3; ++j)
            inversions += source[i] > source[j];
    }
    const int parity = inversions % 2 == 0 ? 1 : -1;
    return parity * sign[0] * sign[1] * sign[2] == 1;
}

MotionOptions frameMotionOptions() {
    MotionOptions options;
    options.searchRadius = 10;
    return options;
}

FrameMotion::FrameMotion() {
    for (int b = 0; b < kRowBands; ++b) {
        for (int k = 0; k < 3; ++k)
            mix[b][k][k] = 1.0 / kRowBands;
    }
}

void rowBandMix(const GrayImage& g, const Similarity& registered, double mix[kRowBands][3][3]) {
    // Parameters p = (tx, ty, angle, scale - 1) of x' = x + t + [[s, -a], [a, s]] (x - c).
    // A pixel with gradient (gx, gy) at (x, y) from the centre constrains
    // j.p = gx dx + gy dy with j = (gx, gy, gx (-y) + gy x, gx x + gy y); the fit to a motion
    // (dx, dy) that depends on the pixel's band is p = A^-1 sum j (gx dx + gy dy),
    // A = sum j j^T. Only the pixels that `registered` maps inside the other picture count,
    // as in the registration (with a vertical motion, the rows at one edge drop out: the
    // pair is then measured earlier or later). Every other row and column: the sums barely
    // change, at a quarter of the work.
    double A[4][4] = {};
    double rhs[4][3 * kRowBands] = {};
    const double cx = g.width / 2.0, cy = g.height / 2.0;
    const double ca = registered.scale * std::cos(registered.angle);
    const double sa = registered.scale * std::sin(registered.angle);
    const double maxX = g.width - 2.0, maxY = g.height - 2.0;
    for (int y = 1; y + 1 < g.height; y += 2) {
        const uint8_t* above = g.data.data() + static_cast<size_t>(y - 1) * g.width;
        const uint8_t* row = above + g.width;
        const uint8_t* below = row + g.width;
        const double yc = y - cy;
        const int band = std::min(kRowBands - 1, (y * kRowBands) / g.height);
        for (int x = 1; x + 1 < g.width; x += 2) {
            const double gx = 0.5 * (row[x + 1] - row[x - 1]);
            const double gy = 0.5 * (below[x] - above[x]);
            if (gx == 0 && gy == 0)
                continue;
            const double xc = x - cx;
            const double mx = cx + ca * xc - sa * yc + registered.tx;
            const double my = cy + sa * xc + ca * yc + registered.ty;
            if (!(mx >= 1 && mx < maxX && my >= 1 && my < maxY))
                continue;
            const double j[4] = {gx, gy, -gx * yc + gy * xc, gx * xc + gy * yc};
            // The brightness change a band motion (tx, ty, angle) causes at this pixel.
            const double effect[3] = {gx, gy, j[2]};
            for (int r = 0; r < 4; ++r) {
                for (int c = 0; c < 4; ++c)
                    A[r][c] += j[r] * j[c];
                for (int m = 0; m < 3; ++m)
                    rhs[r][band * 3 + m] += j[r] * effect[m];
            }
        }
    }
    // Gauss-Jordan elimination with partial pivoting.
    const double scale = A[0][0] + A[1][1] + A[2][2] + A[3][3];
    for (int col = 0; col < 4; ++col) {
        int pivot = col;
        for (int r = col + 1; r < 4; ++r) {
            if (std::fabs(A[r][col]) > std::fabs(A[pivot][col]))
                pivot = r;
        }
        if (!(std::fabs(A[pivot][col]) > 1e-12 * scale)) {
            const FrameMotion even;  // too little texture: the bands' mean
            std::copy(&even.mix[0][0][0], &even.mix[0][0][0] + kRowBands * 9, &mix[0][0][0]);
            return;
        }
        std::swap(A[col], A[pivot]);
        std::swap(rhs[col], rhs[pivot]);
        for (int r = 0; r < 4; ++r) {
            if (r == col)
                continue;
            const double f = A[r][col] / A[col][col];
            for (int c = 0; c < 4; ++c)
                A[r][c] -= f * A[col][c];
            for (int c = 0; c < 3 * kRowBands; ++c)
                rhs[r][c] -= f * rhs[col][c];
        }
    }
    for (int b = 0; b < kRowBands; ++b) {
        for (int k = 0; k < 3; ++k) {
            for (int m = 0; m < 3; ++m)
                mix[b][k][m] = rhs[k][b * 3 + m] / A[k][k];
        }
    }
}

std::vector<FrameMotion> frameMotionFrom(const std::vector<const GrayImage*>& lumas,
                                         const std::vector<double>& timesSec,
                                         const std::vector<MotionEstimate>& pairs) {
    std::vector<FrameMotion> out;
    for (size_t i = 0; i < pairs.size() && i + 1 < lumas.size(); ++i) {
        FrameMotion f;
        // The registration's gradients are the reference's: lumas[i + 1] is registered on
        // lumas[i].
        if (pairs[i].ok)
            rowBandMix(*lumas[i], pairs[i].motion, f.mix);
        f.startSec = timesSec[i];
        f.endSec = timesSec[i + 1];
        f.ok = pairs[i].ok;
        f.tx = pairs[i].motion.tx;
        f.ty = pairs[i].motion.ty;
        f.angle = pairs[i].motion.angle;
        out.push_back(f);
    }
    return out;
}

std::vector<FrameMotion> measureFrameMotion(const std::vector<GrayImage>& lumas,
                                            const std::vector<double>& timesSec, int threads) {
    if (lumas.size() < 2)
        return {};
    const MotionOptions options = frameMotionOptions();
    std::vector<PairRegistration> jobs;
    std::vector<const GrayImage*> pictures;
    for (size_t i = 0; i < lumas.size(); ++i) {
        pictures.push_back(&lumas[i]);
        if (i + 1 < lumas.size())
            jobs.push_back({&lumas[i], &lumas[i + 1], Similarity{}, &options, {}});
    }
    registerPairs(jobs, threads);
    std::vector<MotionEstimate> results;
    for (const PairRegistration& j : jobs)
        results.push_back(j.result);
    return frameMotionFrom(pictures, timesSec, results);
}

V3 integrateRotation(const std::vector<GyroSample>& gyro, const AxisMap& map, double t0,
                     double t1) {
    // Rates interpolated linearly between samples; small steps composed as rotations.
    sim::Q r = sim::Q::Identity();
    if (gyro.size() < 2 || t1 <= t0)
        return V3::Zero();
    auto rateAt = [&](size_t i) { return map.apply(V3(gyro[i].x, gyro[i].y, gyro[i].z)); };
    const auto timeOf = [&](size_t i) { return gyro[i].timestampNs * 1e-9; };
    size_t i = static_cast<size_t>(
        std::lower_bound(gyro.begin(), gyro.end(), static_cast<int64_t>(t0 * 1e9),
                         [](const GyroSample& s, int64_t t) { return s.timestampNs < t; }) -
        gyro.begin());
    if (i > 0)
        --i;
    double t = t0;
    while (t < t1 && i + 1 < gyro.size()) {
        const double a = timeOf(i), b = timeOf(i + 1);
        const double segEnd = std::min(t1, b);
        if (segEnd > t && b > a) {
            const double mid = 0.5 * (t + segEnd);
            const double u = std::clamp((mid - a) / (b - a), 0.0, 1.0);
            const V3 w = (1 - u) * rateAt(i) + u * rateAt(i + 1);
            r = r * sim::fromRotationVector((segEnd - t) * w);
            t = segEnd;
        }
        ++i;
    }
    return sim::toRotationVector(r);
}

void predictedMotion(const V3& r, double focalPx, double& tx, double& ty, double& angle) {
    tx = -focalPx * r.y();
    ty = focalPx * r.x();
    angle = -r.z();
}

double bandTimeMs(int band, double readoutMs) {
    return readoutMs * (band + 0.5) / kRowBands;
}

void mixBandRotations(const FrameMotion& f, const V3 (&bandRotation)[kRowBands], double focalPx,
                      double out[3]) {
    out[0] = out[1] = out[2] = 0;
    for (int b = 0; b < kRowBands; ++b) {
        double m[3];
        predictedMotion(bandRotation[b], focalPx, m[0], m[1], m[2]);
        for (int k = 0; k < 3; ++k)
            out[k] += f.mix[b][k][0] * m[0] + f.mix[b][k][1] * m[1] + f.mix[b][k][2] * m[2];
    }
}

void predictPairMotion(const FrameMotion& f, const std::vector<GyroSample>& gyro,
                       const AxisMap& map, double offsetMs, double readoutMs, double focalPx,
                       double out[3]) {
    V3 r[kRowBands];
    for (int b = 0; b < kRowBands; ++b) {
        const double shift = (bandTimeMs(b, readoutMs) + offsetMs) * 1e-3;
        r[b] = integrateRotation(gyro, map, f.startSec + shift, f.endSec + shift);
    }
    mixBandRotations(f, r, focalPx, out);
}

double outlierLimit(const std::vector<double>& errorsPx) {
    if (errorsPx.size() < 3)
        return INFINITY;
    // NaN (from an unusable sample) sorts as infinity: nth_element needs an ordering.
    std::vector<double> v = errorsPx;
    for (double& e : v)
        e = std::isnan(e) ? INFINITY : e;
    const auto middle = [&v]() {
        std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    const double median = middle();
    if (!std::isfinite(median))
        return INFINITY;  // most pairs unusable: nothing to judge them against
    for (double& e : v)
        e = std::fabs(e - median);
    const double spread = 1.4826 * middle();
    return median + std::max(kOutlierSpread * spread, kOutlierMinPx);
}

double robustRms(const std::vector<double>& errorsPx, double limit) {
    if (errorsPx.empty())
        return INFINITY;
    double sum = 0;
    for (const double e : errorsPx) {
        const double counted = e <= limit ? e : limit;  // NaN counts as the limit
        sum += counted * counted;
    }
    return std::sqrt(sum / static_cast<double>(errorsPx.size()));
}

namespace {
// A measured frame pair with the motion p = (tx, ty, angle) the gyro predicts for it.
struct Prediction {
    const FrameMotion* f;
    double p[3];
};

// The predictions for every registered pair with their errors (pixels).
std::vector<Prediction> predict(const std::vector<FrameMotion>& motion,
                                const std::vector<GyroSample>& gyro, const AxisMap& map,
                                double offsetMs, const AlignmentSearch& s,
                                std::vector<double>& errors) {
    std::vector<Prediction> out;
    errors.clear();
    for (const FrameMotion& f : motion) {
        if (!f.ok)
            continue;
        Prediction q{&f, {0, 0, 0}};
        predictPairMotion(f, gyro, map, offsetMs, s.readoutMs, s.focalPx, q.p);
        const double ea = (q.p[2] - f.angle) * s.radiusPx;
        errors.push_back(std::sqrt((q.p[0] - f.tx) * (q.p[0] - f.tx) +
                                   (q.p[1] - f.ty) * (q.p[1] - f.ty) + ea * ea));
        out.push_back(q);
    }
    return out;
}
}  // namespace

AlignmentScore scoreAlignment(const std::vector<FrameMotion>& motion,
                              const std::vector<GyroSample>& gyro, const AxisMap& map,
                              double offsetMs, const AlignmentSearch& s,
                              std::vector<double>* squaredErrors) {
    AlignmentScore out;
    out.map = map;
    out.offsetMs = offsetMs;
    std::vector<double> errors;
    predict(motion, gyro, map, offsetMs, s, errors);
    const double limit = outlierLimit(errors);
    out.pairs = static_cast<int>(errors.size());
    for (const double e : errors)
        out.outliers += !(e <= limit);
    out.rmsPx = robustRms(errors, limit);
    if (squaredErrors != nullptr) {
        squaredErrors->clear();
        for (const double e : errors) {
            const double counted = e <= limit ? e : limit;
            squaredErrors->push_back(counted * counted);
        }
    }
    return out;
}

ComponentFit fitComponents(const std::vector<FrameMotion>& motion,
                           const std::vector<GyroSample>& gyro, const AxisMap& map, double offsetMs,
                           const AlignmentSearch& search) {
    double spp[3] = {}, smm[3] = {}, spm[3] = {}, sp[3] = {}, sm[3] = {};
    int n = 0;
    std::vector<double> errors;
    const std::vector<Prediction> all = predict(motion, gyro, map, offsetMs, search, errors);
    const double limit = outlierLimit(errors);
    for (size_t i = 0; i < all.size(); ++i) {
        if (!(errors[i] <= limit))
            continue;
        const FrameMotion& f = *all[i].f;
        const double* p = all[i].p;
        const double m[3] = {f.tx, f.ty, f.angle};
        for (int k = 0; k < 3; ++k) {
            spp[k] += p[k] * p[k];
            smm[k] += m[k] * m[k];
            spm[k] += p[k] * m[k];
            sp[k] += p[k];
            sm[k] += m[k];
        }
        ++n;
    }
    ComponentFit fit;
    if (n < 2)
        return fit;
    for (int k = 0; k < 3; ++k) {
        const double cov = spm[k] / n - sp[k] / n * sm[k] / n;
        const double vp = spp[k] / n - sp[k] / n * sp[k] / n;
        const double vm = smm[k] / n - sm[k] / n * sm[k] / n;
        fit.correlation[k] = vp > 0 && vm > 0 ? cov / std::sqrt(vp * vm) : 0;
        fit.gain[k] = spp[k] > 0 ? spm[k] / spp[k] : 0;
        fit.predictedRms[k] = std::sqrt(spp[k] / n);
        fit.measuredRms[k] = std::sqrt(smm[k] / n);
    }
    return fit;
}

std::vector<AlignmentScore> offsetCurve(const std::vector<FrameMotion>& motion,
                                        const std::vector<GyroSample>& gyro, const AxisMap& map,
                                        const AlignmentSearch& search) {
    std::vector<AlignmentScore> out;
    for (double o = search.offsetMinMs; o <= search.offsetMaxMs + 1e-9; o += search.offsetStepMs) {
        out.push_back(scoreAlignment(motion, gyro, map, o, search));
    }
    return out;
}

AlignmentScore refineOffset(const std::vector<FrameMotion>& motion,
                            const std::vector<GyroSample>& gyro, const AlignmentScore& start,
                            const AlignmentSearch& search) {
    AlignmentSearch fine = search;
    fine.offsetStepMs = search.offsetStepMs / 10;
    fine.offsetMinMs = start.offsetMs - search.offsetStepMs;
    fine.offsetMaxMs = start.offsetMs + search.offsetStepMs;
    const std::vector<AlignmentScore> curve = offsetCurve(motion, gyro, start.map, fine);
    size_t at = 0;
    for (size_t i = 1; i < curve.size(); ++i) {
        if (curve[i].rmsPx < curve[at].rmsPx)
            at = i;
    }
    if (curve.empty() || !(curve[at].rmsPx <= start.rmsPx))
        return start;
    const AlignmentScore best = curve[at];
    if (at == 0 || at + 1 == curve.size())
        return best;
    // Squared errors: a quadratic in the offset where the prediction is linear in it.
    const double e0 = curve[at - 1].rmsPx * curve[at - 1].rmsPx;
    const double e1 = best.rmsPx * best.rmsPx;
    const double e2 = curve[at + 1].rmsPx * curve[at + 1].rmsPx;
    const double curvature = e0 - 2 * e1 + e2;
    if (!(curvature > 0))
        return best;
    const double shift = std::clamp(0.5 * (e0 - e2) / curvature, -1.0, 1.0);
    const AlignmentScore vertex =
        scoreAlignment(motion, gyro, start.map, best.offsetMs + shift * fine.offsetStepMs, search);
    return vertex.rmsPx < best.rmsPx ? vertex : best;
}

std::vector<AlignmentScore> rankAlignments(const std::vector<FrameMotion>& motion,
                                           const std::vector<GyroSample>& gyro,
                                           const AlignmentSearch& search) {
    std::vector<AlignmentScore> best;
    for (const AxisMap& map : AxisMap::all()) {
        AlignmentScore b;
        b.map = map;
        b.rmsPx = INFINITY;
        for (const AlignmentScore& s : offsetCurve(motion, gyro, map, search)) {
            if (s.rmsPx < b.rmsPx)
                b = s;
        }
        b = refineOffset(motion, gyro, b, search);
        best.push_back(b);
    }
    std::sort(best.begin(), best.end(),
              [](const AlignmentScore& a, const AlignmentScore& b) { return a.rmsPx < b.rmsPx; });
    return best;
}

void gyroWarpedPicture(const GrayImage& first, const FrameMotion& f,
                       const std::vector<GyroSample>& gyro, const AxisMap& map, double offsetMs,
                       double readoutMs, double focalPx, GrayImage& out) {
    const int w = first.width, h = first.height;
    out.resize(w, h);
    if (w < 2 || h < 2)
        return;
    const double offsetSec = offsetMs * 1e-3, readoutSec = readoutMs * 1e-3;
    const auto rowTime = [&](double frameSec, int row) {
        return frameSec + offsetSec + (row + 0.5) / h * readoutSec;
    };
    // Camera orientations at every row's read time in both frames, relative to the first
    // frame's top row: composed every kRowStep rows, blended linearly in between (the
    // camera turns by well under a milliradian over that many rows' read time, where the
    // blend's error is of second order).
    constexpr int kRowStep = 8;
    std::vector<sim::M3> firstRows(static_cast<size_t>(h)), secondRows(static_cast<size_t>(h));
    sim::Q a = sim::Q::Identity();
    sim::Q b = sim::fromRotationVector(
        integrateRotation(gyro, map, rowTime(f.startSec, 0), rowTime(f.endSec, 0)));
    firstRows[0] = a.toRotationMatrix();
    secondRows[0] = b.toRotationMatrix();
    for (int y0 = 0; y0 < h - 1;) {
        const int y1 = std::min(y0 + kRowStep, h - 1);
        a = a * sim::fromRotationVector(
                    integrateRotation(gyro, map, rowTime(f.startSec, y0), rowTime(f.startSec, y1)));
        b = b * sim::fromRotationVector(
                    integrateRotation(gyro, map, rowTime(f.endSec, y0), rowTime(f.endSec, y1)));
        const size_t i0 = static_cast<size_t>(y0), i1 = static_cast<size_t>(y1);
        firstRows[i1] = a.toRotationMatrix();
        secondRows[i1] = b.toRotationMatrix();
        for (int y = y0 + 1; y < y1; ++y) {
            const double u = static_cast<double>(y - y0) / (y1 - y0);
            firstRows[static_cast<size_t>(y)] = (1 - u) * firstRows[i0] + u * firstRows[i1];
            secondRows[static_cast<size_t>(y)] = (1 - u) * secondRows[i0] + u * secondRows[i1];
        }
        y0 = y1;
    }
    const double cx = w / 2.0, cy = h / 2.0;
    // Source point (continuous coordinates, pixel centres at +0.5) of output point (x, y):
    // the ray turned from the second frame's row time into the first frame's camera at the
    // time of the row it lands on (three fixed-point steps settle it far below a pixel).
    const auto source = [&](double x, int row, double& sx, double& sy) {
        const V3 ray = secondRows[static_cast<size_t>(row)] *
                       V3((x - cx) / focalPx, (row + 0.5 - cy) / focalPx, 1.0);
        double landRow = row + 0.5;
        for (int step = 0; step < 3; ++step) {
            const double r = std::clamp(landRow - 0.5, 0.0, h - 1.0);
            const int r0 = std::min(h - 2, static_cast<int>(r));
            const double u = r - r0;
            const V3 d = ((1 - u) * firstRows[static_cast<size_t>(r0)] +
                          u * firstRows[static_cast<size_t>(r0) + 1])
                             .transpose() *
                         ray;
            sx = focalPx * d.x() / d.z() + cx;
            sy = focalPx * d.y() / d.z() + cy;
            landRow = sy;
        }
    };
    // Bilinear sample of `first` at a source point, the edge repeated outside (float: a
    // source position to a ten-thousandth of a pixel is plenty).
    const float maxX = static_cast<float>(w - 1), maxY = static_cast<float>(h - 1);
    const auto sample = [&](float sx, float sy) {
        const float px = std::min(std::max(sx - 0.5f, 0.0f), maxX);
        const float py = std::min(std::max(sy - 0.5f, 0.0f), maxY);
        const int ix = std::min(w - 2, static_cast<int>(px));
        const int iy = std::min(h - 2, static_cast<int>(py));
        const float fx = px - static_cast<float>(ix), fy = py - static_cast<float>(iy);
        const uint8_t* p = first.data.data() + static_cast<size_t>(iy) * w + ix;
        const float top = p[0] + fx * static_cast<float>(p[1] - p[0]);
        const float bottom = p[w] + fx * static_cast<float>(p[w + 1] - p[w]);
        return static_cast<uint8_t>(top + fy * (bottom - top) + 0.5f);
    };
    // Exact every kSpan pixels and at the last column, linear in between: over a span the
    // mapping is affine far below a hundredth of a pixel.
    constexpr int kSpan = 16;
    for (int y = 0; y < h; ++y) {
        uint8_t* dst = out.data.data() + static_cast<size_t>(y) * w;
        double ax = 0, ay = 0, bx = 0, by = 0;
        source(0.5, y, ax, ay);
        for (int x0 = 0; x0 < w - 1; x0 += kSpan) {
            const int x1 = std::min(x0 + kSpan, w - 1);
            source(x1 + 0.5, y, bx, by);
            const float sx = static_cast<float>(ax), sy = static_cast<float>(ay);
            const float dx = static_cast<float>((bx - ax) / (x1 - x0));
            const float dy = static_cast<float>((by - ay) / (x1 - x0));
            for (int x = x0; x < x1; ++x) {
                const float t = static_cast<float>(x - x0);
                dst[x] = sample(sx + t * dx, sy + t * dy);
            }
            ax = bx;
            ay = by;
        }
        dst[w - 1] = sample(static_cast<float>(ax), static_cast<float>(ay));
    }
}

namespace {

// One responseCorrected run: the pairs of `out` (the measured motion, corrected in place)
// split over the pool's threads.
struct ResponseRun {
    const std::vector<const GrayImage*>* pictures;
    const std::vector<GyroSample>* gyro;
    const AxisMap* map;
    double offsetMs;
    const AlignmentSearch* search;
    std::vector<FrameMotion>* out;
};

void respondRun(void* context, int begin, int end) {
    const ResponseRun& run = *static_cast<const ResponseRun*>(context);
    const MotionOptions options = frameMotionOptions();
    MotionEstimator estimator;
    GrayImage warped;
    for (int i = begin; i < end; ++i) {
        FrameMotion& f = (*run.out)[static_cast<size_t>(i)];
        if (!f.ok)
            continue;
        const GrayImage& picture = *(*run.pictures)[static_cast<size_t>(i)];
        gyroWarpedPicture(picture, f, *run.gyro, *run.map, run.offsetMs, run.search->readoutMs,
                          run.search->focalPx, warped);
        // Started from the measured motion, which the warped picture's lies close to.
        Similarity near;
        near.tx = f.tx;
        near.ty = f.ty;
        near.angle = f.angle;
        const MotionEstimate e = estimator.estimate(picture, warped, near, options);
        if (!e.ok)
            continue;
        double band[3];
        predictPairMotion(f, *run.gyro, *run.map, run.offsetMs, run.search->readoutMs,
                          run.search->focalPx, band);
        f.tx -= e.motion.tx - band[0];
        f.ty -= e.motion.ty - band[1];
        f.angle -= e.motion.angle - band[2];
    }
}

}  // namespace

std::vector<FrameMotion> responseCorrected(const std::vector<const GrayImage*>& pictures,
                                           const std::vector<FrameMotion>& motion,
                                           const std::vector<GyroSample>& gyro, const AxisMap& map,
                                           double offsetMs, const AlignmentSearch& search,
                                           int threads) {
    if (pictures.size() != motion.size() + 1)
        throw ReplayError("responseCorrected: one picture more than frame pairs expected");
    std::vector<FrameMotion> out = motion;
    ResponseRun run{&pictures, &gyro, &map, offsetMs, &search, &out};
    if (!out.empty()) {
        WorkerPool pool(std::max(1, threads));
        pool.run(&respondRun, &run, static_cast<int>(out.size()));
    }
    return out;
}

AlignmentScore refineByRegistration(const std::vector<const GrayImage*>& pictures,
                                    const std::vector<FrameMotion>& motion,
                                    const std::vector<GyroSample>& gyro,
                                    const AlignmentScore& start, const AlignmentSearch& search,
                                    int threads, std::vector<FrameMotion>& corrected) {
    AlignmentScore best = start;
    for (int round = 0; round < kResponseRounds; ++round) {
        corrected =
            responseCorrected(pictures, motion, gyro, best.map, best.offsetMs, search, threads);
        best =
            refineOffset(corrected, gyro,
                         scoreAlignment(corrected, gyro, best.map, best.offsetMs, search), search);
    }
    return best;
}

}  // namespace qlmr::replay
