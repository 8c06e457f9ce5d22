#include "Svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace qlmr::replay {

std::string xmlEscape(const std::string& s) {
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

std::vector<double> niceTicks(double lo, double hi, int target) {
    std::vector<double> ticks;
    if (!(hi > lo) || target < 1)
        return ticks;
    const double raw = (hi - lo) / target;
    const double mag = std::pow(10.0, std::floor(std::log10(raw)));
    double step = mag;
    for (double m : {1.0, 2.0, 5.0, 10.0}) {
        step = m * mag;
        if (step >= raw)
            break;
    }
    const double first = std::ceil(lo / step - 1e-9) * step;
    for (double t = first; t <= hi + step * 1e-9; t += step) {
        ticks.push_back(std::fabs(t) < step * 1e-9 ? 0.0 : t);
    }
    return ticks;
}

namespace {
std::string num(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f", v);
    return buf;
}
std::string label(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}
}  // namespace

std::string svgLinePlot(const PlotSpec& layout) {
    const double left = 64, right = 16, top = 30, bottom = 42;
    const double pw = layout.width - left - right;
    const double ph = layout.height - top - bottom;
    double x0 = std::numeric_limits<double>::infinity(), x1 = -x0, y0 = x0, y1 = -x0;
    for (const PlotSeries& s : layout.series) {
        for (size_t i = 0; i < s.x.size() && i < s.y.size(); ++i) {
            if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i]))
                continue;
            x0 = std::min(x0, s.x[i]);
            x1 = std::max(x1, s.x[i]);
            y0 = std::min(y0, s.y[i]);
            y1 = std::max(y1, s.y[i]);
        }
    }
    if (!std::isfinite(x0)) {
        x0 = 0;
        x1 = 1;
        y0 = 0;
        y1 = 1;
    }
    if (x1 - x0 < 1e-12)
        x1 = x0 + 1;
    if (y1 - y0 < 1e-12) {
        y0 -= 0.5;
        y1 += 0.5;
    }
    const double pad = 0.05 * (y1 - y0);
    y0 -= pad;
    y1 += pad;
    auto sx = [&](double x) { return left + (x - x0) / (x1 - x0) * pw; };
    auto sy = [&](double y) { return top + (1 - (y - y0) / (y1 - y0)) * ph; };

    std::string o;
    o += "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + std::to_string(layout.width) +
         "\" height=\"" + std::to_string(layout.height) + "\" viewBox=\"0 0 " +
         std::to_string(layout.width) + " " + std::to_string(layout.height) +
         "\" font-family=\"sans-serif\" font-size=\"11\">\n";
    o += "<rect x=\"0\" y=\"0\" width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n";
    o += "<text x=\"" + num(left) + "\" y=\"18\" font-size=\"13\" font-weight=\"bold\">" +
         xmlEscape(layout.title) + "</text>\n";
    for (double t : niceTicks(y0, y1, 5)) {
        o += "<line x1=\"" + num(left) + "\" x2=\"" + num(left + pw) + "\" y1=\"" + num(sy(t)) +
             "\" y2=\"" + num(sy(t)) + "\" stroke=\"#e4e4e4\"/>\n";
        o += "<text x=\"" + num(left - 6) + "\" y=\"" + num(sy(t) + 4) + "\" text-anchor=\"end\">" +
             label(t) + "</text>\n";
    }
    for (double t : niceTicks(x0, x1, 8)) {
        o += "<line x1=\"" + num(sx(t)) + "\" x2=\"" + num(sx(t)) + "\" y1=\"" + num(top) +
             "\" y2=\"" + num(top + ph) + "\" stroke=\"#f0f0f0\"/>\n";
        o += "<text x=\"" + num(sx(t)) + "\" y=\"" + num(top + ph + 14) +
             "\" text-anchor=\"middle\">" + label(t) + "</text>\n";
    }
    o += "<rect x=\"" + num(left) + "\" y=\"" + num(top) + "\" width=\"" + num(pw) +
         "\" height=\"" + num(ph) + "\" fill=\"none\" stroke=\"#888\"/>\n";
    o += "<text x=\"" + num(left + pw / 2) + "\" y=\"" + num(layout.height - 6.0) +
         "\" text-anchor=\"middle\">" + xmlEscape(layout.xLabel) + "</text>\n";
    o += "<text transform=\"translate(14," + num(top + ph / 2) +
         ") rotate(-90)\" text-anchor=\"middle\">" + xmlEscape(layout.yLabel) + "</text>\n";
    double legendX = left + pw;
    for (size_t k = layout.series.size(); k-- > 0;) {
        const PlotSeries& s = layout.series[k];
        legendX -= 14 + 7.0 * s.name.size() + 24;
        o += "<line x1=\"" + num(legendX) + "\" x2=\"" + num(legendX + 18) +
             "\" y1=\"14\" y2=\"14\" stroke=\"" + xmlEscape(s.color) + "\" stroke-width=\"2\"" +
             (s.dashed ? " stroke-dasharray=\"5,3\"" : "") + "/>\n";
        o += "<text x=\"" + num(legendX + 22) + "\" y=\"18\">" + xmlEscape(s.name) + "</text>\n";
    }
    for (const PlotSeries& s : layout.series) {
        std::string points;
        auto flush = [&] {
            if (!points.empty()) {
                o += "<polyline fill=\"none\" stroke=\"" + xmlEscape(s.color) +
                     "\" stroke-width=\"1.4\"" + (s.dashed ? " stroke-dasharray=\"5,3\"" : "") +
                     " points=\"" + points + "\"/>\n";
                points.clear();
            }
        };
        for (size_t i = 0; i < s.x.size() && i < s.y.size(); ++i) {
            if (!std::isfinite(s.x[i]) || !std::isfinite(s.y[i])) {
                flush();
                continue;
            }
            points += num(sx(s.x[i])) + "," + num(sy(s.y[i])) + " ";
        }
        flush();
    }
    o += "</svg>\n";
    return o;
}

}  // namespace qlmr::replay
