// report.html: one self-contained page (interactive plots drawn by the inlined uPlot library,
// base64 JPEG pictures, nothing fetched) with the replay's figures, the camera paths, the frame
// timing and a few before/after frame pairs.
#pragma once

#include "measure/Metrics.h"
#include "output/OutputRecorder.h"

#include <string>
#include <vector>

namespace qlmr::replay {

struct ReportFile {
    std::string name;  // relative to the report
    std::string what;
};

struct ReportContext {
    std::string commandLine;
    std::vector<ReportFile> files;
    std::string configText;  // the configuration the replay ran with
};

std::string base64(const std::vector<uint8_t>& data);

// The arguments as one POSIX shell command line that runs them again: an argument with
// anything beyond letters, digits and _@%+=:,./- (or an empty one) in single quotes, a single
// quote inside written '\''.
std::string shellQuote(const std::vector<std::string>& args);
std::string shellQuote(int argc, const char* const* argv);

std::string reportHtml(const ReplayMetrics& m, const std::vector<FramePair>& pairs,
                       const ReportContext& context);

}  // namespace qlmr::replay
