#include "Report.h"

#include "ImageIo.h"
#include "Svg.h"

#include <cmath>
#include <cstdio>

namespace qlmr::replay {

std::string base64(const std::vector<uint8_t>& data) {
    static const char* kTable = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((data.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < data.size(); i += 3) {
        const uint32_t v = (data[i] << 16) | (data[i + 1] << 8) | data[i + 2];
        out.push_back(kTable[(v >> 18) & 63]);
        out.push_back(kTable[(v >> 12) & 63]);
        out.push_back(kTable[(v >> 6) & 63]);
        out.push_back(kTable[v & 63]);
    }
    if (i + 1 == data.size()) {
        const uint32_t v = data[i] << 16;
        out.push_back(kTable[(v >> 18) & 63]);
        out.push_back(kTable[(v >> 12) & 63]);
        out += "==";
    } else if (i + 2 == data.size()) {
        const uint32_t v = (data[i] << 16) | (data[i + 1] << 8);
        out.push_back(kTable[(v >> 18) & 63]);
        out.push_back(kTable[(v >> 12) & 63]);
        out.push_back(kTable[(v >> 6) & 63]);
        out.push_back('=');
    }
    return out;
}

namespace {

const char* kRaw = "#d62728";
const char* kStable = "#1f77b4";
const char* kIntended = "#7f7f7f";

std::string fmt(double v, const char* format = "%.3g") {
    if (!std::isfinite(v))
        return "n/a";
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

std::string row(const std::string& name, const std::string& value, const std::string& note = "") {
    return "<tr><th>" + xmlEscape(name) + "</th><td>" + xmlEscape(value) +
           "</td><td class=\"note\">" + xmlEscape(note) + "</td></tr>\n";
}

std::string pathPlots(const PathSeries& raw, const PathSeries& stable, const PathSeries* intended,
                      const std::string& unitXY, const std::string& what) {
    std::string out;
    const char* names[3] = {"horizontal (x)", "vertical (y)", "roll"};
    for (int axis = 0; axis < 3; ++axis) {
        PlotSpec layout;
        layout.title = what + ": " + names[axis];
        layout.xLabel = "recording time (s)";
        layout.yLabel = axis == 2 ? "degrees" : unitXY;
        auto pick = [axis](const PathSeries& p) {
            return axis == 0 ? p.x : axis == 1 ? p.y : p.roll;
        };
        layout.series.push_back({"raw (input)", kRaw, raw.t, pick(raw), false});
        layout.series.push_back({"stabilized (output)", kStable, stable.t, pick(stable), false});
        if (intended != nullptr)
            layout.series.push_back({"intended", kIntended, intended->t, pick(*intended), true});
        out += "<div class=\"plot\">" + svgLinePlot(layout) + "</div>\n";
    }
    return out;
}

}  // namespace

std::string reportHtml(const ReplayMetrics& m, const std::vector<FramePair>& pairs,
                       const ReportContext& context) {
    std::string h;
    h += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    h += "<title>Replay report</title>\n<style>\n"
         "body{font-family:sans-serif;margin:24px;color:#222;max-width:1200px}\n"
         "h1{font-size:22px}h2{font-size:18px;margin-top:28px;border-bottom:1px solid #ddd}\n"
         "table{border-collapse:collapse;margin:8px 0}th,td{padding:3px 10px;text-align:left;"
         "border-bottom:1px solid #eee;font-size:13px}th{font-weight:600}\n"
         ".note{color:#666}.plot{margin:10px 0}.pair{display:flex;gap:8px;margin:10px 0}"
         ".pair figure{margin:0}.pair img{max-width:100%;border:1px solid #ccc}"
         "figcaption{font-size:12px;color:#555}.warn{color:#a40}code{font-size:12px}\n"
         "</style></head><body>\n";
    h += "<h1>Replay report</h1>\n";
    h += "<p>" + xmlEscape(m.inputDescription) + "<br>Session: " + xmlEscape(m.sessionName) +
         "</p>\n";
    if (!context.commandLine.empty())
        h += "<p><code>" + xmlEscape(context.commandLine) + "</code></p>\n";

    h += "<h2>Summary</h2>\n<table>\n";
    h += row("Frames in / delivered / out", std::to_string(m.framesIn) + " / " +
                                                std::to_string(m.framesDelivered) + " / " +
                                                std::to_string(m.framesOut));
    h += row("Frames dropped", std::to_string(m.framesDropped),
             std::to_string(m.engine.droppedQueueFull) + " reported by the engine as queue full");
    h += row("Rendered unstabilized", std::to_string(m.engine.renderedUnstabilized));
    if (m.framesLate > 0)
        h += row("Late deliveries", std::to_string(m.framesLate), "real-time pacing missed");
    h += row("Throughput", fmt(m.throughputFps, "%.1f") + " frames/s",
             fmt(m.wallSec, "%.2f") + " s wall time");
    h += row("Output latency p50 / p90 / max", fmt(m.outputLatencyMs.p50, "%.1f") + " / " +
                                                   fmt(m.outputLatencyMs.p90, "%.1f") + " / " +
                                                   fmt(m.outputLatencyMs.max, "%.1f") + " ms");
    h += row(
        "Jitter from pixels, input → output",
        fmt(m.inputMotion.jitterPx, "%.2f") + " → " + fmt(m.outputMotion.jitterPx, "%.2f") + " px",
        "ratio " + fmt(m.pixelJitterRatio, "%.1f") +
            " (high-passed chained frame-to-frame motion)");
    h += row("Stability score, input → output",
             fmt(m.inputMotion.stability, "%.3f") + " → " + fmt(m.outputMotion.stability, "%.3f"),
             "Liu et al. 2013, from pixels; 1 = only slow motion");
    h += row("Cropping (retained area)", fmt(m.crop.cropping, "%.3f"),
             "mean scale " + fmt(m.crop.meanScale, "%.3f") + ", worst " +
                 fmt(m.crop.minCropping, "%.3f"));
    if (m.hasTruth) {
        const TruthStats& t = m.truth;
        h += row("Residual jitter (ground truth), input → output",
                 fmt(t.inputJitterPx, "%.2f") + " → " + fmt(t.outputJitterPx, "%.2f") + " px",
                 "ratio " + fmt(t.jitterRatio, "%.1f") + "; " + fmt(t.inputJitterDeg, "%.3f") +
                     "° → " + fmt(t.outputJitterDeg, "%.3f") + "°");
        h += row("… after the first " + fmt(t.settleSec, "%.1f") + " s",
                 fmt(t.inputJitterSettledPx, "%.2f") + " → " +
                     fmt(t.outputJitterSettledPx, "%.2f") + " px",
                 "ratio " + fmt(t.jitterRatioSettled, "%.1f") + " (the stabilizer has settled)");
        h += row("Roll jitter (ground truth)", fmt(t.inputRollJitterDeg, "%.3f") + "° → " +
                                                   fmt(t.outputRollJitterDeg, "%.3f") + "°");
        h += row("Stability score (ground truth)",
                 fmt(t.inputStability, "%.3f") + " → " + fmt(t.outputStability, "%.3f"),
                 "intended path: " + fmt(t.intendedStability, "%.3f"));
    }
    h += "</table>\n";

    h += "<h2>Camera path</h2>\n";
    if (m.hasTruth) {
        h += "<p>Where the camera points, in degrees: the shaking camera (raw), the view of the "
             "output "
             "frames (stabilized) and the path the operator intended (ground truth).</p>\n";
        h += pathPlots(m.truth.actual, m.truth.output, &m.truth.intended, "degrees", "Camera path");
    }
    h += "<p>Camera path from the pixels: frame-to-frame global motion chained over the recording "
         "(input pixels for raw, output pixels for stabilized).</p>\n";
    h += pathPlots(m.inputMotion.path, m.outputMotion.path, nullptr, "pixels", "Path from pixels");

    h += "<h2>Frame timing</h2>\n";
    {
        PlotSpec layout;
        layout.title = "Latency from camera delivery to output window";
        layout.xLabel = "recording time (s)";
        layout.yLabel = "ms";
        layout.series.push_back({"latency", kStable, m.frameTimeSec, m.frameLatencyMs, false});
        h += "<div class=\"plot\">" + svgLinePlot(layout) + "</div>\n";
    }
    h += "<table><tr><th>Interval</th><th>count</th><th>mean</th><th>p50</th><th>p90</th><th>p99</"
         "th><th>max</th></tr>\n";
    auto prow = [&](const std::string& name, const Percentiles& p) {
        h += "<tr><td>" + xmlEscape(name) + "</td><td>" + std::to_string(p.count) + "</td><td>" +
             fmt(p.mean, "%.2f") + "</td><td>" + fmt(p.p50, "%.2f") + "</td><td>" +
             fmt(p.p90, "%.2f") + "</td><td>" + fmt(p.p99, "%.2f") + "</td><td>" +
             fmt(p.max, "%.2f") + "</td></tr>\n";
    };
    prow("camera delivery interval (ms)", m.deliveryIntervalMs);
    prow("output interval (ms)", m.outputIntervalMs);
    prow("delivery → output latency (ms)", m.outputLatencyMs);
    const auto stages = m.engine.stagePercentiles();
    for (const auto& [name, p] : stages)
        prow("engine " + name + " (ms)", p);
    h += "</table>\n";
    if (stages.empty())
        h += "<p class=\"note\">No engine timing lines were logged in this run.</p>\n";

    h += "<h2>Before / after</h2>\n";
    if (pairs.empty())
        h += "<p class=\"note\">No frame pairs were kept.</p>\n";
    for (const FramePair& p : pairs) {
        char caption[128];
        std::snprintf(caption, sizeof caption, "frame %d (t = %.3f s)", p.inputIndex,
                      (p.timestampNs - m.firstTimestampNs) * 1e-9);
        h += "<div class=\"pair\"><figure><img alt=\"input frame\" src=\"data:image/jpeg;base64," +
             base64(encodeJpeg(p.before, 85)) + "\"><figcaption>input, " + caption +
             "</figcaption></figure><figure><img alt=\"output frame\" "
             "src=\"data:image/jpeg;base64," +
             base64(encodeJpeg(p.after, 85)) + "\"><figcaption>output, " + caption +
             "</figcaption></figure></div>\n";
    }

    if (!m.warnings.empty()) {
        h += "<h2>Warnings</h2>\n<ul>\n";
        for (const std::string& w : m.warnings)
            h += "<li class=\"warn\">" + xmlEscape(w) + "</li>\n";
        h += "</ul>\n";
    }
    if (!context.files.empty()) {
        h += "<h2>Files</h2>\n<ul>\n";
        for (const ReportFile& f : context.files) {
            h += "<li><a href=\"" + xmlEscape(f.name) + "\">" + xmlEscape(f.name) + "</a> — " +
                 xmlEscape(f.what) + "</li>\n";
        }
        h += "</ul>\n";
    }
    h += "</body></html>\n";
    return h;
}

}  // namespace qlmr::replay
