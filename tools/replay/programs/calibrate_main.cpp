// qlmr_calibrate: measures a recording folder's gyro axis mapping and time offset from the
// image motion between its frames and writes them into its config.txt.
//
//   qlmr_calibrate DIR [--dry-run] [--threads N]
//
// Prints the agreement of gyro and image motion with the configured values and with the
// best ones, then replaces (or adds) vstab.gyroAxes and vstab.gyroTimeOffsetNs in
// DIR/config.txt, keeping the previous text as DIR/config.txt.orig.
#include "app/CommandLine.h"
#include "common/ReplayError.h"
#include "input/Recording.h"
#include "measure/Calibration.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>

using namespace qlmr::replay;

namespace {

void writeText(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary);
    out << text;
    if (!out)
        throw ReplayError(path, 0, "cannot write");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "Measures a recording folder's gyro axes and time offset from its pictures and "
        "writes them into its config.txt."};
    std::string dir;
    bool dryRun = false;
    int threads = 2;
    int factor = 0;
    app.add_option("dir", dir, "recording folder (see docs/recording-format.md)")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_flag("--dry-run", dryRun, "print the figures, leave config.txt as it is");
    app.add_option("--threads", threads, "threads for the image motion")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_option("--reduce", factor,
                   "measure on pictures reduced by this factor (default: as qlmr_replay, about "
                   "640 pixels wide)")
        ->check(CLI::Range(1, 16));
    if (const int rc = parseCommandLine(app, argc, argv); rc >= 0)
        return rc;
    try {
        const Recording rec = loadRecording(dir);
        std::unique_ptr<FrameSource> frames = openRecordingFrames(rec);
        CalibrationInput in;
        in.lumas = readLumas(*frames, factor > 0 ? factor : calibrationReduction(frames->width()));
        for (int i = 0; i < frames->count(); ++i) {
            in.timestampsNs.push_back(frames->timestampNs(i));
            in.exposureUs.push_back(frames->exposureUs(i));
        }
        in.frameWidth = frames->width();
        in.gyro = &rec.gyro;
        in.configText = rec.configText;
        in.threads = threads;
        const CalibrationStats c = calibrate(in);
        for (const std::string& w : c.configWarnings)
            std::printf("configuration: %s\n", w.c_str());
        std::printf("%d frame pairs measured", c.pairs);
        if (c.outlierPairs > 0) {
            std::printf(
                " (%d left out: the gyro's prediction misses their image motion far more "
                "than the others')",
                c.outlierPairs);
        }
        std::printf("\n");
        if (!c.measured || c.bestAxes.empty()) {
            std::fprintf(stderr,
                         "qlmr_calibrate: error: too few frame pairs could be registered to "
                         "calibrate\n");
            return 1;
        }
        if (!std::isfinite(c.agreement) || !std::isfinite(c.statedRmsPx) ||
            !std::isfinite(c.bestAgreement) || !std::isfinite(c.bestRmsPx)) {
            std::fprintf(stderr,
                         "qlmr_calibrate: error: the gyro samples give no usable prediction of "
                         "the image motion; config.txt is left as it is\n");
            return 1;
        }
        std::printf("configured: axes %-9s offset %7.2f ms  agreement %.3f  error %.2f px\n",
                    c.statedAxes.c_str(), c.statedOffsetMs, c.agreement, c.statedRmsPx);
        std::printf("best fit:   axes %-9s offset %7.2f ms  agreement %.3f  error %.2f px\n",
                    c.bestAxes.c_str(), c.bestOffsetMs, c.bestAgreement, c.bestRmsPx);
        if (c.bestAxes != c.statedAxes) {
            std::printf(
                "configured axes at their best offset: offset %7.2f ms  agreement %.3f  "
                "error %.2f px\n",
                c.statedMapOffsetMs, c.statedMapAgreement, c.statedMapRmsPx);
        }
        for (const std::string& w : c.warnings) {
            if (w != c.verdict)
                std::printf("note: %s\n", w.c_str());
        }
        std::printf("%s\n", c.verdict.c_str());
        if (c.useAgreement < kPoorAgreement) {
            std::printf(
                "note: even the values to use agree poorly (%.2f); config.txt is left as it "
                "is\n",
                c.useAgreement);
            return dryRun ? 0 : 1;
        }
        if (!c.changed) {
            std::printf("config.txt is left as it is\n");
        } else if (!dryRun) {
            const std::string path = dir + "/config.txt";
            writeText(path + ".orig", rec.configText);
            writeText(path, withCalibration(rec.configText, c.useAxes, c.useOffsetMs));
            std::printf(
                "wrote %s (vstab.gyroAxes=%s, vstab.gyroTimeOffsetNs=%lld; the previous "
                "text is in config.txt.orig)\n",
                path.c_str(), c.useAxes.c_str(),
                static_cast<long long>(std::llround(c.useOffsetMs * 1e6)));
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qlmr_calibrate: error: %s\n", e.what());
        return 1;
    }
    return 0;
}
