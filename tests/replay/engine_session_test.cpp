// The replay tool through the real engine and our library: the figures the tool promises.
#include "FinishesWithin.h"
#include "TestUtil.h"
#include "common/Interrupt.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <filesystem>

using namespace qlmr::replay;
using replay_test::TempDir;

namespace {

TEST(EngineSession, StabilizesTheSyntheticWalkTenTimes) {
    TempDir dir;
    const ReplayOptions o = replay_test::replayOf(dir, 480, 270, 6, 1);
    auto session = makeDefaultSession();
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *session, log).metrics;

    EXPECT_EQ(m.framesOut, 180);  // none dropped: the camera waits for the engine
    EXPECT_EQ(m.engine.droppedQueueFull, 0);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    EXPECT_EQ(m.engine.exceptions, 0);
    ASSERT_TRUE(m.hasTruth);
    EXPECT_GE(m.truth.jitterRatio, 10.0)
        << m.truth.inputJitterPx << " -> " << m.truth.outputJitterPx;
    EXPECT_GE(m.pixelJitterRatio, 10.0)
        << m.inputMotion.jitterPx << " -> " << m.outputMotion.jitterPx;
    EXPECT_GT(m.crop.cropping, 0.70);  // the adaptive crop: more than the fixed 64 %
    EXPECT_LT(m.crop.cropping, 0.95);
    // The engine's own timing probes were read from its log.
    EXPECT_GT(m.engine.stageMs.count("Render()/Render"), 0u);
}

// A gyro log ending half-way: the rest leaves the queue unstabilized, none lost, ending promptly.
TEST(EngineSession, GyroEndingEarlyRendersTheRestUnstabilized) {
    TempDir dir;
    ReplayOptions o = replay_test::replayOf(dir, 320, 240, 4);
    o.saveRecording = dir.file("rec");
    std::ostringstream log;
    runReplay(o, *makePassThroughSession(), log);
    // Keep the samples of the first 2 s of frames (they start at 1 s).
    replay_test::keepGyro(dir.file("rec/gyro.csv"), [](int64_t t) { return t <= 3000000000; });
    o.input = dir.file("rec");
    o.saveRecording.clear();
    ReplayMetrics m;
    ASSERT_TRUE(finishesWithin(std::chrono::seconds(120), [&] {
        auto session = makeDefaultSession();
        m = runReplay(o, *session, log).metrics;
    }));
    EXPECT_EQ(m.framesOut, 120);
    EXPECT_EQ(m.engine.droppedQueueFull, 0);
    // 59 frames after the gyro's end cannot be stabilized, the 42 of the first 1.4 s must be.
    EXPECT_GE(m.engine.renderedUnstabilized, 58);
    EXPECT_LE(m.engine.renderedUnstabilized, 80);
    const std::string named = std::to_string(m.engine.renderedUnstabilized) +
                              " of 120 frames were rendered unstabilized (the gyro samples end 1.9";
    EXPECT_TRUE(std::any_of(m.warnings.begin(), m.warnings.end(), [&](const std::string& w) {
        return w.rfind(named, 0) == 0;
    })) << named;
}

// A camera-thread fault and an interruption end the run cleanly; a width of 328 then replays.
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
    struct Interrupting : replay_test::NullObserver {
        void onFrameDelivered(int index, int64_t, const Nv21Image&) override {
            if (index == 20)
                requestInterrupt();
        }
    } interrupting;
    replay_test::NullObserver quiet;

    const SyntheticOptions walk = replay_test::walk(320, 240, 1);
    SyntheticRecording plain(walk);
    Failing failing(walk);
    SessionConfig config;
    config.configText = plain.configText();
    config.surfaces.push_back({320, 240});
    auto session = makeDefaultSession();
    TempDir dir;
    const ReplayOptions o = replay_test::replayOf(dir, 328, 184, 2);
    ReplayMetrics m;
    std::ostringstream log;
    ASSERT_TRUE(finishesWithin(std::chrono::seconds(120), [&] {
        EXPECT_THROW(session->run(failing, plain.gyro(), config, quiet), ReplayError);
        EXPECT_THROW(session->run(plain, plain.gyro(), config, interrupting), Interrupted);
        clearInterrupt();
        m = runReplay(o, *session, log).metrics;
    }));
    EXPECT_EQ(m.framesOut, 60);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    EXPECT_GE(m.truth.jitterRatio, 3.0);
    const std::string y4m = replay_test::readText(dir.file("out/stabilized.y4m"));
    EXPECT_EQ(y4m.rfind("YUV4MPEG2 W328 H184", 0), 0u) << y4m.substr(0, 40);
}

TEST(ReplayCommand, MainCommandRunsTheEngine) {
    TempDir dir;
    std::string err;
    ASSERT_EQ(replay_test::runCommand(
                  "--quiet --seconds 1 --size 320x240 --no-mp4 --out " + dir.file("out"), err),
              0)
        << err;
    const std::string metrics = replay_test::readText(dir.file("out/metrics.json"));
    EXPECT_EQ(nlohmann::json::parse(metrics)["session"], "engine") << metrics.substr(0, 200);
    // The camera reports the recording's frame rate to the engine, which logs it.
    EXPECT_NE(
        replay_test::readText(dir.file("out/engine.log")).find("getPreviewFrameRate, fps: 30"),
        std::string::npos);
    EXPECT_TRUE(std::filesystem::exists(dir.file("out/stabilized.y4m")));
    EXPECT_TRUE(std::filesystem::exists(dir.file("out/report.html")));
}

}  // namespace
