// Gyro calibration from the pictures: the configuration rewrite and the offset and axes search.
#include "TestUtil.h"

#include <cmath>

namespace qlmr::replay {
namespace {

TEST(Calibration, RewritesTheTwoKeysJudgesFitsAndOutliersAndRefusesBadConfiguration) {
    const std::string text =
        "# comment vstab.gyroAxes=x,y,z\n"
        "vstab.readoutNs=30000000\n"
        "  vstab.gyroAxes = y,x,-z\n"
        "vstab.gyroTimeOffsetNsX=1\n";
    EXPECT_EQ(withCalibration(text, "-y,-x,-z", 17.25),
              "# comment vstab.gyroAxes=x,y,z\n"
              "vstab.readoutNs=30000000\n"
              "vstab.gyroAxes=-y,-x,-z\n"
              "vstab.gyroTimeOffsetNsX=1\n"
              "vstab.gyroTimeOffsetNs=17250000\n");
    EXPECT_EQ(withCalibration("vstab.gyroTimeOffsetNs=5\n", "x,y,z", -3.0),
              "vstab.gyroTimeOffsetNs=-3000000\nvstab.gyroAxes=x,y,z\n");
    // Better: beyond the noise and 2 %; outliers: far beyond the median spread; refusal: an error.
    const struct {
        double configured, candidate, noise;
        bool better;
    } fits[] = {
        {1.00, 0.90, 0.02, true},    // 0.10 px drop, 5 noise
        {1.00, 0.95, 0.02, false},   // 2.5 noise
        {1.44, 1.32, 0.165, false},  // the phone's other mapping at a quarter size
        {1.00, 0.99, 0.001, false},  // significant, but 1 %
        {1.00, 1.10, 0.001, false},  // worse
    };
    for (const auto& c : fits)
        EXPECT_EQ(clearlyBetter(c.configured, c.candidate, c.noise), c.better) << c.candidate;
    const double nan = std::nan("");
    const struct {
        std::vector<double> errors;
        std::vector<bool> kept;
        double rms;  // each outlier counted at the limit
    } cases[] = {
        {{1.0, 1.2, 0.9, 1.1, 1.0, 9.0}, {1, 1, 1, 1, 1, 0}, 1.3346},
        {{1.0, 1.0, 1.0, 1.0, 1.9}, {1, 1, 1, 1, 1}, 1.2337},  // no spread: kOutlierMinPx
        {{0.5, 0.7, nan, 0.6}, {1, 1, 0, 1}, 1.6231},
        {{5.0, 80.0}, {1, 1}, 56.6789},  // too few to judge
    };
    for (const auto& c : cases) {
        const double limit = outlierLimit(c.errors);
        std::vector<bool> kept;
        for (const double e : c.errors)
            kept.push_back(e <= limit);
        EXPECT_EQ(kept, c.kept) << c.errors.size();
        EXPECT_NEAR(robustRms(c.errors, limit), c.rms, 1e-4) << c.errors.size();
    }
    CalibrationInput refused;
    refused.configText = "vstab.gridRows=1\n";
    EXPECT_THROW(calibrate(refused), ReplayError);
}

// A walk (gyro offset 17 ms) under wrong, swapped and true configurations; from lumas and pairs.
TEST(Calibration, FindsWhatTheConfigurationMisstatesAndKeepsWhatItStatesRightly) {
    SyntheticOptions o = replay_test::walk(640, 360, 4);
    o.gyro.timeOffsetNs = 17000000;
    SyntheticRecording rec(o);
    const std::string config = rec.configText();
    CalibrationInput in =
        replay_test::calibrationInput(rec, 2, rec.gyro(), withCalibration(config, "-y,-x,-z", 2.0));
    const CalibrationStats c = calibrate(in);
    ASSERT_TRUE(c.measured);
    EXPECT_EQ(c.statedAxes, "-y,-x,-z");
    EXPECT_DOUBLE_EQ(c.statedOffsetMs, 2.0);
    EXPECT_EQ(c.bestAxes, "-y,-x,-z");
    EXPECT_NEAR(c.bestOffsetMs, 17.0, 0.2);  // pictures of 320x180 over 4 s
    EXPECT_GT(c.bestAgreement, c.agreement);
    EXPECT_LT(c.bestRmsPx, 0.5 * c.statedRmsPx);
    EXPECT_TRUE(c.changed);
    EXPECT_EQ(c.useAxes, "-y,-x,-z");
    EXPECT_DOUBLE_EQ(c.useOffsetMs, c.bestOffsetMs);
    ASSERT_EQ(c.warnings.size(), 1u);
    EXPECT_THAT(c.warnings[0], HasSubstr("gyro time offset of 1"));
    EXPECT_EQ(c.series.size(), static_cast<size_t>(c.pairs));

    std::vector<double> times;
    for (int64_t t : in.timestampsNs)
        times.push_back(t * 1e-9);
    in.motion = measureFrameMotion(in.lumas, times, 2);
    in.measuredWidth = in.lumas.front().width;
    const std::vector<GrayImage> lumas = std::move(in.lumas);
    in.lumas.clear();
    for (const GrayImage& g : lumas)
        in.pictures.push_back(&g);
    const CalibrationStats shared = calibrate(in);
    ASSERT_TRUE(shared.measured);
    EXPECT_EQ(shared.pairs, c.pairs);
    EXPECT_DOUBLE_EQ(shared.agreement, c.agreement);
    EXPECT_DOUBLE_EQ(shared.statedRmsPx, c.statedRmsPx);
    EXPECT_EQ(shared.bestAxes, c.bestAxes);
    EXPECT_DOUBLE_EQ(shared.bestOffsetMs, c.bestOffsetMs);
    EXPECT_EQ(shared.warnings, c.warnings);

    in.configText = withCalibration(config, "-x,-y,z", 17.0);
    const CalibrationStats swapped = calibrate(in);
    ASSERT_TRUE(swapped.measured);
    EXPECT_LT(swapped.agreement, kPoorAgreement);
    EXPECT_EQ(swapped.bestAxes, "-y,-x,-z");
    EXPECT_GT(swapped.bestAgreement, 0.9);
    std::string all;
    for (const std::string& w : swapped.warnings)
        all += w + "\n";
    EXPECT_THAT(all, HasSubstr("agree poorly"));
    EXPECT_TRUE(swapped.changed);
    EXPECT_EQ(swapped.useAxes, "-y,-x,-z");
    EXPECT_THAT(all, HasSubstr("the gyro axes -y,-x,-z fit the image motion clearly better than "
                               "the configured -x,-y,z"));

    in.configText = withCalibration(config, "-y,-x,-z", 17.0);
    const CalibrationStats clean = calibrate(in);
    ASSERT_TRUE(clean.measured);
    EXPECT_GT(clean.agreement, 0.95);
    EXPECT_TRUE(clean.warnings.empty()) << clean.warnings.front();
    EXPECT_TRUE(clean.configWarnings.empty());
    // The best fit lies a fraction of a millisecond away, within the noise: nothing changes.
    EXPECT_FALSE(clean.changed);
    EXPECT_EQ(clean.useAxes, "-y,-x,-z");
    EXPECT_DOUBLE_EQ(clean.useOffsetMs, 17.0);
    EXPECT_EQ(clean.verdict.find("the configured axes -y,-x,-z and offset 17.00 ms are kept"), 0u)
        << clean.verdict;
    ASSERT_EQ(clean.outlierPairs, 0);
    // A spike within the sensor's range, and one pair whose registration went astray.
    std::vector<GyroSample> gyro = rec.gyro();
    gyro[gyro.size() / 2].x = 30;
    in.gyro = &gyro;
    in.motion[10].tx += 40;
    const CalibrationStats wild = calibrate(in);
    EXPECT_GE(wild.outlierPairs, 2);
    EXPECT_LE(wild.outlierPairs, 4);
    EXPECT_NEAR(wild.agreement, clean.agreement, 0.01);
    // Each outlier counts at the limit (about a pixel), not at its own 40 px.
    EXPECT_LT(wild.statedRmsPx, 2.5 * clean.statedRmsPx);
    EXPECT_EQ(wild.bestAxes, "-y,-x,-z");
    EXPECT_NEAR(wild.bestOffsetMs, 17.0, 0.2);
    EXPECT_TRUE(wild.warnings.empty()) << wild.warnings.front();
}

TEST(GyroAlignment, OffsetIsResolvedBetweenTheSearchSteps) {
    // Motion exactly as predicted at 7.37 ms is found to a hundredth of a millisecond.
    constexpr double kTwoPi = 6.283185307179586;
    std::vector<GyroSample> gyro;
    for (int i = 0; i < 1600; ++i) {
        const double t = i / 400.0;
        gyro.push_back({static_cast<int64_t>(std::llround(t * 1e9)),
                        static_cast<float>(0.3 * std::sin(kTwoPi * 3.1 * t)),
                        static_cast<float>(0.2 * std::sin(kTwoPi * 5.3 * t + 1)),
                        static_cast<float>(0.1 * std::sin(kTwoPi * 2.2 * t + 2))});
    }
    AlignmentSearch search;
    search.focalPx = 500;
    search.readoutMs = 20;
    search.offsetMinMs = -20;
    search.offsetMaxMs = 20;
    const AxisMap truth = AxisMap::parse("-y,-x,-z");
    std::vector<FrameMotion> motion;
    for (int i = 30; i < 100; ++i) {
        FrameMotion f;
        f.startSec = i / 30.0;
        f.endSec = (i + 1) / 30.0;
        double p[3];
        predictPairMotion(f, gyro, truth, 7.37, search.readoutMs, search.focalPx, p);
        f.tx = p[0];
        f.ty = p[1];
        f.angle = p[2];
        f.ok = true;
        motion.push_back(f);
    }
    const std::vector<AlignmentScore> ranked = rankAlignments(motion, gyro, search);
    EXPECT_EQ(ranked[0].map.text(), "-y,-x,-z");
    EXPECT_NEAR(ranked[0].offsetMs, 7.37, 0.01);
}

}  // namespace
}  // namespace qlmr::replay
