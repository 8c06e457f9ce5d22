// qlmr_stab_harness: quality figures of the gyro stabilization library on simulated
// recordings with known ground truth.
//
//   qlmr_stab_harness [--scale S] [--seed N] [--scenario NAME]... [--set key=value]...
//                     [--check] [--markdown FILE]
//
// Prints one table row per scenario. --check exits with status 1 when an acceptance threshold
// is missed; --markdown replaces the text between the harness markers in FILE with the table.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Runner.h"
#include "sim/Scenario.h"

namespace {

using qlmr::harness::Figures;
using qlmr::harness::RunResult;

// Acceptance thresholds.
constexpr double kWalkMinInputJitterPx = 10.0;
constexpr double kWalkMaxJitterPx = 0.5;
constexpr double kWalkMinStability = 0.9;
constexpr double kMinWobbleReduction = 0.9;
constexpr double kWobbleMeaningfulPx = 1.0;  // below this the input has no wobble to reduce
constexpr double kStillMaxJitterPx = 0.1;
constexpr double kPanMaxAccelRadS2 = 1.0;
constexpr double kStillMinRetained = 0.85;  // share of the picture a still camera keeps
constexpr double kTrimS = 1.0;
// Magnification above 0.5 Hz, RMS, per cent of the mean (the aim is 0.05 %).
constexpr double kMaxZoomHighPassPct = 0.05;

// Variants of a scenario in which the gyro does not run on around the video: name suffix,
// description, delivery.
struct Variant {
    const char* suffix;
    const char* description;
    qlmr::harness::GyroDelivery delivery;
};
const Variant kVariants[] = {
    {"-gyro-ends", "gyro ends 33 ms after the last frame", {1.0, 0.033, -1.0, 0.0}},
    {"-gyro-starts", "gyro starts 20 ms after the first frame", {-0.020, 2.5, -1.0, 0.0}},
    {"-gyro-stalls", "no gyro for 200 ms in the middle", {1.0, 2.5, -2.0, 0.2}},
};
const char* const kVariantBase = "walk";

const char* kBeginMarker = "<!-- stab_harness:begin -->";
const char* kEndMarker = "<!-- stab_harness:end -->";

struct Row {
    std::string name;
    std::string description;
    RunResult run;
    std::vector<std::string> failures;
};

void checkRow(Row& r) {
    const Figures& in = r.run.inputFigures;
    const Figures& out = r.run.outputFigures;
    auto fail = [&](const std::string& what) { r.failures.push_back(r.name + ": " + what); };
    if (out.framesOutside > 0) {
        fail("output shows pixels outside the input frame");
    }
    if (in.wobblePx >= kWobbleMeaningfulPx &&
        out.wobblePx > (1.0 - kMinWobbleReduction) * in.wobblePx) {
        fail("rolling-shutter wobble reduced by less than 90 %");
    }
    if (out.zoomHighPassPct > kMaxZoomHighPassPct) {
        fail("the output's magnification moves with the shake (zoom high-pass above 0.05 %)");
    }
    if (r.name == kVariantBase + std::string(kVariants[0].suffix) && r.run.framesUnwarped > 0) {
        fail("frames rendered unwarped although the gyro covers them");
    }
    if (r.name == "walk") {
        if (in.jitterPx < kWalkMinInputJitterPx) {
            fail("input jitter below 10 px: the scenario does not test enough");
        }
        if (out.jitterPx > kWalkMaxJitterPx) {
            fail("residual jitter above 0.5 px");
        }
        if (out.stability < kWalkMinStability) {
            fail("stability score below 0.9");
        }
    }
    if (r.name == "still" && out.jitterPx > kStillMaxJitterPx) {
        fail("a still camera's output moves");
    }
    if (r.name == "still" && out.minRetained < kStillMinRetained) {
        fail("a still camera's output keeps less than 85 % of the picture");
    }
    if (r.name == "pan" && out.maxAccelRadS2 > kPanMaxAccelRadS2) {
        fail("virtual camera accelerates too hard during the pan");
    }
}

std::string table(const std::vector<Row>& rows, const std::vector<std::string>& failures,
                  double scale, unsigned long long seed) {
    std::ostringstream s;
    char line[512];
    std::snprintf(line, sizeof line,
                  "Scenario length scale %.2f, seed %llu; 1920x1080 output, overscan 1.25. "
                  "Input = the engine's unwarped grid, output = the library's grids; picture "
                  "kept = share of the frame's area shown (1 / zoom^2).\n\n",
                  scale, seed);
    s << line;
    s << "| scenario | jitter px in / out | wobble px in / out (reduction) | stability in / out "
         "| max accel rad/s^2 in / out | frames outside | picture kept mean / min "
         "| warped / unwarped / dropped |\n";
    s << "|---|---|---|---|---|---|---|---|\n";
    for (const Row& r : rows) {
        const Figures& in = r.run.inputFigures;
        const Figures& out = r.run.outputFigures;
        char reduction[32] = "none to reduce";
        if (in.wobblePx >= kWobbleMeaningfulPx) {
            std::snprintf(reduction, sizeof reduction, "%.1f %%",
                          100.0 * (1.0 - out.wobblePx / in.wobblePx));
        }
        std::snprintf(line, sizeof line,
                      "| %s (%s) | %.2f / %.3f | %.2f / %.3f (%s) | %.3f / %.3f | %.2f / %.2f "
                      "| %d | %.1f %% / %.1f %% | %d / %d / %d |\n",
                      r.name.c_str(), r.description.c_str(), in.jitterPx, out.jitterPx, in.wobblePx,
                      out.wobblePx, reduction, in.stability, out.stability, in.maxAccelRadS2,
                      out.maxAccelRadS2, out.framesOutside, 100.0 * out.meanRetained,
                      100.0 * out.minRetained, r.run.framesWarped, r.run.framesUnwarped,
                      r.run.framesDropped);
        s << line;
    }
    s << "\nThe ends of the recordings (jitter as above, over the first / last second alone; zoom "
         "high-pass = RMS of the output magnification's part above 0.5 Hz, per cent of its "
         "mean; picture kept in the first / last frame):\n\n";
    s << "| scenario | jitter px out first s / middle / last s | zoom high-pass | picture kept "
         "first / last frame | unwarped frames |\n";
    s << "|---|---|---|---|---|\n";
    for (const Row& r : rows) {
        const Figures& out = r.run.outputFigures;
        const auto kept = [&](size_t k) {
            const double z = r.run.output.empty() ? 1.0 : r.run.output[k].zoom;
            return 100.0 * std::min(1.0, 1.0 / (z * z));
        };
        const size_t last = r.run.output.empty() ? 0 : r.run.output.size() - 1;
        std::snprintf(line, sizeof line,
                      "| `%s` | %.3f / %.3f / %.3f | %.3f %% | %.1f %% / %.1f %% | %d |\n",
                      r.name.c_str(), out.jitterFirstPx, out.jitterPx, out.jitterLastPx,
                      out.zoomHighPassPct, kept(0), kept(last), r.run.framesUnwarped);
        s << line;
    }
    s << "\nAcceptance: ";
    if (failures.empty()) {
        s << "every threshold met.\n";
    } else {
        for (const std::string& f : failures) {
            s << "FAILED " << f << "; ";
        }
        s << "\n";
    }
    return s.str();
}

void replaceSection(const std::string& path, const std::string& body) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    std::stringstream buf;
    buf << in.rdbuf();
    std::string text = buf.str();
    const size_t b = text.find(kBeginMarker);
    const size_t e = text.find(kEndMarker);
    if (b == std::string::npos || e == std::string::npos || e < b) {
        throw std::runtime_error(path + " has no " + kBeginMarker + " ... " + kEndMarker +
                                 " section");
    }
    const size_t start = b + std::string(kBeginMarker).size();
    text = text.substr(0, start) + "\n" + body + text.substr(e);
    std::ofstream outFile(path);
    outFile << text;
    if (!outFile) {
        throw std::runtime_error("cannot write " + path);
    }
}

// Per output frame: scenario, index, whether the library's grid drew it, magnification, share
// of the picture kept.
void writeFrames(const std::string& path, const std::vector<Row>& rows) {
    std::ofstream out(path);
    out << "scenario,frame,warped,zoom,picture_kept\n";
    for (const Row& r : rows) {
        for (size_t k = 0; k < r.run.output.size(); ++k) {
            const double z = r.run.output[k].zoom;
            char line[160];
            std::snprintf(line, sizeof line, "%s,%zu,%d,%.5f,%.4f\n", r.name.c_str(), k,
                          static_cast<int>(r.run.warped[k]), z, std::min(1.0, 1.0 / (z * z)));
            out << line;
        }
    }
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

int usage() {
    std::fprintf(stderr,
                 "usage: qlmr_stab_harness [--scale S] [--seed N] [--scenario NAME]... "
                 "[--set key=value]... [--check] [--markdown FILE] [--frames FILE]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    double scale = 1.0;
    unsigned long long seed = 1;
    bool check = false;
    std::string markdown;
    std::string framesCsv;
    std::vector<std::string> names;
    std::string extra;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                throw std::invalid_argument(a + " needs a value");
            }
            return argv[++i];
        };
        try {
            if (a == "--scale") {
                scale = std::stod(next());
            } else if (a == "--seed") {
                seed = std::stoull(next());
            } else if (a == "--scenario") {
                names.push_back(next());
            } else if (a == "--set") {
                extra += next() + "\n";
            } else if (a == "--check") {
                check = true;
            } else if (a == "--markdown") {
                markdown = next();
            } else if (a == "--frames") {
                framesCsv = next();
            } else {
                return usage();
            }
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s\n", e.what());
            return usage();
        }
    }
    if (names.empty()) {
        names = qlmr::sim::scenarioNames();
        for (const Variant& v : kVariants) {
            names.push_back(kVariantBase + std::string(v.suffix));
        }
    }
    std::vector<Row> rows;
    std::vector<std::string> failures;
    try {
        for (const std::string& name : names) {
            std::string base = name;
            qlmr::harness::GyroDelivery delivery;
            const char* variantText = nullptr;
            for (const Variant& v : kVariants) {
                const std::string suffix = v.suffix;
                if (name.size() > suffix.size() &&
                    name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                    base = name.substr(0, name.size() - suffix.size());
                    delivery = v.delivery;
                    variantText = v.description;
                }
            }
            qlmr::sim::Scenario sc = qlmr::sim::makeScenario(base, scale, seed);
            if (delivery.stallAtS < -1.5) {
                delivery.stallAtS = 0.5 * sc.durationS;  // the middle of the recording
            }
            Row r{name,
                  variantText != nullptr ? sc.description + ", " + variantText : sc.description,
                  qlmr::harness::runScenario(sc, qlmr::harness::configFor(sc, extra), kTrimS,
                                             delivery),
                  {}};
            checkRow(r);
            failures.insert(failures.end(), r.failures.begin(), r.failures.end());
            rows.push_back(std::move(r));
        }
        const std::string t = table(rows, failures, scale, seed);
        std::fputs(t.c_str(), stdout);
        if (!markdown.empty()) {
            replaceSection(markdown, t);
        }
        if (!framesCsv.empty()) {
            writeFrames(framesCsv, rows);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qlmr_stab_harness: %s\n", e.what());
        return 2;
    }
    for (const std::string& f : failures) {
        std::fprintf(stderr, "FAIL %s\n", f.c_str());
    }
    return (check && !failures.empty()) ? 1 : 0;
}
