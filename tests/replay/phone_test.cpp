// The real phone recording (read from the shared data folder when it is present).
#include "TestUtil.h"
#include "input/PhoneRecording.h"
#include "input/Recording.h"

#include <filesystem>

using namespace qlmr::replay;

namespace {
const char* kPhoneDir = QLMR_PHONE_DATA_DIR;
bool havePhoneData() {
    return std::filesystem::exists(std::string(kPhoneDir) + "/gyro.txt");
}
// The phone recording as the converter writes it by default, loaded back.
Recording convertedRecording(const PhoneRecording& phone, const replay_test::TempDir& dir) {
    writePhoneRecording(phone, PhoneCamera(), AxisMap::parse("-y,-x,-z"), 0.2, dir.path());
    return loadRecording(dir.path());
}

}  // namespace

// Converted, loaded back, and replayed through the engine: the real shake comes out steadier.
TEST(PhoneRecording, ConvertsIntoALoadableRecordingTheEngineSteadies) {
    if (!havePhoneData())
        GTEST_SKIP() << "the phone recording is not in " << kPhoneDir;
    const PhoneRecording phone = loadPhoneRecording(kPhoneDir);
    replay_test::TempDir dir, out;
    const Recording rec = convertedRecording(phone, dir);
    EXPECT_EQ(rec.frames.size(), 103u);
    EXPECT_EQ(rec.frames[0].exposureUs, 5250);
    ASSERT_GT(rec.gyro.size(), 1000u);
    EXPECT_LT(rec.gyro.front().timestampNs, rec.frames.front().timestampNs);
    EXPECT_GT(rec.gyro.back().timestampNs, rec.frames.back().timestampNs);
    // The samples are kept as the phone recorded them.
    size_t k = 0;
    while (phone.gyro[k].timestampNs < phone.frameTimestampsNs[10])
        ++k;
    bool found = false;
    for (const GyroSample& s : rec.gyro) {
        if (s.timestampNs == phone.gyro[k].timestampNs) {
            EXPECT_FLOAT_EQ(s.x, phone.gyro[k].x);
            EXPECT_FLOAT_EQ(s.z, phone.gyro[k].z);
            found = true;
        }
    }
    EXPECT_TRUE(found);
    // Measured offset minus half the 5.25 ms exposure.
    EXPECT_NE(rec.configText.find("\nvstab.gyroTimeOffsetNs=-2425000\n"), std::string::npos)
        << rec.configText;
    EXPECT_NE(rec.configText.find("\nvstab.gyroAxes=-y,-x,-z\n"), std::string::npos);
    EXPECT_NE(rec.configText.find("\nvstab.fovHorizontalDeg=69.7"), std::string::npos);

    ReplayOptions o;
    o.input = dir.path();
    o.outDir = out.path();
    o.mp4 = false;
    o.pairs = 1;
    std::ostringstream log;
    const ReplayMetrics m = runReplay(o, *makeDefaultSession(), log).metrics;
    EXPECT_EQ(m.framesOut, 103);
    EXPECT_EQ(m.engine.renderedUnstabilized, 0);
    // Measured on the pixels: 4.1 px of high-passed frame-to-frame motion in, 1.8 px out.
    EXPECT_GE(m.pixelJitterRatio, 1.8)
        << m.inputMotion.jitterPx << " -> " << m.outputMotion.jitterPx;
    EXPECT_GT(m.outputMotion.stability, m.inputMotion.stability);
}

TEST(PhoneRecording, CalibrationKeepsTheConfiguredAxes) {
    // At a quarter size -y,z,-x fits a little better, within the noise: neither size changes it.
    if (!havePhoneData())
        GTEST_SKIP() << "the phone recording is not in " << kPhoneDir;
    const PhoneRecording phone = loadPhoneRecording(kPhoneDir);
    replay_test::TempDir dir;
    const Recording rec = convertedRecording(phone, dir);
    ASSERT_EQ(calibrationReduction(rec.width), 2);
    for (const int factor : {2, 4}) {
        const CalibrationStats c = calibrate(replay_test::calibrationInput(
            *openRecordingFrames(rec), factor, rec.gyro, rec.configText));
        EXPECT_EQ(c.bestAxes, factor == 4 ? "-y,z,-x" : "-y,-x,-z") << factor;
        EXPECT_FALSE(c.changed) << c.verdict;
        EXPECT_EQ(c.useAxes, "-y,-x,-z");
        EXPECT_DOUBLE_EQ(c.useOffsetMs, c.statedOffsetMs);
    }
}

TEST(PhoneRecording, MirrorImageCameraAxesAreRefused) {
    EXPECT_EQ(parseCameraAxes("-y,-x,-z").text(), "-y,-x,-z");
    EXPECT_EQ(replay_test::errorOf([] { parseCameraAxes("x,y,-z"); }),
              "--camera-axes x,y,-z is a mirror image, not a rotation: flip the sign of one axis "
              "(for example x,y,z)");
    // Nor is a mirror written by a caller that did not parse the text.
    replay_test::TempDir dir;
    PhoneRecording phone;
    EXPECT_THROW(
        writePhoneRecording(phone, PhoneCamera(), AxisMap::parse("-y,-x,z"), 0, dir.file("out")),
        ReplayError);
    EXPECT_FALSE(std::filesystem::exists(dir.file("out")));
}
