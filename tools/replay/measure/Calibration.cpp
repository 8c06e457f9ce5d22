#include "measure/Calibration.h"

#include "Config.h"
#include "common/ReplayError.h"
#include "media/ColorConvert.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>

namespace qlmr::replay {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Fewer registered pairs than this say nothing about the gyro.
constexpr int kMinPairs = 8;
// A mapping or offset is reported as better when it lowers the prediction error by this share.
constexpr double kClearlyBetter = 0.15;
// An offset this far from the stated one is worth a word even when the error barely changes.
constexpr double kOffsetToleranceMs = 2.0;

std::string axesText(const vstab::AxisMap& m) {
    std::string s;
    for (int i = 0; i < 3; ++i) {
        if (i > 0)
            s += ',';
        if (m.sign[i] < 0)
            s += '-';
        s += static_cast<char>('x' + m.axis[i]);
    }
    return s;
}

// Pearson correlation of the stacked components (rotation scaled to pixels at `radiusPx`),
// outliers left out.
double stackedCorrelation(const std::vector<CalibrationPoint>& series, double radiusPx) {
    double sp = 0, sm = 0, spp = 0, smm = 0, spm = 0;
    int n = 0;
    for (const CalibrationPoint& c : series) {
        if (c.outlier)
            continue;
        for (int k = 0; k < 3; ++k) {
            const double w = k == 2 ? radiusPx : 1.0;
            const double p = c.predicted[k] * w, m = c.measured[k] * w;
            sp += p;
            sm += m;
            spp += p * p;
            smm += m * m;
            spm += p * m;
            ++n;
        }
    }
    if (n < 2)
        return 0;
    const double cov = spm / n - sp / n * sm / n;
    const double vp = spp / n - sp / n * sp / n;
    const double vm = smm / n - sm / n * sm / n;
    return vp > 0 && vm > 0 ? cov / std::sqrt(vp * vm) : 0;
}

std::vector<CalibrationPoint> predictionSeries(const std::vector<FrameMotion>& motion,
                                               const std::vector<GyroSample>& gyro,
                                               const AxisMap& map, double offsetMs,
                                               const AlignmentSearch& s, double t0Sec,
                                               double toFramePx) {
    std::vector<CalibrationPoint> out;
    std::vector<double> errors;  // pixels of the measured pictures, as the search's scores
    for (const FrameMotion& f : motion) {
        if (!f.ok)
            continue;
        const double shift = (s.readoutMs * f.rowFraction + offsetMs) * 1e-3;
        const V3 r = integrateRotation(gyro, map, f.startSec + shift, f.endSec + shift);
        CalibrationPoint c;
        c.timeSec = f.startSec - t0Sec;
        predictedMotion(r, s.focalPx, c.predicted[0], c.predicted[1], c.predicted[2]);
        const double ea = (c.predicted[2] - f.angle) * s.radiusPx;
        errors.push_back(std::sqrt((c.predicted[0] - f.tx) * (c.predicted[0] - f.tx) +
                                   (c.predicted[1] - f.ty) * (c.predicted[1] - f.ty) + ea * ea));
        c.predicted[0] *= toFramePx;
        c.predicted[1] *= toFramePx;
        c.measured[0] = f.tx * toFramePx;
        c.measured[1] = f.ty * toFramePx;
        c.measured[2] = f.angle;
        out.push_back(c);
    }
    const double limit = outlierLimit(errors);
    for (size_t i = 0; i < out.size(); ++i)
        out[i].outlier = !(errors[i] <= limit);
    return out;
}

// The search of rankAlignments at a 48th of its cost: the gyro is integrated once per offset
// in its own axes, and each mapping is applied to the integrated rotation (exact for the
// proper rotations, as exp(P w) = P exp(w) P^T; to second order in the frame-to-frame angle
// for the mirror images). The best few mappings are then refined exactly to 0.1 ms.
std::vector<AlignmentScore> rankQuickly(const std::vector<FrameMotion>& motion,
                                        const std::vector<GyroSample>& gyro,
                                        const AlignmentSearch& s) {
    const AxisMap raw;  // identity
    std::vector<double> offsets;
    for (double o = s.offsetMinMs; o <= s.offsetMaxMs + 1e-9; o += s.offsetStepMs)
        offsets.push_back(o);
    std::vector<const FrameMotion*> pairs;
    for (const FrameMotion& f : motion) {
        if (f.ok)
            pairs.push_back(&f);
    }
    std::vector<V3> rotation(offsets.size() * pairs.size());
    for (size_t k = 0; k < offsets.size(); ++k) {
        for (size_t p = 0; p < pairs.size(); ++p) {
            const FrameMotion& f = *pairs[p];
            const double shift = (s.readoutMs * f.rowFraction + offsets[k]) * 1e-3;
            rotation[k * pairs.size() + p] =
                integrateRotation(gyro, raw, f.startSec + shift, f.endSec + shift);
        }
    }
    std::vector<AlignmentScore> best;
    for (const AxisMap& map : AxisMap::all()) {
        AlignmentScore b;
        b.map = map;
        b.rmsPx = INFINITY;
        std::vector<double> errors(pairs.size());
        for (size_t k = 0; k < offsets.size(); ++k) {
            for (size_t p = 0; p < pairs.size(); ++p) {
                const FrameMotion& f = *pairs[p];
                double tx, ty, angle;
                predictedMotion(map.apply(rotation[k * pairs.size() + p]), s.focalPx, tx, ty,
                                angle);
                const double ea = (angle - f.angle) * s.radiusPx;
                errors[p] =
                    std::sqrt((tx - f.tx) * (tx - f.tx) + (ty - f.ty) * (ty - f.ty) + ea * ea);
            }
            // Scored as score() does: outliers counted at the limit.
            const double limit = outlierLimit(errors);
            const double rms = robustRms(errors, limit);
            if (rms < b.rmsPx) {
                b.rmsPx = rms;
                b.offsetMs = offsets[k];
                b.pairs = static_cast<int>(pairs.size());
                b.outliers = static_cast<int>(std::count_if(
                    errors.begin(), errors.end(), [limit](double e) { return !(e <= limit); }));
            }
        }
        best.push_back(b);
    }
    std::sort(best.begin(), best.end(),
              [](const AlignmentScore& a, const AlignmentScore& b) { return a.rmsPx < b.rmsPx; });
    // Exact refinement of the leading proper rotations.
    constexpr int kRefined = 4;
    int refined = 0;
    for (AlignmentScore& b : best) {
        if (!b.map.isRotation() || refined >= kRefined)
            continue;
        ++refined;
        AlignmentSearch fine = s;
        fine.offsetMinMs = b.offsetMs - s.offsetStepMs;
        fine.offsetMaxMs = b.offsetMs + s.offsetStepMs;
        fine.offsetStepMs = s.offsetStepMs / 10;
        for (const AlignmentScore& c : offsetCurve(motion, gyro, b.map, fine)) {
            if (c.rmsPx < b.rmsPx)
                b = c;
        }
    }
    std::sort(best.begin(), best.end(),
              [](const AlignmentScore& a, const AlignmentScore& b) { return a.rmsPx < b.rmsPx; });
    return best;
}

}  // namespace

CalibrationStats calibrate(const CalibrationInput& in) {
    CalibrationStats st;
    vstab::StabConfig cfg;
    char error[400];
    vstab::ConfigWarnings warnings;
    if (!vstab::parseConfig(in.configText.data(), in.configText.size(), cfg, error, sizeof error,
                            &warnings)) {
        throw ReplayError(std::string("the stabilization library refuses the configuration: ") +
                          error);
    }
    std::istringstream lines(warnings.text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty())
            st.configWarnings.push_back(line);
    }
    st.statedAxes = axesText(cfg.gyroAxes);
    const int exposureUs = in.exposureUs.empty() ? 0 : in.exposureUs.front();
    // The library's offset is the gyro time of the first row's exposure start; the search's is
    // that of the middle of its exposure.
    st.statedOffsetMs = cfg.gyroTimeOffsetNs * 1e-6;
    const double searchStatedMs = st.statedOffsetMs + exposureUs * 0.5e-3;
    const bool premeasured = !in.motion.empty();
    const int measuredWidth = premeasured        ? in.measuredWidth
                              : in.lumas.empty() ? 0
                                                 : in.lumas.front().width;
    if ((!premeasured && in.lumas.size() < 2) || in.timestampsNs.empty() || in.gyro == nullptr ||
        in.gyro->empty() || in.frameWidth <= 0 || measuredWidth <= 0) {
        return st;
    }

    std::vector<double> times;
    for (int64_t t : in.timestampsNs)
        times.push_back(t * 1e-9);
    const std::vector<FrameMotion> motion =
        premeasured ? in.motion : measureFrameMotion(in.lumas, times, in.threads);
    int ok = 0;
    for (const FrameMotion& f : motion)
        ok += f.ok;
    st.pairs = ok;
    if (ok < kMinPairs) {
        st.warnings.push_back("only " + std::to_string(ok) +
                              " frame pairs could be registered: the gyro calibration is unknown");
        return st;
    }
    st.measured = true;

    const double scale = static_cast<double>(measuredWidth) / in.frameWidth;
    AlignmentSearch search;
    search.focalPx = scale * 0.5 * in.frameWidth / std::tan(cfg.fovHorizontalDeg * kPi / 360.0);
    search.readoutMs = cfg.readoutNs * 1e-6;
    search.radiusPx = 300 * scale;
    search.offsetMinMs = searchStatedMs - 60;
    search.offsetMaxMs = searchStatedMs + 60;
    search.offsetStepMs = 1;

    const AxisMap stated = AxisMap::parse(st.statedAxes);
    const double t0 = times.front();
    st.series = predictionSeries(motion, *in.gyro, stated, searchStatedMs, search, t0, 1.0 / scale);
    st.agreement = stackedCorrelation(st.series, 300);
    for (const CalibrationPoint& c : st.series)
        st.outlierPairs += c.outlier;
    const ComponentFit fit = fitComponents(motion, *in.gyro, stated, searchStatedMs, search);
    for (int k = 0; k < 3; ++k)
        st.componentCorrelation[k] = fit.correlation[k];
    AlignmentSearch statedOnly = search;
    statedOnly.offsetMinMs = statedOnly.offsetMaxMs = searchStatedMs;
    const std::vector<AlignmentScore> statedCurve =
        offsetCurve(motion, *in.gyro, stated, statedOnly);
    st.statedRmsPx = statedCurve.empty() ? 0 : statedCurve.front().rmsPx / scale;

    std::vector<AlignmentScore> ranked = rankQuickly(motion, *in.gyro, search);
    const auto best = std::find_if(ranked.begin(), ranked.end(),
                                   [](const AlignmentScore& a) { return a.map.isRotation(); });
    if (best == ranked.end())
        return st;
    st.bestAxes = best->map.text();
    st.bestOffsetMs = best->offsetMs - exposureUs * 0.5e-3;
    st.bestRmsPx = best->rmsPx / scale;
    st.bestAgreement = stackedCorrelation(
        predictionSeries(motion, *in.gyro, best->map, best->offsetMs, search, t0, 1.0 / scale),
        300);

    char buf[400];
    if (st.agreement < kPoorAgreement) {
        std::snprintf(buf, sizeof buf,
                      "gyro and image motion agree poorly (correlation %.2f with the configured "
                      "axes %s and offset %.1f ms); the stabilization cannot be trusted",
                      st.agreement, st.statedAxes.c_str(), st.statedOffsetMs);
        st.warnings.push_back(buf);
    }
    const bool clearlyBetter = st.bestRmsPx < (1.0 - kClearlyBetter) * st.statedRmsPx;
    if (st.bestAxes != st.statedAxes && clearlyBetter) {
        std::snprintf(buf, sizeof buf,
                      "the gyro axes %s fit the image motion better than the configured %s "
                      "(prediction error %.2f px instead of %.2f px, correlation %.2f instead of "
                      "%.2f): set vstab.gyroAxes=%s",
                      st.bestAxes.c_str(), st.statedAxes.c_str(), st.bestRmsPx, st.statedRmsPx,
                      st.bestAgreement, st.agreement, st.bestAxes.c_str());
        st.warnings.push_back(buf);
    } else if (std::fabs(st.bestOffsetMs - st.statedOffsetMs) > kOffsetToleranceMs &&
               (clearlyBetter || st.bestAxes == st.statedAxes)) {
        std::snprintf(buf, sizeof buf,
                      "a gyro time offset of %.1f ms fits the image motion better than the "
                      "configured %.1f ms (prediction error %.2f px instead of %.2f px): set "
                      "vstab.gyroTimeOffsetNs=%lld",
                      st.bestOffsetMs, st.statedOffsetMs, st.bestRmsPx, st.statedRmsPx,
                      static_cast<long long>(std::llround(st.bestOffsetMs * 1e6)));
        st.warnings.push_back(buf);
    }
    return st;
}

std::string withCalibration(const std::string& configText, const std::string& axes,
                            double offsetMs) {
    const std::string axesLine = "vstab.gyroAxes=" + axes;
    const std::string offsetLine =
        "vstab.gyroTimeOffsetNs=" + std::to_string(std::llround(offsetMs * 1e6));
    std::string out;
    bool haveAxes = false, haveOffset = false;
    std::istringstream lines(configText);
    for (std::string line; std::getline(lines, line);) {
        const size_t first = line.find_first_not_of(" \t");
        const std::string body = first == std::string::npos ? "" : line.substr(first);
        auto isKey = [&body](const char* key) {
            const std::string k(key);
            if (body.compare(0, k.size(), k) != 0)
                return false;
            const size_t eq = body.find_first_not_of(" \t", k.size());
            return eq != std::string::npos && body[eq] == '=';
        };
        if (isKey("vstab.gyroAxes")) {
            line = axesLine;
            haveAxes = true;
        } else if (isKey("vstab.gyroTimeOffsetNs")) {
            line = offsetLine;
            haveOffset = true;
        }
        out += line + "\n";
    }
    if (!haveAxes)
        out += axesLine + "\n";
    if (!haveOffset)
        out += offsetLine + "\n";
    return out;
}

std::vector<GrayImage> readLumas(FrameSource& frames, int factor) {
    std::vector<GrayImage> out(static_cast<size_t>(frames.count()));
    Nv21Image nv21;
    nv21.resize(frames.width(), frames.height());
    for (int i = 0; i < frames.count(); ++i) {
        frames.read(i, nv21);
        GrayImage& g = out[static_cast<size_t>(i)];
        g.resize(frames.width() / factor, frames.height() / factor);
        downsampleLuma(nv21.y(), nv21.width, nv21.height, nv21.width, factor, g);
    }
    return out;
}

}  // namespace qlmr::replay
