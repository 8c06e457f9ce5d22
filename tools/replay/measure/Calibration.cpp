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
// Consecutive frame pairs share their motion (and a gyro sample or two), so their errors are
// not independent: the noise of an error drop is estimated from blocks of this many pairs
// (half a second at 30 fps).
constexpr int kNoiseBlock = 15;

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

// The standard error (pixels) of the drop in RMS error from `aSq` to `bSq` (the same pairs'
// squared errors under two candidates): the per-pair differences averaged in blocks of
// consecutive pairs, the spread of the block means over the root of their count, carried
// from the mean square to the RMS (d rms = d ms / (rms_a + rms_b)).
double errorDropNoise(const std::vector<double>& aSq, const std::vector<double>& bSq) {
    const size_t n = std::min(aSq.size(), bSq.size());
    // At least 8 blocks, of kNoiseBlock pairs at most.
    const size_t block = std::max<size_t>(1, std::min<size_t>(kNoiseBlock, n / 8));
    std::vector<double> means;
    double sumA = 0, sumB = 0;
    for (size_t i = 0; i + block <= n; i += block) {
        double d = 0;
        for (size_t j = i; j < i + block; ++j)
            d += aSq[j] - bSq[j];
        means.push_back(d / block);
    }
    for (size_t i = 0; i < n; ++i) {
        sumA += aSq[i];
        sumB += bSq[i];
    }
    if (means.size() < 2)
        return INFINITY;
    double mean = 0, var = 0;
    for (const double m : means)
        mean += m / means.size();
    for (const double m : means)
        var += (m - mean) * (m - mean) / (means.size() - 1);
    const double rmsSum = std::sqrt(sumA / n) + std::sqrt(sumB / n);
    return rmsSum > 0 ? std::sqrt(var / means.size()) / rmsSum : INFINITY;
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
        CalibrationPoint c;
        c.timeSec = f.startSec - t0Sec;
        predictPairMotion(f, gyro, map, offsetMs, s.readoutMs, s.focalPx, c.predicted);
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
// for the mirror images). The best few mappings are then refined exactly (refineOffset).
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
    using Bands = V3[kRowBands];
    std::vector<Bands> rotation(offsets.size() * pairs.size());
    for (size_t k = 0; k < offsets.size(); ++k) {
        for (size_t p = 0; p < pairs.size(); ++p) {
            const FrameMotion& f = *pairs[p];
            for (int b = 0; b < kRowBands; ++b) {
                const double shift = (bandTimeMs(b, s.readoutMs) + offsets[k]) * 1e-3;
                rotation[k * pairs.size() + p][b] =
                    integrateRotation(gyro, raw, f.startSec + shift, f.endSec + shift);
            }
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
                V3 mapped[kRowBands];
                for (int b = 0; b < kRowBands; ++b)
                    mapped[b] = map.apply(rotation[k * pairs.size() + p][b]);
                double m[3];
                mixBandRotations(f, mapped, s.focalPx, m);
                const double ea = (m[2] - f.angle) * s.radiusPx;
                errors[p] = std::sqrt((m[0] - f.tx) * (m[0] - f.tx) +
                                      (m[1] - f.ty) * (m[1] - f.ty) + ea * ea);
            }
            // Scored as scoreAlignment does: outliers counted at the limit.
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
        b = refineOffset(motion, gyro, b, s);
    }
    std::sort(best.begin(), best.end(),
              [](const AlignmentScore& a, const AlignmentScore& b) { return a.rmsPx < b.rmsPx; });
    return best;
}

}  // namespace

bool clearlyBetter(double configuredRmsPx, double candidateRmsPx, double noisePx) {
    const double drop = configuredRmsPx - candidateRmsPx;
    return drop > kNoiseMargin * noisePx && drop > kMinDrop * configuredRmsPx;
}

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

    // The pictures for the registration's response (responseCorrected), when at hand.
    std::vector<const GrayImage*> pictures = in.pictures;
    if (!premeasured) {
        pictures.clear();
        for (const GrayImage& g : in.lumas)
            pictures.push_back(&g);
    }
    const bool reregister = pictures.size() == motion.size() + 1;

    // Each candidate with the motion it was scored on (corrected by the registration's
    // response for its mapping, when the pictures are at hand) and its pairs' squared errors
    // (outliers at their limit), for the pair-by-pair comparison of clearlyBetter.
    struct Candidate {
        AlignmentScore score;
        std::vector<FrameMotion> motion;
        std::vector<double> squared;
    };
    // The best offset of a mapping near a search minimum.
    const auto refine = [&](const AlignmentScore& start) {
        Candidate c;
        if (reregister) {
            c.score = refineByRegistration(pictures, motion, *in.gyro, start, search, in.threads,
                                           c.motion);
        } else {
            c.motion = motion;
            c.score = refineOffset(motion, *in.gyro, start, search);
        }
        scoreAlignment(c.motion, *in.gyro, c.score.map, c.score.offsetMs, search, &c.squared);
        return c;
    };

    std::vector<AlignmentScore> ranked = rankQuickly(motion, *in.gyro, search);
    const auto quickBest = std::find_if(ranked.begin(), ranked.end(),
                                        [](const AlignmentScore& a) { return a.map.isRotation(); });
    if (quickBest == ranked.end())
        return st;
    const Candidate bestC = refine(*quickBest);
    const AlignmentScore* best = &bestC.score;
    const auto agreementOf = [&](const AxisMap& map, double offsetMs) {
        return stackedCorrelation(
            predictionSeries(motion, *in.gyro, map, offsetMs, search, t0, 1.0 / scale), 300);
    };
    st.bestAxes = best->map.text();
    st.bestOffsetMs = best->offsetMs - exposureUs * 0.5e-3;
    st.bestRmsPx = best->rmsPx / scale;
    st.bestAgreement = agreementOf(best->map, best->offsetMs);

    // The configured mapping at its own best offset: the alternative that changes the offset
    // only.
    Candidate statedBestC = bestC;
    if (st.bestAxes != st.statedAxes) {
        const auto it = std::find_if(ranked.begin(), ranked.end(), [&](const AlignmentScore& a) {
            return a.map.text() == st.statedAxes;
        });
        statedBestC = refine(*it);
    }
    const AlignmentScore& statedBest = statedBestC.score;
    st.statedMapOffsetMs = statedBest.offsetMs - exposureUs * 0.5e-3;
    st.statedMapRmsPx = statedBest.rmsPx / scale;
    st.statedMapAgreement = st.bestAxes == st.statedAxes
                                ? st.bestAgreement
                                : agreementOf(statedBest.map, statedBest.offsetMs);
    // The configured values, on the motion corrected for the configured mapping.
    Candidate statedC;
    statedC.score = scoreAlignment(statedBestC.motion, *in.gyro, stated, searchStatedMs, search,
                                   &statedC.squared);
    st.statedRmsPx = statedC.score.rmsPx / scale;

    // Is a candidate clearly better than the values it would replace? Compared pair by pair
    // on the squared prediction errors.
    const auto compare = [&](const Candidate& a, const Candidate& b, double& noisePx) {
        noisePx = errorDropNoise(a.squared, b.squared) / scale;
        return clearlyBetter(a.score.rmsPx / scale, b.score.rmsPx / scale, noisePx);
    };

    char buf[600];
    st.useAxes = st.statedAxes;
    st.useOffsetMs = st.statedOffsetMs;
    st.useAgreement = st.agreement;
    double mapNoise = 0, offsetNoise = 0;
    const bool otherMapping = st.bestAxes != st.statedAxes;
    // A mapping change must beat the configured mapping at its best offset, clearly, and
    // agree better with the pictures.
    const bool mappingBetter = otherMapping && compare(statedBestC, bestC, mapNoise) &&
                               st.bestAgreement > st.statedMapAgreement;
    const bool offsetBetter = compare(statedC, statedBestC, offsetNoise);
    if (mappingBetter) {
        st.changed = true;
        st.useAxes = st.bestAxes;
        st.useOffsetMs = st.bestOffsetMs;
        st.useAgreement = st.bestAgreement;
        st.noisePx = mapNoise;
        std::snprintf(buf, sizeof buf,
                      "the gyro axes %s fit the image motion clearly better than the configured "
                      "%s (prediction error %.2f px instead of %.2f px at its best offset, noise "
                      "%.3f px; correlation %.3f instead of %.3f): set vstab.gyroAxes=%s and "
                      "vstab.gyroTimeOffsetNs=%lld",
                      st.bestAxes.c_str(), st.statedAxes.c_str(), st.bestRmsPx, st.statedMapRmsPx,
                      mapNoise, st.bestAgreement, st.statedMapAgreement, st.bestAxes.c_str(),
                      static_cast<long long>(std::llround(st.bestOffsetMs * 1e6)));
        st.verdict = buf;
        st.warnings.push_back(buf);
    } else if (offsetBetter) {
        st.changed = true;
        st.useOffsetMs = st.statedMapOffsetMs;
        st.useAgreement = st.statedMapAgreement;
        st.noisePx = offsetNoise;
        std::snprintf(buf, sizeof buf,
                      "a gyro time offset of %.2f ms fits the image motion clearly better than "
                      "the configured %.2f ms (prediction error %.2f px instead of %.2f px, "
                      "noise %.3f px): set vstab.gyroTimeOffsetNs=%lld",
                      st.statedMapOffsetMs, st.statedOffsetMs, st.statedMapRmsPx, st.statedRmsPx,
                      offsetNoise,
                      static_cast<long long>(std::llround(st.statedMapOffsetMs * 1e6)));
        st.verdict = buf;
        st.warnings.push_back(buf);
    } else {
        st.noisePx = otherMapping ? mapNoise : offsetNoise;
        const double theirRms = otherMapping ? st.statedMapRmsPx : st.statedRmsPx;
        const double theirAgreement = otherMapping ? st.statedMapAgreement : st.agreement;
        std::snprintf(buf, sizeof buf,
                      "the configured axes %s and offset %.2f ms are kept: the best fit (%s, "
                      "%.2f ms, error %.2f px against %.2f px, correlation %.3f against %.3f) is "
                      "not clearly better (the error must drop by more than %.0f times its noise "
                      "of %.3f px and by %.0f %%%s)",
                      st.statedAxes.c_str(), st.statedOffsetMs, st.bestAxes.c_str(),
                      st.bestOffsetMs, st.bestRmsPx, theirRms, st.bestAgreement, theirAgreement,
                      kNoiseMargin, st.noisePx, kMinDrop * 100,
                      otherMapping ? ", and the correlation rise, for another mapping" : "");
        st.verdict = buf;
    }
    if (st.agreement < kPoorAgreement) {
        std::snprintf(buf, sizeof buf,
                      "gyro and image motion agree poorly (correlation %.2f with the configured "
                      "axes %s and offset %.1f ms); the stabilization cannot be trusted",
                      st.agreement, st.statedAxes.c_str(), st.statedOffsetMs);
        st.warnings.insert(st.warnings.begin(), buf);
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

int calibrationReduction(int frameWidth) {
    return std::max(1, (frameWidth + 639) / 640);
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
