// Line plots as standalone inline SVG (no scripts, no external resources), for the report.
#pragma once

#include <string>
#include <vector>

namespace qlmr::replay {

struct PlotSeries {
    std::string name;
    std::string color;  // any SVG colour, e.g. "#d62728"
    std::vector<double> x;
    std::vector<double> y;  // NaN values break the line
    bool dashed = false;
};

struct PlotSpec {
    std::string title;
    std::string xLabel;
    std::string yLabel;
    int width = 900;
    int height = 260;
    std::vector<PlotSeries> series;
};

// "Nice" tick values (1, 2 or 5 times a power of ten) covering [lo, hi], about `target` of them.
std::vector<double> niceTicks(double lo, double hi, int target);

// The plot as an <svg> element. Axes span the finite data (a flat or empty plot still gets a
// unit range); each series is a polyline, listed in a legend.
std::string svgLinePlot(const PlotSpec& layout);

// Escapes &, <, >, " for XML/HTML text and attributes.
std::string xmlEscape(const std::string& s);

}  // namespace qlmr::replay
