#include "measure/Metrics.h"

#include "synthetic/Synthetic.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

namespace qlmr::replay {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kRadToDeg = 180.0 / kPi;

// Chained frame-to-frame motion of a sequence of luma pictures (registered with the options
// of the gyro calibration's frame-to-frame measure, which can then reuse them); `pairs`
// receives each pair's registration.
PixelMotionStats chainedMotion(const std::vector<const GrayImage*>& frames,
                               const std::vector<double>& times, int factor, double sigmaFrames,
                               int threads, std::vector<MotionEstimate>& pairs) {
    PixelMotionStats s;
    const MotionOptions options = frameMotionOptions();
    std::vector<PairRegistration> jobs;
    for (size_t i = 0; i + 1 < frames.size(); ++i) {
        jobs.push_back({frames[i], frames[i + 1], Similarity{}, &options, {}});
    }
    registerPairs(jobs, threads);
    pairs.clear();
    for (const PairRegistration& j : jobs)
        pairs.push_back(j.result);
    double x = 0, y = 0, roll = 0;
    std::vector<double> stepLength, stepAngle;
    if (!frames.empty())
        s.path.add(times[0], 0, 0, 0);
    double lengthSum = 0;
    for (size_t i = 0; i < jobs.size(); ++i) {
        const MotionEstimate& e = jobs[i].result;
        ++s.pairs;
        double tx = 0, ty = 0, angle = 0;
        if (e.ok) {
            // Content moves by t between the two frames; the camera turned the other way.
            tx = -e.motion.tx * factor;
            ty = -e.motion.ty * factor;
            angle = -e.motion.angle * kRadToDeg;
        } else {
            ++s.failed;
        }
        x += tx;
        y += ty;
        roll += angle;
        s.path.add(times[i + 1], x, y, roll);
        stepLength.push_back(std::hypot(tx, ty));
        stepAngle.push_back(angle);
        lengthSum += std::hypot(tx, ty);
    }
    s.jitterPx = highPassRms2(s.path.x, s.path.y, sigmaFrames);
    size_t settled = 0;
    while (settled < s.path.t.size() && s.path.t[settled] < 1.0)
        ++settled;
    s.jitterSettledPx = highPassRms2(s.path.x, s.path.y, sigmaFrames, settled);
    s.rollJitterDeg = highPassRms(s.path.roll, sigmaFrames);
    s.meanStepPx = jobs.empty() ? 0 : lengthSum / jobs.size();
    s.stabilityTranslation = stabilityScore(stepLength);
    s.stabilityRotation = stabilityScore(stepAngle);
    s.stability = 0.5 * (s.stabilityTranslation + s.stabilityRotation);
    return s;
}

// Where a camera with orientation r points, as pixel offsets from the world's optical axis
// (focal length f) and roll in degrees.
struct View {
    double x, y, roll;
};
View viewOf(const M3& r, double f) {
    const V3 d = r.col(2);
    const V3 side = r.col(0);
    return {f * d.x() / d.z(), f * d.y() / d.z(), std::atan2(side.y(), side.x()) * kRadToDeg};
}

// Direction in the world of input pixel p (full resolution) of frame `index`, taking the
// rolling shutter into account.
V3 worldRay(const SyntheticRecording& syn, int index, double px, double py) {
    const PinholeCamera& c = syn.camera();
    const M3 r = syn.motion().actual(syn.rowTimeSec(index, py));
    return (r * V3((px - c.cx) / c.focalPx, (py - c.cy) / c.focalPx, 1)).normalized();
}

double toDeg(double px, double f) {
    return std::atan(px / f) * kRadToDeg;
}

std::vector<double> stepLengths(const PathSeries& p) {
    std::vector<double> out;
    for (size_t i = 1; i < p.x.size(); ++i)
        out.push_back(std::hypot(p.x[i] - p.x[i - 1], p.y[i] - p.y[i - 1]));
    return out;
}
std::vector<double> stepRolls(const PathSeries& p) {
    std::vector<double> out;
    for (size_t i = 1; i < p.roll.size(); ++i)
        out.push_back(p.roll[i] - p.roll[i - 1]);
    return out;
}
double pathStability(const PathSeries& p) {
    return 0.5 * (stabilityScore(stepLengths(p)) + stabilityScore(stepRolls(p)));
}

}  // namespace

void computeMetrics(const MetricsContext& ctx, ReplayMetrics& m) {
    const OutputRecorder& rec = *ctx.recorder;
    const int factor = rec.lumaFactor();
    const double sigmaFrames = ctx.highPassSec * ctx.fps;
    const auto& inputs = rec.inputs();
    const auto& outputs = rec.outputs();
    const int delivered = std::min<int>(rec.delivered(), static_cast<int>(inputs.size()));
    const int64_t t0 = delivered > 0 ? inputs[0].timestampNs : 0;
    m.firstTimestampNs = t0;

    // Counts and timing.
    m.framesOut = static_cast<int>(outputs.size());
    m.unmatchedOutputs = rec.unmatchedOutputs();
    m.framesPerSurface = rec.framesPerSurface();
    int matched = 0;
    std::vector<double> latency, interval, deliveryInterval;
    for (size_t k = 0; k < outputs.size(); ++k) {
        const OutputRecord& o = outputs[k];
        if (o.inputIndex >= 0) {
            ++matched;
            const double ms =
                (o.arrivedSec - inputs[static_cast<size_t>(o.inputIndex)].deliveredSec) * 1e3;
            latency.push_back(ms);
            m.frameTimeSec.push_back((o.timestampNs - t0) * 1e-9);
            m.frameLatencyMs.push_back(ms);
        }
        if (k > 0)
            interval.push_back((o.arrivedSec - outputs[k - 1].arrivedSec) * 1e3);
    }
    for (int i = 1; i < delivered; ++i) {
        deliveryInterval.push_back((inputs[static_cast<size_t>(i)].deliveredSec -
                                    inputs[static_cast<size_t>(i - 1)].deliveredSec) *
                                   1e3);
    }
    m.framesDropped = m.framesDelivered - matched;
    m.outputLatencyMs = percentiles(latency);
    m.outputIntervalMs = percentiles(interval);
    m.deliveryIntervalMs = percentiles(deliveryInterval);
    m.throughputFps = m.wallSec > 0 ? m.framesOut / m.wallSec : 0;

    // Pixel motion of both streams.
    {
        std::vector<const GrayImage*> frames;
        std::vector<double> times;
        for (int i = 0; i < delivered; ++i) {
            frames.push_back(&inputs[static_cast<size_t>(i)].luma);
            times.push_back((inputs[static_cast<size_t>(i)].timestampNs - t0) * 1e-9);
        }
        std::vector<MotionEstimate> pairs;
        m.inputMotion = chainedMotion(frames, times, factor, sigmaFrames, ctx.threads, pairs);
        // On the recording's clock, as the gyro samples are.
        std::vector<double> clock;
        for (int i = 0; i < delivered; ++i)
            clock.push_back(inputs[static_cast<size_t>(i)].timestampNs * 1e-9);
        m.inputPairMotion = frameMotionFrom(frames, clock, pairs);
        m.lumaWidth = delivered > 0 ? inputs[0].luma.width : 0;
    }
    {
        std::vector<const GrayImage*> frames;
        std::vector<double> times;
        for (const OutputRecord& o : outputs) {
            frames.push_back(&o.luma);
            times.push_back((o.timestampNs - t0) * 1e-9);
        }
        std::vector<MotionEstimate> pairs;
        m.outputMotion = chainedMotion(frames, times, factor, sigmaFrames, ctx.threads, pairs);
    }
    m.pixelJitterRatioSettled = m.outputMotion.jitterSettledPx > 0
                                    ? m.inputMotion.jitterSettledPx / m.outputMotion.jitterSettledPx
                                    : std::numeric_limits<double>::infinity();
    m.pixelJitterRatio = m.outputMotion.jitterPx > 0
                             ? m.inputMotion.jitterPx / m.outputMotion.jitterPx
                             : std::numeric_limits<double>::infinity();
    if (m.inputMotion.failed > 0) {
        m.warnings.push_back(std::to_string(m.inputMotion.failed) +
                             " input frame pairs could not be registered");
    }
    if (m.outputMotion.failed > 0) {
        m.warnings.push_back(std::to_string(m.outputMotion.failed) +
                             " output frame pairs could not be registered");
    }

    // Each output frame against its own input frame: the crop, and the view for ground truth.
    MotionOptions cropOptions;
    cropOptions.scales = {1.0, 0.9, 0.8, 0.7, 0.6};
    std::vector<PairRegistration> jobs;
    std::vector<int> jobOutput;
    for (size_t k = 0; k < outputs.size(); ++k) {
        const OutputRecord& o = outputs[k];
        if (o.inputIndex < 0)
            continue;
        const GrayImage& in = inputs[static_cast<size_t>(o.inputIndex)].luma;
        if (in.width != o.luma.width || in.height != o.luma.height)
            continue;
        jobs.push_back({&o.luma, &in, Similarity{}, &cropOptions, {}});
        jobOutput.push_back(static_cast<int>(k));
    }
    registerPairs(jobs, ctx.threads);
    double scaleSum = 0, cropSum = 0, cropMin = std::numeric_limits<double>::infinity();
    for (size_t k = 0; k < jobs.size(); ++k) {
        const PairRegistration& j = jobs[k];
        if (!j.result.ok)
            continue;
        const double s = j.result.motion.scale;
        m.crop.timeSec.push_back((outputs[static_cast<size_t>(jobOutput[k])].timestampNs - t0) *
                                 1e-9);
        m.crop.retained.push_back(std::min(1.0, s * s));
        ++m.crop.frames;
        scaleSum += s;
        cropSum += std::min(1.0, s * s);
        cropMin = std::min(cropMin, std::min(1.0, s * s));
    }
    if (m.crop.frames > 0) {
        m.crop.meanScale = scaleSum / m.crop.frames;
        m.crop.cropping = cropSum / m.crop.frames;
        m.crop.minCropping = cropMin;
    } else if (!outputs.empty()) {
        m.warnings.push_back(
            "no output frame could be registered against its input frame (cropping unknown)");
    }

    if (ctx.synthetic == nullptr || delivered == 0)
        return;
    // Ground truth.
    const SyntheticRecording& syn = *ctx.synthetic;
    const PinholeCamera& cam = syn.camera();
    const double f = cam.focalPx;
    m.hasTruth = true;
    TruthStats& t = m.truth;
    // Deviation of the view from the intended one (pixels, roll in degrees), input and output.
    PathSeries devIn, devOut;
    std::vector<double> devOutScale;
    for (int i = 0; i < delivered; ++i) {
        const double tc = syn.rowTimeSec(i, cam.height / 2.0);
        const M3 ra = syn.motion().actual(tc);
        const M3 ri = syn.motion().intended(tc);
        const View va = viewOf(ra, f);
        const View vi = viewOf(ri, f);
        const View dev = viewOf(ri.transpose() * ra, f);
        const double time = (inputs[static_cast<size_t>(i)].timestampNs - t0) * 1e-9;
        t.actual.add(time, toDeg(va.x, f), toDeg(va.y, f), va.roll);
        t.intended.add(time, toDeg(vi.x, f), toDeg(vi.y, f), vi.roll);
        devIn.add(time, dev.x, dev.y, dev.roll);
    }
    for (size_t n = 0; n < jobs.size(); ++n) {
        const MotionEstimate& e = jobs[n].result;
        if (!e.ok)
            continue;
        const OutputRecord& o = outputs[static_cast<size_t>(jobOutput[n])];
        const int i = o.inputIndex;
        // Output centre and a point to its right, mapped into the input picture (full size).
        const double cds = o.luma.width / 2.0, cdy = o.luma.height / 2.0;
        const double cxFull = cam.width / 2.0, cyFull = cam.height / 2.0;
        const Similarity& s = e.motion;
        auto toInput = [&](double ox, double oy, double& ix, double& iy) {
            const double dx = ox - cds, dy = oy - cdy;
            const double mx = s.scale * (std::cos(s.angle) * dx - std::sin(s.angle) * dy) + s.tx;
            const double my = s.scale * (std::sin(s.angle) * dx + std::cos(s.angle) * dy) + s.ty;
            ix = cxFull + factor * mx;
            iy = cyFull + factor * my;
        };
        double ax, ay, bx, by;
        toInput(cds, cdy, ax, ay);
        toInput(cds + 20, cdy, bx, by);
        const V3 z = worldRay(syn, i, ax, ay);
        const V3 side = worldRay(syn, i, bx, by) - z;
        const V3 x = (side - side.dot(z) * z).normalized();
        M3 ro;
        ro << x, z.cross(x), z;
        const double tc = syn.rowTimeSec(i, cam.height / 2.0);
        const M3 ri = syn.motion().intended(tc);
        const double fOut = f / s.scale;  // output pixels per unit of tangent
        const View dev = viewOf(ri.transpose() * ro, fOut);
        const View abs = viewOf(ro, f);
        const double time = (o.timestampNs - t0) * 1e-9;
        t.output.add(time, toDeg(abs.x, f), toDeg(abs.y, f), abs.roll);
        devOut.add(time, dev.x, dev.y, dev.roll);
        devOutScale.push_back(fOut);
        ++t.outputFrames;
    }
    auto firstSettled = [&](const std::vector<double>& times) {
        size_t i = 0;
        while (i < times.size() && times[i] < t.settleSec)
            ++i;
        return i;
    };
    t.inputJitterSettledPx = highPassRms2(devIn.x, devIn.y, sigmaFrames, firstSettled(devIn.t));
    t.outputJitterSettledPx = highPassRms2(devOut.x, devOut.y, sigmaFrames, firstSettled(devOut.t));
    t.jitterRatioSettled = t.outputJitterSettledPx > 0
                               ? t.inputJitterSettledPx / t.outputJitterSettledPx
                               : std::numeric_limits<double>::infinity();
    t.inputJitterPx = highPassRms2(devIn.x, devIn.y, sigmaFrames);
    t.inputJitterDeg = toDeg(t.inputJitterPx, f);
    t.inputRollJitterDeg = highPassRms(devIn.roll, sigmaFrames);
    t.outputJitterPx = highPassRms2(devOut.x, devOut.y, sigmaFrames);
    double fOutMean = f;
    if (!devOutScale.empty()) {
        fOutMean = 0;
        for (double v : devOutScale)
            fOutMean += v;
        fOutMean /= devOutScale.size();
    }
    t.outputJitterDeg = toDeg(t.outputJitterPx, fOutMean);
    t.outputRollJitterDeg = highPassRms(devOut.roll, sigmaFrames);
    t.jitterRatio = t.outputJitterPx > 0 ? t.inputJitterPx / t.outputJitterPx
                                         : std::numeric_limits<double>::infinity();
    t.inputStability = pathStability(t.actual);
    t.intendedStability = pathStability(t.intended);
    t.outputStability = pathStability(t.output);
    if (t.outputFrames < m.framesOut) {
        m.warnings.push_back(
            std::to_string(m.framesOut - t.outputFrames) +
            " output frames have no ground-truth view (registration failed or sizes differ)");
    }
}

namespace {
// Key order as written; non-finite figures (a ratio over a zero jitter) come out as null.
using Json = nlohmann::ordered_json;

Json percentilesJson(const Percentiles& p) {
    return {{"count", p.count}, {"mean", p.mean}, {"p50", p.p50},
            {"p90", p.p90},     {"p99", p.p99},   {"max", p.max}};
}
Json motionJson(const PixelMotionStats& s) {
    return {{"pairs", s.pairs},
            {"failed_pairs", s.failed},
            {"jitter_px", s.jitterPx},
            {"jitter_settled_px", s.jitterSettledPx},
            {"roll_jitter_deg", s.rollJitterDeg},
            {"mean_step_px", s.meanStepPx},
            {"stability_translation", s.stabilityTranslation},
            {"stability_rotation", s.stabilityRotation},
            {"stability", s.stability}};
}
}  // namespace

namespace {

Json calibrationJson(const ReplayMetrics& m) {
    const CalibrationStats& c = m.calibration;
    Json series = Json::object();
    for (const char* name : {"time_s", "measured_x_px", "predicted_x_px", "measured_y_px",
                             "predicted_y_px", "measured_roll_rad", "predicted_roll_rad"}) {
        series[name] = Json::array();
    }
    for (const CalibrationPoint& p : c.series) {
        series["time_s"].push_back(p.timeSec);
        series["measured_x_px"].push_back(p.measured[0]);
        series["predicted_x_px"].push_back(p.predicted[0]);
        series["measured_y_px"].push_back(p.measured[1]);
        series["predicted_y_px"].push_back(p.predicted[1]);
        series["measured_roll_rad"].push_back(p.measured[2]);
        series["predicted_roll_rad"].push_back(p.predicted[2]);
    }
    return {{"measured", c.measured},
            {"pairs", c.pairs},
            {"stated_axes", c.statedAxes},
            {"stated_offset_ms", c.statedOffsetMs},
            {"agreement", c.agreement},
            {"agreement_x_y_roll",
             {c.componentCorrelation[0], c.componentCorrelation[1], c.componentCorrelation[2]}},
            {"stated_error_px", c.statedRmsPx},
            {"outlier_pairs", c.outlierPairs},
            {"best_axes", c.bestAxes},
            {"best_offset_ms", c.bestOffsetMs},
            {"best_agreement", c.bestAgreement},
            {"best_error_px", c.bestRmsPx},
            {"calibrated_from", m.calibratedFrom},
            {"config_warnings", c.configWarnings},
            {"warnings", c.warnings},
            {"series", series}};
}

}  // namespace

std::string metricsJson(const ReplayMetrics& m) {
    Json stages = Json::object();
    for (const auto& [name, p] : m.engine.stagePercentiles())
        stages[name] = percentilesJson(p);
    Json truth = nullptr;
    if (m.hasTruth) {
        const TruthStats& t = m.truth;
        truth = {{"residual_jitter_input_px", t.inputJitterPx},
                 {"residual_jitter_output_px", t.outputJitterPx},
                 {"residual_jitter_ratio", t.jitterRatio},
                 {"settle_s", t.settleSec},
                 {"residual_jitter_input_settled_px", t.inputJitterSettledPx},
                 {"residual_jitter_output_settled_px", t.outputJitterSettledPx},
                 {"residual_jitter_ratio_settled", t.jitterRatioSettled},
                 {"residual_jitter_input_deg", t.inputJitterDeg},
                 {"residual_jitter_output_deg", t.outputJitterDeg},
                 {"roll_jitter_input_deg", t.inputRollJitterDeg},
                 {"roll_jitter_output_deg", t.outputRollJitterDeg},
                 {"stability_input", t.inputStability},
                 {"stability_output", t.outputStability},
                 {"stability_intended", t.intendedStability},
                 {"cropping", m.crop.cropping},
                 {"output_frames", t.outputFrames}};
    }
    const Json j = {{"tool", "qlmr_replay"},
                    {"session", m.sessionName},
                    {"input",
                     {{"description", m.inputDescription},
                      {"width", m.inputWidth},
                      {"height", m.inputHeight},
                      {"fps", m.fps},
                      {"gyro_samples", m.gyroSamples}}},
                    {"frames",
                     {{"in", m.framesIn},
                      {"delivered", m.framesDelivered},
                      {"out", m.framesOut},
                      {"dropped", m.framesDropped},
                      {"dropped_queue_full", m.engine.droppedQueueFull},
                      {"rendered_unstabilized", m.engine.renderedUnstabilized},
                      {"late", m.framesLate},
                      {"unmatched_outputs", m.unmatchedOutputs},
                      {"per_surface", m.framesPerSurface}}},
                    {"throughput",
                     {{"wall_s", m.wallSec},
                      {"fps", m.throughputFps},
                      {"ms_per_frame", m.framesOut > 0 ? m.wallSec * 1e3 / m.framesOut : 0.0}}},
                    {"timing_ms",
                     {{"output_latency", percentilesJson(m.outputLatencyMs)},
                      {"output_interval", percentilesJson(m.outputIntervalMs)},
                      {"delivery_interval", percentilesJson(m.deliveryIntervalMs)},
                      {"engine_stages", stages}}},
                    {"engine_log",
                     {{"warnings", m.engine.warnings},
                      {"errors", m.engine.errors},
                      {"expected_lines", m.engine.expectedLines},
                      {"exceptions", m.engine.exceptions},
                      {"duplicate_frames", m.engine.duplicateFrames},
                      {"skipped_before_start", m.engine.skippedBeforeStart}}},
                    {"pixel_motion",
                     {{"input", motionJson(m.inputMotion)},
                      {"output", motionJson(m.outputMotion)},
                      {"jitter_ratio", m.pixelJitterRatio},
                      {"jitter_ratio_settled", m.pixelJitterRatioSettled}}},
                    {"cropping",
                     {{"frames", m.crop.frames},
                      {"mean_scale", m.crop.meanScale},
                      {"cropping", m.crop.cropping},
                      {"min_cropping", m.crop.minCropping},
                      {"time_s", m.crop.timeSec},
                      {"retained", m.crop.retained}}},
                    {"calibration", calibrationJson(m)},
                    {"ground_truth", truth},
                    {"warnings", m.warnings},
                    {"notes", m.notes}};
    return j.dump(2) + "\n";
}

}  // namespace qlmr::replay
