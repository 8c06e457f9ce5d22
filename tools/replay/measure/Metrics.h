// What a replay measured: frame counts, timing, global motion from pixels for input and
// output, cropping, and (synthetic recordings) jitter against the known camera path.
#pragma once

#include "measure/Calibration.h"
#include "measure/EngineLog.h"
#include "measure/Motion.h"
#include "measure/Signal.h"
#include "output/OutputRecorder.h"

#include <memory>
#include <string>
#include <vector>

namespace qlmr::replay {

class SyntheticRecording;

// A per-frame path: time (s) and x, y (pixels), roll (degrees).
struct PathSeries {
    std::vector<double> t;
    std::vector<double> x;
    std::vector<double> y;
    std::vector<double> roll;

    void add(double time, double px, double py, double r) {
        t.push_back(time);
        x.push_back(px);
        y.push_back(py);
        roll.push_back(r);
    }
};

// Motion of one stream measured from its pixels, frame to frame.
struct PixelMotionStats {
    int pairs = 0;               // consecutive frame pairs measured
    int failed = 0;              // pairs the estimator could not register
    double jitterPx = 0;         // RMS of the high-passed chained path (x and y together)
    double rollJitterDeg = 0;    // the same for the chained roll
    double jitterSettledPx = 0;  // the same, leaving the first second out of the mean
    double meanStepPx = 0;       // mean frame-to-frame translation length
    double stabilityTranslation = 0;
    double stabilityRotation = 0;
    double stability = 0;  // mean of the two
    PathSeries path;       // chained camera path (the negative of the content's motion)
};

struct CropStats {
    int frames = 0;        // output frames registered against their input frame
    double meanScale = 0;  // output pixel size in input pixels (below 1 = magnified)
    double cropping = 0;   // mean retained area share (scale squared), 1 = no cropping
    double minCropping = 0;
    std::vector<double> timeSec;   // per registered output frame: recording time
    std::vector<double> retained;  // and the share of the input's area it keeps
};

// Against the synthetic recording's ground truth: deviation of the view from the intended
// (shake-free) path.
struct TruthStats {
    double inputJitterPx = 0;   // high-passed deviation RMS, input pixels
    double outputJitterPx = 0;  // output pixels
    double jitterRatio = 0;     // input / output
    // The same after the first `settleSec` of the recording (a stabilizer starts from the
    // first frame's view and needs about one smoothing window to reach its path).
    double settleSec = 1.0;
    double inputJitterSettledPx = 0;
    double outputJitterSettledPx = 0;
    double jitterRatioSettled = 0;
    double inputJitterDeg = 0;
    double outputJitterDeg = 0;
    double inputRollJitterDeg = 0;
    double outputRollJitterDeg = 0;
    double inputStability = 0;
    double outputStability = 0;
    double intendedStability = 0;
    int outputFrames = 0;
    // Camera paths in degrees (x = yaw-like, y = pitch-like, roll), for the plots.
    PathSeries actual;
    PathSeries intended;
    PathSeries output;
};

struct ReplayMetrics {
    std::string sessionName;
    std::string inputDescription;
    int inputWidth = 0;
    int inputHeight = 0;
    double fps = 0;
    int gyroSamples = 0;
    int64_t firstTimestampNs = 0;  // recording time of the first delivered frame

    int framesIn = 0;
    int framesDelivered = 0;
    int framesOut = 0;
    int framesDropped = 0;  // delivered but never output
    int framesLate = 0;
    int unmatchedOutputs = 0;
    std::vector<int> framesPerSurface;
    double wallSec = 0;
    double throughputFps = 0;

    Percentiles outputLatencyMs;
    Percentiles outputIntervalMs;
    Percentiles deliveryIntervalMs;
    std::vector<double> frameTimeSec;    // per output frame: recording time of the frame
    std::vector<double> frameLatencyMs;  // per output frame
    EngineLogStats engine;

    PixelMotionStats inputMotion;
    PixelMotionStats outputMotion;
    double pixelJitterRatio = 0;
    double pixelJitterRatioSettled = 0;  // after the first second, as for the ground truth
    CropStats crop;
    bool hasTruth = false;
    TruthStats truth;
    CalibrationStats calibration;  // gyro against image motion on the input frames
    // The input's consecutive pairs as registered for inputMotion (pixels of the recorder's
    // lumas, lumaWidth wide): the gyro calibration measures the same pairs and reuses them.
    std::vector<FrameMotion> inputPairMotion;
    int lumaWidth = 0;
    std::string calibratedFrom;         // with --calibrate: what the configuration stated before
    std::vector<std::string> warnings;  // something the reader should check
    std::vector<std::string> notes;     // informational: how the run was made
};

struct MetricsContext {
    const OutputRecorder* recorder = nullptr;
    const SyntheticRecording* synthetic = nullptr;  // null for folder recordings
    double fps = 30;
    int threads = 2;
    double highPassSec = 0.5;  // sigma of the smoothing that separates shake from intent
};

// Fills the measured parts of `m` (motion, crop, truth, timing) from what the recorder kept.
void computeMetrics(const MetricsContext& context, ReplayMetrics& m);

// metrics.json text.
std::string metricsJson(const ReplayMetrics& m);

}  // namespace qlmr::replay
