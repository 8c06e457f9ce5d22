// Gyro calibration of any recording from its pictures: how well the configured axis mapping
// and time offset predict the image motion between consecutive frames, which mapping and
// offset would predict it best, and the configuration text with the better values written in.
// Built on GyroAlignment (the measurement and the search); pure functions apart from the
// worker threads of the image measurement.
#pragma once

#include "input/Recording.h"
#include "measure/GyroAlignment.h"
#include "media/Image.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qlmr::replay {

// One frame pair: the image-measured and the gyro-predicted content motion (configured axes
// and offset): translation x, y in pixels of the frame and rotation in radians.
struct CalibrationPoint {
    double timeSec = 0;  // pair start, seconds from the first frame
    double measured[3] = {0, 0, 0};
    double predicted[3] = {0, 0, 0};
    bool outlier = false;  // left out of the agreement (outlierLimit)
};

struct CalibrationStats {
    bool measured = false;  // enough frame pairs were registered to judge
    int pairs = 0;
    // What the configuration states, as the stabilization library reads it.
    std::string statedAxes;
    double statedOffsetMs = 0;
    // Agreement of gyro-predicted and image-measured frame-to-frame motion: the correlation of
    // the two over every pair and component (translation in pixels, rotation at 300 px radius).
    double agreement = 0;
    double statedRmsPx = 0;  // prediction error with the stated values
    // Pairs left out of the stated values' agreement (and counted at the outlier limit in their
    // error): their prediction misses the image motion far more than the others' (a damaged
    // gyro sample, a mis-registered pair).
    int outlierPairs = 0;
    double componentCorrelation[3] = {0, 0, 0};
    // The best mapping (a rotation) and offset, found by search (1 ms steps, then 0.1 ms, then
    // the vertex of a parabola through the errors).
    std::string bestAxes;
    double bestOffsetMs = 0;
    double bestAgreement = 0;
    double bestRmsPx = 0;
    // The configured mapping at its own best offset (the best fit when that is the mapping).
    double statedMapOffsetMs = 0;
    double statedMapRmsPx = 0;
    double statedMapAgreement = 0;
    // What to use (qlmr_calibrate writes it, --calibrate replays with it): a mapping or an
    // offset that fits clearly better (clearlyBetter) than the values it replaces, else the
    // configured values. A mapping change also needs a higher agreement, and is weighed
    // against the configured mapping at its best offset; the offset alone, against the
    // configured values.
    bool changed = false;
    std::string useAxes;
    double useOffsetMs = 0;
    double useAgreement = 0;
    double noisePx = 0;   // standard error of the error drop that was weighed
    std::string verdict;  // one sentence: what changes and why, or why nothing does
    std::vector<CalibrationPoint> series;     // stated values, for the plot
    std::vector<std::string> warnings;        // poor agreement, a clearly better mapping or offset
    std::vector<std::string> configWarnings;  // the library's own words about the text
};

// The frames to calibrate on: reduced lumas (all the same size) with their timestamps, or
// the motion between them already measured.
struct CalibrationInput {
    std::vector<GrayImage> lumas;
    // When not empty, used instead of measuring `lumas`: the motion of every consecutive pair
    // (frameMotionFrom / measureFrameMotion) on pictures `measuredWidth` pixels wide.
    std::vector<FrameMotion> motion;
    int measuredWidth = 0;
    // With `motion`: the pictures it was measured on (one more than its pairs), for the
    // offset's refinement by re-registration; without them the band model alone decides.
    std::vector<const GrayImage*> pictures;
    std::vector<int64_t> timestampsNs;  // start of each frame (first row), recording clock
    std::vector<int> exposureUs;
    int frameWidth = 0;  // the recording's frame width (the lumas may be smaller)
    const std::vector<GyroSample>* gyro = nullptr;
    std::string configText;
    int threads = 2;
};

// Agreement below this is reported as poor.
constexpr double kPoorAgreement = 0.8;

// A candidate fits clearly better when its RMS prediction error lies below the configured
// values' by more than kNoiseMargin standard errors of that drop (the measurement noise,
// estimated from the pairs' own errors) and by kMinDrop of the configured error: a gain
// within the noise, or too small to matter, is not worth rewriting a configuration for.
constexpr double kNoiseMargin = 3;
constexpr double kMinDrop = 0.02;
bool clearlyBetter(double configuredRmsPx, double candidateRmsPx, double noisePx);

// Measures and judges. Throws ReplayError when the configuration text is refused by the
// library (the message names the fault).
CalibrationStats calibrate(const CalibrationInput& input);

// `configText` with vstab.gyroAxes and vstab.gyroTimeOffsetNs set to the given values:
// existing lines replaced in place, missing ones appended.
std::string withCalibration(const std::string& configText, const std::string& axes,
                            double offsetMs);

// The reduction the gyro calibration measures frames `frameWidth` pixels wide at: the replay's
// own luma reduction (OutputRecorder, about 640 pixels wide, as long as the recording fits
// its luma budget), so that qlmr_calibrate, --calibrate and the check of every replay register
// the same pictures and find the same figures.
int calibrationReduction(int frameWidth);

// Reduced lumas (factor `factor`) of every frame of `frames`, read once in order.
std::vector<GrayImage> readLumas(FrameSource& frames, int factor);

}  // namespace qlmr::replay
