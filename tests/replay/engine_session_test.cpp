// The replay tool through the real engine (host camera, gyroscope, windows, llvmpipe) and our
// stabilization library: the figures the tool promises, measured on its output pixels and on
// the synthetic recording's ground truth.
#include "GyroAlignment.h"
#include "PhoneRecording.h"
#include "ReplayApp.h"
#include "TestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
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
