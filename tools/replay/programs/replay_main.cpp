// qlmr_replay: replays a recording (the built-in synthetic one, or a recording folder) through
// the stabilization engine and writes the stabilized video, metrics.json and report.html.
#include "app/CommandLine.h"
#include "app/ReplayApp.h"
#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "input/Configuration.h"
#include "media/Ffmpeg.h"
#include "report/Report.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <cstdio>
#include <iostream>
#include <unistd.h>

using namespace qlmr::replay;

int main(int argc, char** argv) {
    CLI::App app{
        "Replays a recording through the stabilization engine and reports what comes out.\n"
        "Without --input the built-in synthetic recording is used (hand-held walk, 1920x1080, "
        "30 fps, 400 Hz gyro)."};
    ReplayOptions o;
    std::string size = "1920x1080";
    std::string outputSize;
    std::string trajectory = "walk";
    bool quiet = false;
    bool forceProgress = false;
    bool dryRun = false;
    bool libraryOnly = false;
    bool noMp4 = false;

    app.add_option("-i,--input", o.input,
                   "recording folder (see docs/recording-format.md); default: synthetic")
        ->check(CLI::ExistingDirectory);
    app.add_option("-o,--out", o.outDir, "output folder")->capture_default_str();
    app.add_option("--seconds", o.synthetic.seconds, "synthetic: length in seconds")
        ->capture_default_str()
        ->check(CLI::Range(0.2, 600.0));
    app.add_option("--size", size, "synthetic: frame size WIDTHxHEIGHT")
        ->capture_default_str()
        ->check(kSizeValidator);
    app.add_option("--fps", o.synthetic.fps, "synthetic: frames per second")
        ->capture_default_str()
        ->check(CLI::Range(1.0, 240.0));
    app.add_option(
           "--trajectory", trajectory,
           "synthetic: walk, pan, still, jog, violent (the stabilizer's reference scenarios) or "
           "sway-walk, sway-pan, sway-still (slower shake, down to 0.6 Hz)")
        ->capture_default_str()
        ->check(CLI::IsMember(
            {"walk", "pan", "still", "jog", "violent", "sway-walk", "sway-pan", "sway-still"}));
    app.add_option("--seed", o.synthetic.seed,
                   "synthetic: random seed of the shake and the gyro noise")
        ->capture_default_str();
    app.add_option("--scene", o.synthetic.scene,
                   "synthetic: picture to film (JPEG/PNG), or 'procedural'; default: the installed "
                   "photograph, else procedural");
    app.add_option("--scene-fov", o.synthetic.sceneHfovDeg,
                   "synthetic: horizontal field of view the scene picture spans, degrees")
        ->capture_default_str()
        ->check(CLI::Range(30.0, 160.0));
    app.add_option("--readout-ms", o.synthetic.readoutMs, "synthetic: rolling-shutter readout time")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 100.0));
    double gyroOffsetMs = o.synthetic.gyro.timeOffsetNs * 1e-6;
    CLI::Option* gyroOffset = app.add_option("--gyro-offset-ms", gyroOffsetMs,
                                             "synthetic: gyro timestamps minus true time")
                                  ->capture_default_str()
                                  ->check(CLI::Range(-1000.0, 1000.0));
    app.add_option("--stated-gyro-offset-ms", o.synthetic.statedGyroOffsetMs,
                   "synthetic: the gyro offset the configuration states (default: the true one), "
                   "to test --calibrate")
        ->check(CLI::Range(-1000.0, 1000.0));
    app.add_option("--stated-gyro-axes", o.synthetic.statedGyroAxes,
                   "synthetic: the gyro axes the configuration states (default: the true "
                   "-y,-x,-z), to test --calibrate");
    app.add_flag("--calibrate", o.calibrate,
                 "measure the gyro axes and time offset on the input frames first and replay "
                 "with them (the gyro/image agreement is reported on every replay)");
    app.add_flag("--realtime", o.realtime,
                 "pace the camera by the frame timestamps (frames may be dropped) instead of "
                 "waiting for the engine");
    app.add_flag("--side-by-side", o.sideBySide, "also write an input | output video");
    app.add_flag("--dry-run", dryRun,
                 "no engine: frames pass through unchanged (tests inputs and outputs)");
    app.add_flag("--library-only", libraryOnly,
                 "no engine: the stabilization library's warp grids drawn by a CPU renderer");
    app.add_flag("--no-mp4", noMp4, "write Y4M only, even when ffmpeg is installed");
    app.add_flag("--y4m", o.y4m, "also write the videos as Y4M when MP4 is written");
    app.add_option("--h264-preset", o.h264Preset,
                   "x264 speed of the MP4 files: ultrafast (largest files) ... veryslow")
        ->check(CLI::IsMember(kH264Presets))
        ->capture_default_str();
    app.add_option("--max-frames", o.maxFrames, "replay only the first N frames")
        ->check(CLI::PositiveNumber);
    app.add_option("--output-size", outputSize,
                   "output surface size WIDTHxHEIGHT (default: the input's)")
        ->check(kSizeValidator);
    app.add_option("--config", o.configFile,
                   "configuration text to use instead of the recording's config.txt (or the "
                   "synthetic recording's)")
        ->check(CLI::ExistingFile);
    std::vector<std::string> sets;
    app.add_option("--set", sets,
                   "KEY=VALUE applied over the configuration (repeatable; checked like the file)")
        ->allow_extra_args(false)
        ->check(kOverrideValidator);
    app.add_option("--pairs", o.pairs, "before/after frame pairs in the report")
        ->capture_default_str()
        ->check(CLI::Range(0, 20));
    app.add_option("--threads", o.threads, "threads for rendering and measuring")
        ->capture_default_str()
        ->check(CLI::Range(1, 64));
    app.add_option("--save-recording", o.saveRecording,
                   "also write the input as a recording folder");
    app.add_flag("--progress", forceProgress,
                 "show the progress bar even when stderr is not a terminal");
    app.add_flag("-q,--quiet", quiet, "no progress bar and no summary");

    if (const int rc = parseCommandLine(app, argc, argv); rc >= 0)
        return rc;
    installInterruptHandlers();

    o.commandLine = shellQuote(argc, argv);
    if (gyroOffset->count() > 0)
        o.synthetic.gyro.timeOffsetNs = static_cast<int64_t>(std::llround(gyroOffsetMs * 1e6));
    for (const std::string& set : sets)
        o.configSets.push_back(parseOverride(set));
    o.mp4 = !noMp4;
    o.progress = !quiet && (forceProgress || isatty(2));
    o.synthetic.threads = o.threads;
    try {
        parseSize(size, o.synthetic.width, o.synthetic.height);
        if (!outputSize.empty())
            parseSize(outputSize, o.outputWidth, o.outputHeight);
        o.synthetic.trajectory = parseTrajectory(trajectory);
        if (dryRun && libraryOnly) {
            throw ReplayError("--dry-run and --library-only exclude each other");
        }
        std::unique_ptr<ReplaySession> session = dryRun        ? makePassThroughSession()
                                                 : libraryOnly ? makeLibrarySession()
                                                               : makeDefaultSession();
        o.warnings = &std::cerr;
        std::ostream nullStream(nullptr);
        std::ostream& log = quiet ? nullStream : std::cerr;
        const ReplayOutcome outcome = runReplay(o, *session, log);
        if (!quiet) {
            const ReplayMetrics& m = outcome.metrics;
            std::printf("frames: %d in, %d out, %d dropped, %d rendered unstabilized\n", m.framesIn,
                        m.framesOut, m.framesDropped, m.engine.renderedUnstabilized);
            std::printf("throughput: %.1f frames/s (%.2f s)\n", m.throughputFps, m.wallSec);
            std::printf("jitter from pixels: input %.2f px, output %.2f px (ratio %.1f)\n",
                        m.inputMotion.jitterPx, m.outputMotion.jitterPx, m.pixelJitterRatio);
            if (m.hasTruth) {
                std::printf(
                    "residual jitter (ground truth): input %.2f px, output %.2f px (ratio %.1f)\n",
                    m.truth.inputJitterPx, m.truth.outputJitterPx, m.truth.jitterRatio);
                std::printf(
                    "  after the first %.1f s: input %.2f px, output %.2f px (ratio %.1f)\n",
                    m.truth.settleSec, m.truth.inputJitterSettledPx, m.truth.outputJitterSettledPx,
                    m.truth.jitterRatioSettled);
            }
            std::printf("cropping: %.3f\n", m.crop.cropping);
            if (m.calibration.measured) {
                std::printf(
                    "gyro/image agreement: %.3f (axes %s, offset %.1f ms; best fit %s, "
                    "%.1f ms, %.3f)\n",
                    m.calibration.agreement, m.calibration.statedAxes.c_str(),
                    m.calibration.statedOffsetMs, m.calibration.bestAxes.c_str(),
                    m.calibration.bestOffsetMs, m.calibration.bestAgreement);
            }
            if (!m.calibratedFrom.empty())
                std::printf("%s\n", m.calibratedFrom.c_str());
            for (const std::string& n : m.notes)
                std::printf("note: %s\n", n.c_str());
            for (const std::string& w : m.warnings)
                std::printf("warning: %s\n", w.c_str());
            std::printf("written to %s/:", o.outDir.c_str());
            for (const std::string& f : outcome.files)
                std::printf(" %s", f.c_str());
            std::printf("\n");
        }
    } catch (const std::exception& e) {
        const ReplayFailure f = describeFailure(e, o.outDir);
        std::fprintf(stderr, "qlmr_replay: %s\n", f.message.c_str());
        return f.exitStatus;
    }
    return 0;
}
