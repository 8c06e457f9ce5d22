#include "report/Report.h"

#include "media/ImageIo.h"

#include <cmath>
#include <cstdio>

#include <nlohmann/json.hpp>

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

std::string shellQuote(const std::vector<std::string>& args) {
    std::string out;
    for (const std::string& a : args) {
        if (!out.empty())
            out += ' ';
        const bool plain = !a.empty() && a.find_first_not_of(
                                             "abcdefghijklmnopqrstuvwxyz"
                                             "ABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                             "0123456789_@%+=:,./-") == std::string::npos;
        if (plain) {
            out += a;
            continue;
        }
        out += '\'';
        for (char c : a) {
            if (c == '\'')
                out += "'\\''";
            else
                out += c;
        }
        out += '\'';
    }
    return out;
}

std::string shellQuote(int argc, const char* const* argv) {
    return shellQuote(std::vector<std::string>(argv, argv + argc));
}

// The vendored plotting library and the report's script (ReportAssets.cpp, generated).
extern const char* const kUplotJs;
extern const char* const kUplotCss;
extern const char* const kReportJs;

namespace {

// Escapes &, <, >, " for HTML text and attributes.
std::string htmlEscape(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

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
    return "<tr><th>" + htmlEscape(name) + "</th><td>" + htmlEscape(value) +
           "</td><td class=\"note\">" + htmlEscape(note) + "</td></tr>\n";
}

// The page's plots: their data goes into one JSON array that report.js draws from; each plot
// is a div naming its entry.
class Plots {
  public:
    struct Series {
        const char* name;
        const char* color;
        const std::vector<double>& x;
        const std::vector<double>& y;
        bool dashed;
    };

    std::string add(const std::string& title, const std::string& yLabel,
                    const std::vector<Series>& series) {
        nlohmann::json list = nlohmann::json::array();
        for (const Series& s : series) {
            list.push_back({{"name", s.name},
                            {"color", s.color},
                            {"dashed", s.dashed},
                            {"x", s.x},
                            {"y", s.y}});
        }
        data_.push_back({{"title", title},
                         {"xLabel", "recording time (s)"},
                         {"yLabel", yLabel},
                         {"series", list}});
        return "<div class=\"plot\" data-plot=\"" + std::to_string(data_.size() - 1) +
               "\"></div>\n";
    }

    // Three plots (x, y, roll) of a camera path.
    std::string addPath(const PathSeries& raw, const PathSeries& stable, const PathSeries* intended,
                        const std::string& unitXY, const std::string& what) {
        std::string out;
        const char* names[3] = {"horizontal (x)", "vertical (y)", "roll"};
        for (int axis = 0; axis < 3; ++axis) {
            auto pick = [axis](const PathSeries& p) -> const std::vector<double>& {
                return axis == 0 ? p.x : axis == 1 ? p.y : p.roll;
            };
            std::vector<Series> series = {
                {"raw (input)", kRaw, raw.t, pick(raw), false},
                {"stabilized (output)", kStable, stable.t, pick(stable), false}};
            if (intended != nullptr)
                series.push_back({"intended", kIntended, intended->t, pick(*intended), true});
            out += add(what + ": " + names[axis], axis == 2 ? "degrees" : unitXY, series);
        }
        return out;
    }

    // The data and the scripts that draw it; "</" is escaped so that no text ends the element.
    std::string scripts() const {
        std::string json = data_.dump();
        for (size_t p = json.find("</"); p != std::string::npos; p = json.find("</", p))
            json.replace(p, 2, "<\\/");
        return "<script type=\"application/json\" id=\"plot-data\">" + json +
               "</script>\n<script>" + kUplotJs + "</script>\n<script>" + kReportJs + "</script>\n";
    }

  private:
    nlohmann::json data_ = nlohmann::json::array();
};

// Gyro against image motion: the agreement figures, what fits better, and the frame-to-frame
// motion the gyro predicts beside the one measured on the pictures.
std::string calibrationSection(const ReplayMetrics& m, Plots& plots) {
    const CalibrationStats& c = m.calibration;
    std::string h = "<h2>Gyro calibration</h2>\n";
    if (!m.calibratedFrom.empty())
        h += "<p>" + htmlEscape(m.calibratedFrom) + "</p>\n";
    if (!c.measured) {
        h += "<p class=\"note\">The image motion of the input could not be measured on enough "
             "frame pairs (" +
             std::to_string(c.pairs) + ") to judge the gyro.</p>\n";
        return h;
    }
    h += "<p>The rotation the gyro predicts between consecutive frames, turned into content "
         "motion, against the motion measured on the input pictures (" +
         std::to_string(c.pairs) +
         " pairs). Agreement: correlation of the two over every pair and component.</p>\n<table>\n";
    h += row("Agreement, configured axes and offset",
             fmt(c.agreement, "%.3f") + (c.agreement < kPoorAgreement ? " (poor)" : ""),
             "axes " + c.statedAxes + ", offset " + fmt(c.statedOffsetMs, "%.1f") +
                 " ms; x / y / roll " + fmt(c.componentCorrelation[0], "%.3f") + " / " +
                 fmt(c.componentCorrelation[1], "%.3f") + " / " +
                 fmt(c.componentCorrelation[2], "%.3f") + "; error " + fmt(c.statedRmsPx, "%.2f") +
                 " px");
    h += row("Best fit", fmt(c.bestAgreement, "%.3f"),
             "axes " + c.bestAxes + ", offset " + fmt(c.bestOffsetMs, "%.1f") + " ms; error " +
                 fmt(c.bestRmsPx, "%.2f") + " px");
    h += "</table>\n";
    for (const std::string& w : c.warnings)
        h += "<p class=\"warn\">" + htmlEscape(w) + "</p>\n";
    for (const std::string& w : c.configWarnings)
        h += "<p class=\"warn\">configuration: " + htmlEscape(w) + "</p>\n";
    const char* names[3] = {"horizontal (x)", "vertical (y)", "roll"};
    std::vector<double> t, measured[3], predicted[3];
    for (const CalibrationPoint& p : c.series) {
        t.push_back(p.timeSec);
        for (int k = 0; k < 3; ++k) {
            const double unit = k == 2 ? 180.0 / 3.14159265358979323846 : 1.0;
            measured[k].push_back(p.measured[k] * unit);
            predicted[k].push_back(p.predicted[k] * unit);
        }
    }
    for (int k = 0; k < 3; ++k) {
        h += plots.add(std::string("Frame-to-frame content motion: ") + names[k],
                       k == 2 ? "degrees" : "pixels",
                       {{"measured on the pictures", kRaw, t, measured[k], false},
                        {"predicted by the gyro", kStable, t, predicted[k], false}});
    }
    return h;
}

}  // namespace

std::string reportHtml(const ReplayMetrics& m, const std::vector<FramePair>& pairs,
                       const ReportContext& context) {
    Plots plots;
    std::string h;
    h += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    h += "<title>Replay report</title>\n<style>\n"
         "body{font-family:sans-serif;margin:24px;color:#222;max-width:1200px}\n"
         "h1{font-size:22px}h2{font-size:18px;margin-top:28px;border-bottom:1px solid #ddd}\n"
         "table{border-collapse:collapse;margin:8px 0}th,td{padding:3px 10px;text-align:left;"
         "border-bottom:1px solid #eee;font-size:13px}th{font-weight:600}\n"
         ".note{color:#666}.plot{margin:10px 0}.pair{display:flex;gap:8px;margin:10px 0}"
         ".pair figure{margin:0}.pair img{max-width:100%;border:1px solid #ccc}"
         "figcaption{font-size:12px;color:#555}.warn{color:#a40}code{font-size:12px}\n";
    h += kUplotCss;
    h += "</style></head><body>\n";
    h += "<h1>Replay report</h1>\n";
    h += "<p>" + htmlEscape(m.inputDescription) + "<br>Session: " + htmlEscape(m.sessionName) +
         "</p>\n";
    if (!context.commandLine.empty())
        h += "<p><code>" + htmlEscape(context.commandLine) + "</code></p>\n";
    if (!context.configText.empty()) {
        h += "<details><summary>Configuration in force (configuration.txt)</summary><pre>" +
             htmlEscape(context.configText) + "</pre></details>\n";
    }

    h += "<h2>Summary</h2>\n<table>\n";
    h += row("Frames in / delivered / out", std::to_string(m.framesIn) + " / " +
                                                std::to_string(m.framesDelivered) + " / " +
                                                std::to_string(m.framesOut));
    h += row("Frames dropped", std::to_string(m.framesDropped),
             std::to_string(m.engine.droppedQueueFull) + " reported by the engine as queue full");
    h += row("Rendered unstabilized", std::to_string(m.engine.renderedUnstabilized));
    {
        // Lines the engine writes on every replay are not warnings; shown apart.
        std::string expected;
        for (const auto& [kind, count] : m.engine.expectedLines)
            expected += (expected.empty() ? "" : ", ") + std::to_string(count) + " " + kind;
        h += row("Engine log warnings / errors",
                 std::to_string(m.engine.warnings) + " / " + std::to_string(m.engine.errors),
                 expected.empty() ? "" : "expected lines, not counted: " + expected);
    }
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
        h += plots.addPath(m.truth.actual, m.truth.output, &m.truth.intended, "degrees",
                           "Camera path");
    }
    h += "<p>Camera path from the pixels: frame-to-frame global motion chained over the recording "
         "(input pixels for raw, output pixels for stabilized).</p>\n";
    h += plots.addPath(m.inputMotion.path, m.outputMotion.path, nullptr, "pixels",
                       "Path from pixels");

    if (!m.crop.retained.empty()) {
        h += plots.add("Picture kept by the output (share of the input frame's area)", "share",
                       {{"retained area", kStable, m.crop.timeSec, m.crop.retained, false}});
    }
    h += calibrationSection(m, plots);

    h += "<h2>Frame timing</h2>\n";
    h += plots.add("Latency from camera delivery to output window", "ms",
                   {{"latency", kStable, m.frameTimeSec, m.frameLatencyMs, false}});
    h += "<table><tr><th>Interval</th><th>count</th><th>mean</th><th>p50</th><th>p90</th><th>p99</"
         "th><th>max</th></tr>\n";
    auto prow = [&](const std::string& name, const Percentiles& p) {
        h += "<tr><td>" + htmlEscape(name) + "</td><td>" + std::to_string(p.count) + "</td><td>" +
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
            h += "<li class=\"warn\">" + htmlEscape(w) + "</li>\n";
        h += "</ul>\n";
    }
    if (!m.notes.empty()) {
        h += "<h2>Notes</h2>\n<ul>\n";
        for (const std::string& n : m.notes)
            h += "<li>" + htmlEscape(n) + "</li>\n";
        h += "</ul>\n";
    }
    if (!context.files.empty()) {
        h += "<h2>Files</h2>\n<ul>\n";
        for (const ReportFile& f : context.files) {
            h += "<li><a href=\"" + htmlEscape(f.name) + "\">" + htmlEscape(f.name) + "</a> — " +
                 htmlEscape(f.what) + "</li>\n";
        }
        h += "</ul>\n";
    }
    h += plots.scripts();
    h += "</body></html>\n";
    return h;
}

}  // namespace qlmr::replay
