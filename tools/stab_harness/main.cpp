// qlmr_stab_harness: quality figures of the gyro stabilization library on simulated
// recordings with known ground truth.
//
//   qlmr_stab_harness [--scale S] [--seed N] [--scenario NAME]... [--set key=value]...
//                     [--check] [--markdown FILE]
//
// Prints one table row per scenario. --check exits with status 1 when an acceptance threshold
// is missed; --markdown replaces the text between the harness markers in FILE with the table.
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

int usage() {
    std::fprintf(stderr,
                 "usage: qlmr_stab_harness [--scale S] [--seed N] [--scenario NAME]... "
                 "[--set key=value]... [--check] [--markdown FILE]\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    double scale = 1.0;
    unsigned long long seed = 1;
    bool check = false;
    std::string markdown;
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
    }
    std::vector<Row> rows;
    std::vector<std::string> failures;
    try {
        for (const std::string& name : names) {
            const qlmr::sim::Scenario sc = qlmr::sim::makeScenario(name, scale, seed);
            Row r{sc.name,
                  sc.description,
                  qlmr::harness::runScenario(sc, qlmr::harness::configFor(sc, extra), kTrimS),
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
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qlmr_stab_harness: %s\n", e.what());
        return 2;
    }
    for (const std::string& f : failures) {
        std::fprintf(stderr, "FAIL %s\n", f.c_str());
    }
    return (check && !failures.empty()) ? 1 : 0;
}
