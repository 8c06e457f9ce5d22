// The replay tool through the real engine (host camera, gyroscope, windows, llvmpipe) and our
// stabilization library: the figures the tool promises, measured on its output pixels and on
// the synthetic recording's ground truth.
#include "TestUtil.h"
#include "app/ReplayApp.h"
#include "common/Interrupt.h"
#include "common/ReplayError.h"
#include "input/PhoneRecording.h"
#include "measure/GyroAlignment.h"
#include "synthetic/Synthetic.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <future>
#include <sstream>

using namespace qlmr::replay;
using replay_test::TempDir;

namespace {

TEST(EngineSession, StabilizesTheSyntheticWalkTenTimes) {
    TempDir dir;
    ReplayOptions o;
    o.outDir = dir.file("out");
    o.synthetic.width = 640;  // the walk of the default recording, at a test-friendly size
    o.synthetic.height = 360;
    o.synthetic.seconds = 10;
    o.synthetic.scene = "procedural";
    o.mp4 = false;
    o.pairs = 1;
    auto session = makeDefaultSession();
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *session, log).metrics;

    EXPECT_EQ(m.framesIn, 300);
    EXPECT_EQ(m.framesOut, 300);  // none dropped: the camera waits for the engine
    EXPECT_EQ(m.engine.droppedQueueFull, 0);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    EXPECT_EQ(m.engine.exceptions, 0);
    ASSERT_TRUE(m.hasTruth);
    EXPECT_GE(m.truth.jitterRatio, 10.0)
        << m.truth.inputJitterPx << " -> " << m.truth.outputJitterPx;
    EXPECT_GE(m.pixelJitterRatio, 10.0)
        << m.inputMotion.jitterPx << " -> " << m.outputMotion.jitterPx;
    // The adaptive crop keeps more than the fixed 1.25 overscan's 64 % on this shaky walk, but
    // not all of it.
    EXPECT_GT(m.crop.cropping, 0.70);
    EXPECT_LT(m.crop.cropping, 0.95);
    // The engine's own timing probes were read from its log.
    EXPECT_GT(m.engine.stageMs.count("Render()/Render"), 0u);
}

TEST(EngineSession, RealPhoneRecordingComesOutSteadier) {
    struct stat st {};
    if (stat(QLMR_PHONE_DATA_DIR, &st) != 0)
        GTEST_SKIP() << "the phone recording is not in " << QLMR_PHONE_DATA_DIR;
    TempDir dir;
    writePhoneRecording(loadPhoneRecording(QLMR_PHONE_DATA_DIR), PhoneCamera(),
                        AxisMap::parse("-y,-x,-z"), 0.2, dir.file("rec"));
    ReplayOptions o;
    o.input = dir.file("rec");
    o.outDir = dir.file("out");
    o.mp4 = false;
    o.pairs = 1;
    auto session = makeDefaultSession();
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *session, log).metrics;
    EXPECT_EQ(m.framesOut, 103);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    // Measured on the pixels: 4.1 px of high-passed frame-to-frame motion in, 1.8 px out.
    EXPECT_GE(m.pixelJitterRatio, 1.8)
        << m.inputMotion.jitterPx << " -> " << m.outputMotion.jitterPx;
    EXPECT_GT(m.outputMotion.stability, m.inputMotion.stability);
}

// Runs `body` on a thread of its own and fails (instead of hanging the suite) when it does not
// finish within `limit`.
template <typename Body>
void finishesWithin(std::chrono::seconds limit, Body body) {
    auto done = std::async(std::launch::async, body);
    ASSERT_EQ(done.wait_for(limit), std::future_status::ready)
        << "no end after " << limit.count() << " s";
    done.get();
}

SyntheticOptions smallWalk(int width, int height, double seconds) {
    SyntheticOptions s;
    s.width = width;
    s.height = height;
    s.seconds = seconds;
    s.scene = "procedural";
    return s;
}

// A gyro log that ends half-way through the frames: the frames it cannot stabilize leave the
// engine's queue unstabilized (its almost-full rule, as on a device), none is lost, and the
// replay ends promptly.
TEST(EngineSession, GyroEndingEarlyRendersTheRestUnstabilized) {
    TempDir dir;
    ReplayOptions save;
    save.synthetic = smallWalk(320, 240, 4);
    save.outDir = dir.file("saved");
    save.saveRecording = dir.file("rec");
    save.mp4 = false;
    save.pairs = 0;
    std::ostringstream log;
    runReplay(save, *makePassThroughSession(), log);
    {
        // Keep the samples of the first 2 s of frames (they start at 1 s).
        std::istringstream in(replay_test::readText(dir.file("rec/gyro.csv")));
        std::string kept, line;
        while (std::getline(in, line) && (line[0] == 't' || std::stoll(line) <= 3000000000))
            kept += line + "\n";
        replay_test::writeText(dir.file("rec/gyro.csv"), kept);
    }
    ReplayOptions o;
    o.input = dir.file("rec");
    o.outDir = dir.file("out");
    o.mp4 = false;
    o.pairs = 0;
    ReplayMetrics m;
    finishesWithin(std::chrono::seconds(120), [&] {
        auto session = makeDefaultSession();
        m = runReplay(o, *session, log).metrics;
    });
    EXPECT_EQ(m.framesOut, 120);
    EXPECT_EQ(m.engine.droppedQueueFull, 0);
    // The 59 frames after the gyro's end cannot be stabilized; the 42 of the first 1.4 s must
    // be (those in between lack the library's full 0.6 s look-ahead).
    EXPECT_GE(m.engine.renderedUnstabilized, 58);
    EXPECT_LE(m.engine.renderedUnstabilized, 80);
    const std::string named = std::to_string(m.engine.renderedUnstabilized) +
                              " of 120 frames were rendered unstabilized (the gyro samples end 1.9";
    EXPECT_TRUE(std::any_of(m.warnings.begin(), m.warnings.end(),
                            [&](const std::string& w) { return w.rfind(named, 0) == 0; }))
        << named;
}

// A frame width the engine's buffers cannot take (not a multiple of 16) is scaled for the
// camera; the outputs keep the recording's size and every frame comes out stabilized.
TEST(EngineSession, OddFrameWidthIsScaledForTheEngine) {
    TempDir dir;
    ReplayOptions o;
    o.synthetic = smallWalk(328, 184, 2);
    o.outDir = dir.file("out");
    o.mp4 = false;
    o.pairs = 0;
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *makeDefaultSession(), log).metrics;
    EXPECT_EQ(m.framesOut, 60);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    EXPECT_GE(m.truth.jitterRatio, 3.0);
    const std::string y4m = replay_test::readText(dir.file("out/stabilized.y4m"));
    EXPECT_EQ(y4m.rfind("YUV4MPEG2 W328 H184", 0), 0u) << y4m.substr(0, 40);
}

// A fault on the camera's thread (a frame that cannot be decoded) and an interruption both end
// the run on the caller's thread with the engine torn down, so that another replay can follow.
TEST(EngineSession, FaultsAndInterruptionsEndTheRunCleanly) {
    class Failing : public SyntheticRecording {
      public:
        using SyntheticRecording::SyntheticRecording;
        void read(int index, Nv21Image& out) override {
            if (index == 20)
                throw ReplayError("frames.csv", 22, "truncated picture");
            SyntheticRecording::read(index, out);
        }
    };
    class Interrupting : public SessionObserver {
      public:
        void onFrameDelivered(int index, int64_t, const Nv21Image&) override {
            if (index == 20)
                requestInterrupt();
        }
        void onFrameOutput(int, int64_t, const RgbaView&) override {}
    } interrupting;
    class Quiet : public SessionObserver {
        void onFrameDelivered(int, int64_t, const Nv21Image&) override {}
        void onFrameOutput(int, int64_t, const RgbaView&) override {}
    } quiet;

    const SyntheticOptions walk = smallWalk(320, 240, 2);
    SyntheticRecording plain(walk);
    Failing failing(walk);
    SessionConfig config;
    config.configText = plain.configText();
    config.surfaces.push_back({320, 240});
    auto session = makeDefaultSession();
    finishesWithin(std::chrono::seconds(120), [&] {
        EXPECT_THROW(session->run(failing, plain.gyro(), config, quiet), ReplayError);
        EXPECT_THROW(session->run(plain, plain.gyro(), config, interrupting), Interrupted);
        clearInterrupt();
        SyntheticRecording again(walk);
        EXPECT_EQ(session->run(again, again.gyro(), config, quiet).framesDelivered, 60);
    });
}

TEST(ReplayCommand, MainCommandRunsTheEngine) {
    TempDir dir;
    const std::string cmd = std::string(QLMR_REPLAY_BIN) +
                            " --quiet --seconds 1 --size 320x240 --no-mp4 --out " +
                            dir.file("out") + " 2>" + dir.file("err") + " >/dev/null";
    const int status = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << replay_test::readText(dir.file("err"));
    const std::string metrics = replay_test::readText(dir.file("out/metrics.json"));
    EXPECT_EQ(nlohmann::json::parse(metrics)["session"], "engine") << metrics.substr(0, 200);
    for (const char* name : {"stabilized.y4m", "report.html", "engine.log"}) {
        struct stat st {};
        EXPECT_EQ(stat(dir.file(std::string("out/") + name).c_str(), &st), 0) << name;
    }
}

}  // namespace
