// Finding how a gyroscope's axes and clock relate to a camera's, from the pictures alone:
// the rotation the gyro predicts between two frames is compared with the global motion
// measured between their pictures, for every signed permutation of the axes and a range of
// time offsets. Used to prepare real recordings whose axis signs and offset are unknown.
#pragma once

#include "input/Recording.h"
#include "measure/Motion.h"
#include "media/Image.h"
#include "sim/Rotation.h"

#include <string>
#include <vector>

namespace qlmr::replay {

using sim::V3;

// Camera-axis rate = signed permutation of the raw gyro rate:
// cam[i] = sign[i] * raw[source[i]]. Written like "y,x,-z" (camera x from raw y, ...).
struct AxisMap {
    int source[3] = {0, 1, 2};
    int sign[3] = {1, 1, 1};

    V3 apply(const V3& raw) const;
    std::string text() const;
    static AxisMap parse(const std::string& text);  // throws ReplayError
    static std::vector<AxisMap> all();              // the 48 signed permutations
    bool isRotation() const;                        // determinant +1
};

// A rolling-shutter picture's rows are read at different times, so the motion between two
// frames differs from row to row, while the registration fits one similarity to all of them:
// it averages the rows' motions by their texture, and a yaw during the readout (the rows
// shifted sideways by different amounts, a shear) partly shows as roll. The gyro's
// prediction is therefore made for kRowBands horizontal bands of rows, each at the time its
// middle row is read, and mixed as the registration mixes them.
constexpr int kRowBands = 4;

// Global motion between consecutive frames, measured on their pictures.
struct FrameMotion {
    double startSec = 0;  // frame timestamps (s), first row
    double endSec = 0;
    double tx = 0;  // content displacement (pixels of the measured pictures' size)
    double ty = 0;
    double angle = 0;  // content rotation, radians
    // mix[b][k][j]: the share of row band b's motion component j (tx, ty, angle; band 0 at
    // the top) in the registered component k. Solved from the registration's normal equations
    // on the first picture's gradients (rowBandMix); every band moving alike gives that
    // motion. Default: the mean of the bands.
    double mix[kRowBands][3][3] = {};
    bool ok = false;

    FrameMotion();
};

// The band mix of a registration whose reference picture is `g` and whose result is
// `registered`: the similarity (tx, ty, angle, scale) least-squares fit that the
// registration's Gauss-Newton steps make to a motion differing by band, on g's
// central-difference gradients where `registered` maps them inside the picture. The bands'
// mean when g has too little texture to solve.
void rowBandMix(const GrayImage& g, const Similarity& registered, double mix[kRowBands][3][3]);

// The registration options of the frame-to-frame measurement.
MotionOptions frameMotionOptions();

// Measures consecutive pairs of `lumas` (all the same size), taken at `timesSec`.
std::vector<FrameMotion> measureFrameMotion(const std::vector<GrayImage>& lumas,
                                            const std::vector<double>& timesSec, int threads);

// The same from registrations already made: pairs[i] registered lumas[i + 1] on lumas[i] with
// frameMotionOptions() (the replay's pixel-motion measure shares its input pairs this way).
std::vector<FrameMotion> frameMotionFrom(const std::vector<const GrayImage*>& lumas,
                                         const std::vector<double>& timesSec,
                                         const std::vector<MotionEstimate>& pairs);

// Rotation vector of the camera between gyro times t0 and t1 (seconds, gyro clock), from raw
// samples mapped by `map`, integrated with the samples' rates held piecewise linear.
V3 integrateRotation(const std::vector<GyroSample>& gyro, const AxisMap& map, double t0, double t1);

// The motion the registration of pair `f` measures when the camera turns as the gyro says:
// each row band's rotation (gyro samples mapped by `map`, from the band's middle-row time in
// the first frame to that in the second, `offsetMs` after the frame time, rows read out over
// `readoutMs`), as content motion of a `focalPx` picture, mixed by f.mix. Out: tx, ty in
// pixels, angle in radians.
void predictPairMotion(const FrameMotion& f, const std::vector<GyroSample>& gyro,
                       const AxisMap& map, double offsetMs, double readoutMs, double focalPx,
                       double out[3]);

// The same from the bands' camera rotations (camera axes), already integrated.
void mixBandRotations(const FrameMotion& f, const V3 (&bandRotation)[kRowBands], double focalPx,
                      double out[3]);

// Gyro time of row band b's middle row relative to the frame time, ms (offset excluded).
double bandTimeMs(int band, double readoutMs);

// Content motion a camera rotation r (camera axes, radians) causes in a pinhole picture of
// focal length f: (-f r.y, f r.x) and content rotation -r.z (small-angle form).
void predictedMotion(const V3& r, double focalPx, double& tx, double& ty, double& angle);

// Frame pairs whose prediction error lies far beyond the others' must not decide a score, a
// fit or an agreement: one damaged gyro sample or one mis-registered frame pair would. A pair
// is an outlier when its error (translation, and rotation at the search's radius) exceeds the
// median error by more than kOutlierSpread robust standard deviations (1.4826 x the median
// absolute deviation from the median), and by kOutlierMinPx at least. Outliers are left out of
// correlations and fits; in an error (rmsPx) each counts as the limit itself, so that a wrong
// mapping cannot score better by having more of its pairs declared outliers.
constexpr double kOutlierSpread = 8;
constexpr double kOutlierMinPx = 1;

// The error above which a pair with one of these prediction errors (pixels) is an outlier;
// infinity when there are too few pairs, or too few usable ones, to judge. NaN errors are
// outliers.
double outlierLimit(const std::vector<double>& errorsPx);

// Root mean square of the errors, each outlier counted as `limit`.
double robustRms(const std::vector<double>& errorsPx, double limit);

struct AlignmentScore {
    AxisMap map;
    double offsetMs = 0;  // gyro time minus frame time of the same instant
    double rmsPx = 0;     // prediction error: translation, and rotation at `radiusPx`
    int pairs = 0;        // pairs scored
    int outliers = 0;     // of them, counted at the outlier limit
};

struct AlignmentSearch {
    double focalPx = 0;    // of the measured pictures
    double readoutMs = 0;  // rolling shutter: first row to last (the row bands' times)
    double offsetMinMs = -60;
    double offsetMaxMs = 60;
    double offsetStepMs = 1;
    double radiusPx = 300;  // weight of rotation errors
};

// The best offset of one map near `start` (a search-grid minimum, `search.offsetStepMs`
// apart from its neighbours): ten steps of a tenth around it, then the vertex of the parabola
// through the squared errors at the best of them and its two neighbours, kept when it scores
// better. Resolves the offset far below the fine step (about 0.01 ms on a clean recording).
AlignmentScore refineOffset(const std::vector<FrameMotion>& motion,
                            const std::vector<GyroSample>& gyro, const AlignmentScore& start,
                            const AlignmentSearch& search);

// Prediction error (rmsPx) of one map and offset, with the pairs' own errors: each pair's
// squared error, outliers counted at the limit (so that their mean is rmsPx squared).
AlignmentScore scoreAlignment(const std::vector<FrameMotion>& motion,
                              const std::vector<GyroSample>& gyro, const AxisMap& map,
                              double offsetMs, const AlignmentSearch& search,
                              std::vector<double>* squaredErrors = nullptr);

// Best offset for every axis map, best first.
std::vector<AlignmentScore> rankAlignments(const std::vector<FrameMotion>& motion,
                                           const std::vector<GyroSample>& gyro,
                                           const AlignmentSearch& search);

// Per-component agreement of prediction and measurement for one map and offset: correlation
// and least-squares gain (measured = gain * predicted) of tx, ty and the rotation, outliers
// left out. A wrong sign shows as a negative correlation of that component.
struct ComponentFit {
    double correlation[3] = {0, 0, 0};
    double gain[3] = {0, 0, 0};
    double predictedRms[3] = {0, 0, 0};
    double measuredRms[3] = {0, 0, 0};
};
ComponentFit fitComponents(const std::vector<FrameMotion>& motion,
                           const std::vector<GyroSample>& gyro, const AxisMap& map, double offsetMs,
                           const AlignmentSearch& search);

// The picture the second frame of pair `f` would show if the camera turned as the gyro says:
// `first` (the pair's first picture) warped row by row. Each output row is read at its own
// time in the second frame, and its source point at the time its source row is read in the
// first (found by iteration), both `offsetMs` after the frame times, rows read out over
// `readoutMs` (row centres, as bandTimeMs). Pinhole of `focalPx` centred in the picture;
// bilinear sampling, the edge repeated outside. `out` is resized to `first`'s size.
void gyroWarpedPicture(const GrayImage& first, const FrameMotion& f,
                       const std::vector<GyroSample>& gyro, const AxisMap& map, double offsetMs,
                       double readoutMs, double focalPx, GrayImage& out);

// The band model (predictPairMotion) follows the registration only linearly, while the
// registration answers a rolling shutter's distortion nonlinearly (its robust weights, which
// rows drop out at the edge): with a 30 ms readout that leaves the best offset about a
// millisecond late. The registration's own answer fixes it: for every registered pair i of
// `motion`, pictures[i] warped as the gyro says (gyroWarpedPicture, `map`, `offsetMs`) is
// registered on pictures[i] with frameMotionOptions(), and what that registration measures
// beyond the band model's prediction is taken off the measured motion. The band model then
// predicts the corrected motion without that bias near `offsetMs` (the response barely
// changes over a few milliseconds). Pairs not registered are returned as they were.
// `pictures` has one more entry than `motion`; throws ReplayError otherwise.
std::vector<FrameMotion> responseCorrected(const std::vector<const GrayImage*>& pictures,
                                           const std::vector<FrameMotion>& motion,
                                           const std::vector<GyroSample>& gyro, const AxisMap& map,
                                           double offsetMs, const AlignmentSearch& search,
                                           int threads);

// Rounds of correction and refinement in refineByRegistration. One: the response taken at
// the band model's answer (under a millisecond off) puts the offset within 0.07 ms on the
// synthetic walk, pan, jog and sway recordings; a second round, at that answer, moved it by
// 0.08 ms at most, no closer on average, for the cost of another warp and registration per
// pair on every replay.
constexpr int kResponseRounds = 1;

// The best offset of `start.map` near `start.offsetMs` (a search minimum): the motion is
// corrected by the registration's response at the current offset (responseCorrected) and the
// offset refined on it (refineOffset), kResponseRounds times. `corrected` receives the last
// corrected motion, on which the returned score was made.
AlignmentScore refineByRegistration(const std::vector<const GrayImage*>& pictures,
                                    const std::vector<FrameMotion>& motion,
                                    const std::vector<GyroSample>& gyro,
                                    const AlignmentScore& start, const AlignmentSearch& search,
                                    int threads, std::vector<FrameMotion>& corrected);

// The prediction error of one map over the whole offset range (for plotting the curve).
std::vector<AlignmentScore> offsetCurve(const std::vector<FrameMotion>& motion,
                                        const std::vector<GyroSample>& gyro, const AxisMap& map,
                                        const AlignmentSearch& search);

}  // namespace qlmr::replay
