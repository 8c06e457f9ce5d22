// The replay command without an engine: the dry run's outputs, metrics, and error handling.
#include "TestUtil.h"
#include "common/Interrupt.h"
#include "input/Configuration.h"
#include "media/ColorConvert.h"
#include "media/Ffmpeg.h"
#include "media/ImageIo.h"

#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <map>
#include <set>

using namespace qlmr::replay;
using replay_test::runCommand;
using replay_test::TempDir;

namespace {

// A stabilizer that knows the truth: every output shows the intended view, magnified 1.25 times.
class OracleSession : public ReplaySession {
  public:
    explicit OracleSession(const SyntheticOptions& o) : options_(o) {}
    const char* name() const override { return "oracle"; }
    SessionResult run(FrameSource& frames, const std::vector<GyroSample>&, const SessionConfig&,
                      SessionObserver& observer) override {
        SyntheticRecording rec(options_);
        struct Intended : CameraMotion {
            const CameraMotion* m;
            M3 actual(double t) const override { return m->intended(t); }
            M3 intended(double t) const override { return m->intended(t); }
        } intended;
        intended.m = &rec.motion();
        PinholeCamera zoomed = rec.camera();
        zoomed.focalPx *= 1.25;
        SceneRenderer renderer(rec.scene(), zoomed, 2);
        Nv21Image in, out;
        in.resize(frames.width(), frames.height());
        out.resize(frames.width(), frames.height());
        std::vector<uint8_t> rgba(static_cast<size_t>(frames.width()) * frames.height() * 4);
        SessionResult r;
        for (int i = 0; i < frames.count(); ++i) {
            frames.read(i, in);
            observer.onFrameDelivered(i, frames.timestampNs(i), in);
            ++r.framesDelivered;
            if (i == 5)
                continue;  // one frame dropped
            renderer.render(intended, rec.frameStartSec(i), 0, 0, out);
            nv21ToRgba(out, rgba.data(), frames.width());
            observer.onFrameOutput(
                0, frames.timestampNs(i),
                RgbaView{frames.width(), frames.height(), frames.width(), rgba.data()});
        }
        r.wallSec = 1;
        return r;
    }

  private:
    SyntheticOptions options_;
};

// The pass-through session, failing (or interrupted) once 10 frames have been delivered.
struct FailingSession : ReplaySession {
    explicit FailingSession(bool interrupt) : interrupt(interrupt) {}
    const char* name() const override { return "failing"; }
    SessionResult run(FrameSource& frames, const std::vector<GyroSample>& gyro,
                      const SessionConfig& config, SessionObserver& observer) override {
        struct Tripwire : SessionObserver {
            SessionObserver* inner;
            bool interrupt;
            void onFrameDelivered(int i, int64_t t, const Nv21Image& f) override {
                inner->onFrameDelivered(i, t, f);
                if (i + 1 < 10)
                    return;
                if (!interrupt)
                    throw ReplayError("the engine stopped taking frames");
                requestInterrupt();
            }
            void onFrameOutput(int s, int64_t t, const RgbaView& v) override {
                inner->onFrameOutput(s, t, v);
            }
        } tripwire;
        tripwire.inner = &observer;
        tripwire.interrupt = interrupt;
        return makePassThroughSession()->run(frames, gyro, config, tripwire);
    }
    bool interrupt;
};

// Every file under a folder (hidden ones too) with its content; a folder is "name/".
std::map<std::string, std::string> folderContents(const std::string& path) {
    std::map<std::string, std::string> files;
    std::error_code none;  // a missing folder has no files
    for (const auto& e : std::filesystem::recursive_directory_iterator(path, none)) {
        const std::string name = std::filesystem::relative(e.path(), path).string();
        if (e.is_directory())
            files[name + "/"] = "";
        else
            files[name] = replay_test::readText(e.path());
    }
    return files;
}

}  // namespace

// --calibrate's values are the check's best fit; a gyro that then stalls is named in a warning.
TEST(ReplayApp, DryRunCalibratesWritesItsOutputsAndWarnsOfAGyroThatStalls) {
    TempDir dir;
    ReplayOptions o = replay_test::replayOf(dir, 320, 180, 3, 2);
    o.synthetic.gyro.timeOffsetNs = 17000000;
    o.synthetic.statedGyroOffsetMs = 2;
    o.calibrate = true;
    o.sideBySide = true;
    o.saveRecording = dir.file("rec");
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *makePassThroughSession(), log).metrics;
    double offset = 0, before = 0, after = 0;
    ASSERT_EQ(std::sscanf(m.calibratedFrom.c_str(),
                          "calibrated: gyro axes -y,-x,-z, offset %lf ms (the configuration "
                          "stated -y,-x,-z, 2.00 ms; agreement %lf -> %lf)",
                          &offset, &before, &after),
              3)
        << m.calibratedFrom;
    EXPECT_NEAR(offset, 17.0, 2.0);  // a small picture: the rolling shutter's 1.6 ms
    const CalibrationStats& c = m.calibration;
    EXPECT_NEAR(c.statedOffsetMs, offset, 0.005);
    EXPECT_NEAR(c.bestOffsetMs, c.statedOffsetMs, 0.1);
    EXPECT_NEAR(c.agreement, after, 0.0005);
    EXPECT_EQ(c.pairs, 89);
    EXPECT_GT(c.agreement, 0.95);
    EXPECT_EQ(c.bestAxes, c.statedAxes);
    EXPECT_EQ(m.framesDelivered, 90);
    EXPECT_EQ(m.framesOut, 90);
    // The session's note is information, not a warning.
    EXPECT_EQ(m.notes, std::vector<std::string>{
                           "dry run: frames passed through unchanged, no engine involved"});
    EXPECT_TRUE(m.warnings.empty());
    // Nothing stabilized: output shakes exactly like the input, uncropped.
    ASSERT_TRUE(m.hasTruth);
    EXPECT_GT(m.truth.inputJitterPx, 3.0);
    EXPECT_NEAR(m.truth.jitterRatio, 1.0, 0.05);
    EXPECT_NEAR(m.pixelJitterRatio, 1.0, 0.05);
    EXPECT_NEAR(m.crop.cropping, 1.0, 0.01);
    // The pixel measure agrees with the ground truth on the shaking input.
    EXPECT_NEAR(m.inputMotion.jitterPx, m.truth.inputJitterPx, 0.25 * m.truth.inputJitterPx);

    Y4mReader video, sbs;
    video.open(dir.file("out/stabilized.y4m"));
    EXPECT_EQ(video.fpsNum(), 30);
    EXPECT_EQ(replay_test::countFrames(dir.file("out/stabilized.y4m")), 90);
    sbs.open(dir.file("out/side_by_side.y4m"));
    EXPECT_EQ(sbs.width(), 320 * 2 + 8);
    const auto json = nlohmann::json::parse(replay_test::readText(dir.file("out/metrics.json")));
    EXPECT_EQ(json["frames"]["out"], 90);
    EXPECT_DOUBLE_EQ(json["ground_truth"]["residual_jitter_ratio"].get<double>(),
                     m.truth.jitterRatio);
    const std::string html = replay_test::readText(dir.file("out/report.html"));
    EXPECT_THAT(html, HasSubstr("id=\"plot-data\""));
    EXPECT_THAT(html, HasSubstr("data:image/jpeg;base64,"));

    // The saved recording (with the calibrated configuration) without 0.3 s of its gyro.
    replay_test::keepGyro(dir.file("rec/gyro.csv"),
                          [](int64_t t) { return t < 2000000000 || t > 2300000000; });
    o.input = dir.file("rec");
    o.saveRecording.clear();
    o.calibrate = false;
    const ReplayMetrics stalled = runReplay(o, *makePassThroughSession(), log).metrics;
    ASSERT_EQ(stalled.warnings.size(), 1u);
    EXPECT_EQ(stalled.warnings[0].rfind("the gyro samples stop once for more than 100 ms while "
                                        "frames come (the longest 0.30 s, 1.00 s after the "
                                        "first frame)",
                                        0),
              0u)
        << stalled.warnings[0];
}

TEST(ReplayApp, FailedOrInterruptedRunLeavesTheEarlierOutputsAsTheyWere) {
    TempDir dir;
    ReplayOptions o = replay_test::replayOf(dir, 320, 180, 3, 2);
    o.synthetic.seconds = 1;
    o.mp4 = !ffmpegProgram().empty();
    o.saveRecording = dir.file("saved");
    std::ostringstream log;
    runReplay(o, *makePassThroughSession(), log);
    const auto outputs = folderContents(o.outDir);
    const auto saved = folderContents(o.saveRecording);
    ASSERT_EQ(outputs.size(), 5u);  // a video, engine.log, metrics, configuration, report
    ASSERT_EQ(saved.count("frames.csv"), 1u);

    // Half-way through, with more outputs than the first run: nothing changes, nothing is left.
    o.sideBySide = true;
    o.y4m = true;
    for (const bool interrupt : {true, false}) {
        FailingSession failing(interrupt);
        if (interrupt)
            EXPECT_THROW(runReplay(o, failing, log), Interrupted);
        else
            EXPECT_THROW(runReplay(o, failing, log), ReplayError);
        clearInterrupt();
        EXPECT_EQ(folderContents(o.outDir), outputs) << "interrupted: " << interrupt;
        EXPECT_EQ(folderContents(o.saveRecording), saved);
        // Beside out/ and saved/, no temporary.
        const auto all = folderContents(dir.path());
        EXPECT_EQ(all.size(), outputs.size() + saved.size() + 2) << all.rbegin()->first;
    }

    // A run that succeeds replaces the whole set: no video of the earlier run stays.
    o.sideBySide = false;
    o.y4m = false;
    o.mp4 = false;
    const ReplayOutcome out = runReplay(o, *makePassThroughSession(), log);
    std::set<std::string> names;
    for (const auto& [name, content] : folderContents(o.outDir))
        names.insert(name);
    EXPECT_EQ(names, std::set<std::string>(out.files.begin(), out.files.end()));
}

TEST(ReplayCommand, BadInputGivesOneErrorLineAndFailure) {
    TempDir rec, out;
    replay_test::writeRecording(rec, "timestamp_ns,file\n1000,frames/missing.png\n");
    std::string err;
    const std::string input = "--dry-run --quiet --input " + rec.path() + " --out " + out.path();
    EXPECT_EQ(runCommand(input, err), 1);
    const std::string unchanged = "; the outputs in " + out.path() + "/ are unchanged\n";
    EXPECT_EQ(err, "qlmr_replay: error: " + rec.file("frames.csv") + ":2: image " +
                       rec.file("frames/missing.png") + ": cannot open: No such file or directory" +
                       unchanged);

    // A refused configuration value names where it came from: the file's line, or the option.
    writePng(rec.file("frames/a.png"), replay_test::gradient(32, 16));
    replay_test::writeText(rec.file("frames.csv"),
                           "timestamp_ns,file\n1000,frames/a.png\n2000,frames/a.png\n");
    replay_test::writeText(rec.file("config.txt"), "# camera\nvstab.fovHorizontalDeg=-69.75\n");
    EXPECT_EQ(runCommand(input, err), 1);
    EXPECT_EQ(err, "qlmr_replay: error: " + rec.file("config.txt") +
                       ":2: vstab.fovHorizontalDeg=-69.75 is outside 10..170 (the stabilization "
                       "library refuses this configuration)" +
                       unchanged);
    EXPECT_EQ(runCommand(input + " --set vstab.fovHorizontalDeg=60 --set vstab.readoutNs=-4", err),
              1);
    EXPECT_THAT(err, HasSubstr(": --set vstab.readoutNs=-4: "));
    // The library's warnings reach the console even when the command is quiet.
    EXPECT_EQ(runCommand(input + " --set vstab.fovHorizontalDeg=60 --set vstab.windowNz=1", err),
              0);
    EXPECT_THAT(err, HasSubstr("configuration: --set vstab.windowNz=1: unknown key "
                               "vstab.windowNz is ignored; did you mean vstab.windowNs?"));

    // Faults in the command line itself: CLI11's sentence, exit status 2, never an abort.
    for (const char* usage : {"--size 100", "--size 1000x563", "--gyro-offset-ms abc",
                              "--gyro-offset-ms", "--gyro-offset-ms 1e999", "--trajectory run",
                              "--input /nonexistent", "--set novalue", "--seed x"}) {
        EXPECT_EQ(runCommand(std::string("--dry-run --out ") + out.path() + " " + usage, err), 2)
            << usage << ": " << err;
        EXPECT_FALSE(err.empty()) << usage;
    }

    // The sentence and status for an error, an interruption, and an error after SIGTERM.
    const ReplayFailure error = describeFailure(ReplayError("a.csv", 2, "bad"), "out");
    EXPECT_EQ(error.message, "error: a.csv:2: bad; the outputs in out/ are unchanged");
    EXPECT_EQ(error.exitStatus, 1);
    const ReplayFailure stopped = describeFailure(Interrupted(), "replay-out/");
    EXPECT_EQ(stopped.message, "interrupted; the outputs in replay-out/ are unchanged");
    EXPECT_EQ(stopped.exitStatus, 130);
    // SIGTERM's handler raises the flag; any error that follows counts as the interruption.
    installInterruptHandlers();
    std::raise(SIGTERM);
    const ReplayFailure terminated = describeFailure(ReplayError("read: EINTR"), "o");
    clearInterrupt();
    EXPECT_EQ(terminated.message, "interrupted; the outputs in o/ are unchanged");
    EXPECT_EQ(terminated.exitStatus, 143);
    // --set replaces the line setting the key (never a comment) or appends one, naming origins.
    const ConfigurationText overridden = applyOverrides(
        "# vstab.windowNs=1 is the window\n vstab.windowNs = 800000000\nvstab.gridRows=9\n",
        "rec/config.txt",
        {parseOverride("vstab.windowNs=1000000000"), parseOverride(" vstab.lensK1 = 0.02")});
    EXPECT_EQ(overridden.text,
              "# vstab.windowNs=1 is the window\nvstab.windowNs=1000000000\nvstab.gridRows=9\n"
              "vstab.lensK1=0.02\n");
    EXPECT_EQ(overridden.lineOrigins,
              (std::vector<std::string>{"rec/config.txt:1", "--set vstab.windowNs=1000000000",
                                        "rec/config.txt:3", "--set vstab.lensK1=0.02"}));
    EXPECT_EQ(checkConfiguration(applyOverrides("vstab.gridRow=9\n", "c.txt", {})),
              (std::vector<std::string>{
                  "c.txt:1: unknown key vstab.gridRow is ignored; did you mean vstab.gridRows?"}));
    EXPECT_THROW(parseOverride("novalue"), ReplayError);
}

// The library, and a perfect stabilizer (the metrics' upper reference), on the same walk.
TEST(LibrarySession, StabilizesTheWalkTimesRowsByTheExposureAndKeepsTheColourOfEveryColumn) {
    TempDir dir;
    const ReplayOptions o = replay_test::replayOf(dir, 320, 180, 3, 2);
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *makeLibrarySession(), log).metrics;
    EXPECT_EQ(m.framesOut, 90);
    ASSERT_TRUE(m.hasTruth);
    EXPECT_GT(m.truth.jitterRatio, 4.0)
        << m.truth.inputJitterPx << " -> " << m.truth.outputJitterPx;
    // The adaptive crop keeps more than the fixed 1.25 overscan's 64 %, but not all of it.
    EXPECT_GT(m.crop.cropping, 0.70);
    EXPECT_LT(m.crop.cropping, 0.95);

    OracleSession oracle(o.synthetic);
    const ReplayMetrics best = runReplay(o, oracle, log).metrics;
    EXPECT_EQ(best.framesDropped, 1);
    ASSERT_TRUE(best.hasTruth);
    EXPECT_GT(best.truth.jitterRatio, 10.0)
        << "input " << best.truth.inputJitterPx << " output " << best.truth.outputJitterPx;
    EXPECT_GT(best.pixelJitterRatio, 5.0);
    EXPECT_NEAR(best.crop.meanScale, 0.8, 0.01);
    EXPECT_NEAR(best.crop.cropping, 0.64, 0.02);

    // 60 ms exposures, gyro from 15 ms after the first frame: rows timed by the exposure in ns.
    replay_test::FlatFrames frames(10, 64, 48);
    frames.firstNs = 1000000000;
    frames.stepNs = 33333333;
    frames.exposure = 60000;
    frames.level = 128;
    frames.step = 0;
    frames.v = 200;
    frames.u = 60;
    std::vector<GyroSample> gyro;
    for (int64_t t = 1015000000; t < 2500000000; t += 2500000)
        gyro.push_back({t, 0.0f, 0.0f, 0.0f});
    SessionConfig config;
    config.configText = "vstab.readoutNs=30000000\n";
    config.surfaces = {{64, 48, 1, 3}};
    struct Colours : replay_test::NullObserver {
        std::set<uint32_t> seen;
        void onFrameOutput(int, int64_t, const RgbaView& v) override {
            for (int x = 8; x < 56; ++x) {
                const uint8_t* p = v.data + 4 * (24 * v.stride + x);
                seen.insert(p[0] << 16 | p[1] << 8 | p[2]);
            }
        }
    } colours;
    EXPECT_EQ(makeLibrarySession()->run(frames, gyro, config, colours).renderedUnstabilized, 0);
    uint8_t rgb[3];
    yuvToRgb(128, 60, 200, rgb);
    EXPECT_EQ(colours.seen,
              (std::set<uint32_t>{static_cast<uint32_t>(rgb[0] << 16 | rgb[1] << 8 | rgb[2])}));
    config.configText = "vstab.gridColumns=1\n";
    EXPECT_THAT(
        replay_test::errorOf([&] { makeLibrarySession()->run(frames, gyro, config, colours); }),
        HasSubstr("refused the configuration text"));
}
