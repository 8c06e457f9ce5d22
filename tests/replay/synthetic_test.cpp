// The synthetic recording (motion, gyro, rendering) and the gyro alignment's row bands and axes.
#include "TestUtil.h"
#include "measure/GyroAlignment.h"
#include "measure/Motion.h"
#include "media/ColorConvert.h"
#include "synthetic/CameraMotion.h"

#include <algorithm>
#include <cmath>

using namespace qlmr::replay;

namespace {

constexpr double kPi = 3.14159265358979323846;

// Camera turning about its own y axis at a constant rate.
class ConstantYaw : public CameraMotion {
  public:
    explicit ConstantYaw(double radPerSec) : rate_(radPerSec) {}
    M3 actual(double t) const override {
        return qlmr::sim::fromRotationVector(V3(0, rate_ * t, 0)).toRotationMatrix();
    }
    M3 intended(double) const override { return M3::Identity(); }

  private:
    double rate_;
};

GrayImage lumaOf(const Nv21Image& nv, int x0, int y0, int w, int h) {
    GrayImage g;
    g.resize(w, h);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x)
            g.data[static_cast<size_t>(y) * w + x] =
                nv.y()[static_cast<size_t>(y0 + y) * nv.width + x0 + x];
    }
    return g;
}

}  // namespace

TEST(CameraMotion, TrajectoriesAreRotationsOfDifferentShakeThatGyroAndRendererFollow) {
    auto motion = makeHandheldMotion(Trajectory::Walk, 5);
    GyroModel model;
    model.noiseRadPerS = 0;
    model.biasRadPerS = 0;
    model.jitterNs = 0;
    model.timeOffsetNs = 3000000;
    const std::vector<GyroSample> gyro = synthesizeGyro(*motion, model, 0.0, 2.0, 1000000000);
    ASSERT_EQ(gyro.size(), 801u);
    EXPECT_EQ(gyro[0].timestampNs, 1003000000);
    EXPECT_EQ(gyro[400].timestampNs, 2003000000);
    // Integrating the camera-axis rates reproduces the rotation between two times.
    AxisMap deviceToCamera = AxisMap::parse(kDeviceGyroAxes);
    const V3 r = integrateRotation(gyro, deviceToCamera, 1.003 + 0.5, 1.003 + 1.2);
    const M3 truth = motion->actual(0.5).transpose() * motion->actual(1.2);
    const V3 rt = qlmr::sim::toRotationVector(truth);
    EXPECT_LT((r - rt).norm(), 2e-4);
    EXPECT_GT(rt.norm(), 0.005);  // the walk does move the camera
    auto shakeRms = [](Trajectory t) {
        auto m = makeHandheldMotion(t, 1);
        double sum = 0;
        for (int i = 0; i < 300; ++i) {
            const M3 a = m->actual(i / 30.0);
            EXPECT_TRUE((a.transpose() * a).isIdentity(1e-9));
            EXPECT_NEAR(a.determinant(), 1.0, 1e-9);
            sum += qlmr::sim::toRotationVector(M3(m->intended(i / 30.0).transpose() * a))
                       .squaredNorm();
        }
        return std::sqrt(sum / 300) * 180 / kPi;
    };
    for (Trajectory t : kAllTrajectories)
        EXPECT_EQ(parseTrajectory(trajectoryName(t)), t);
    EXPECT_STREQ(trajectoryName(Trajectory::SwayPan), "sway-pan");
    const double walk = shakeRms(Trajectory::SwayWalk), still = shakeRms(Trajectory::SwayStill);
    EXPECT_GT(walk, 0.4);
    EXPECT_LT(walk, 3.0);
    EXPECT_LT(still, walk / 2);
    EXPECT_GT(shakeRms(Trajectory::Walk), 0.4);
    EXPECT_EQ(shakeRms(Trajectory::Still), 0.0);  // the reference scenario's camera rests
    EXPECT_GT(shakeRms(Trajectory::Violent), shakeRms(Trajectory::Walk));
    EXPECT_THROW(parseTrajectory("run"), ReplayError);
    // The renderer moves the picture the way the gyro predicts.
    const Scene scene = Scene::procedural(1024, 768, 90, 2);
    const PinholeCamera cam = PinholeCamera::withFov(320, 240, 60);
    SceneRenderer renderer(scene, cam, 2);
    Nv21Image a, b, rs, gsTop, gsBottom;
    for (Nv21Image* p : {&a, &b, &rs, &gsTop, &gsBottom})
        p->resize(320, 240);
    const ConstantYaw yaw(0.05);  // rad/s
    // Global shutter (readout 0): frames 0.2 s apart differ by a 0.01 rad yaw.
    renderer.render(yaw, 0.0, 0.0, 0.0, a);
    renderer.render(yaw, 0.2, 0.0, 0.0, b);
    MotionEstimator est;
    const MotionEstimate e = est.estimate(lumaOf(a, 0, 0, 320, 240), lumaOf(b, 0, 0, 320, 240),
                                          Similarity{}, MotionOptions{});
    ASSERT_TRUE(e.ok);
    double tx, ty, angle;
    predictedMotion({0, 0.01, 0}, cam.focalPx, tx, ty, angle);
    EXPECT_NEAR(e.motion.tx, tx, 0.25);
    EXPECT_NEAR(e.motion.ty, ty, 0.25);
    EXPECT_LT(tx, -2.0);  // turning right moves the content left

    // Rolling shutter (100 ms readout): each row band matches a global-shutter frame of its time.
    const ConstantYaw fast(0.4);
    renderer.render(fast, 0.0, 0.1, 0.0, rs);
    renderer.render(fast, 30.0 / 240 * 0.1, 0.0, 0.0, gsTop);      // time of row 30
    renderer.render(fast, 210.0 / 240 * 0.1, 0.0, 0.0, gsBottom);  // time of row 210
    const MotionEstimate top = est.estimate(lumaOf(gsTop, 0, 0, 320, 60), lumaOf(rs, 0, 0, 320, 60),
                                            Similarity{}, MotionOptions{});
    const MotionEstimate bottom =
        est.estimate(lumaOf(gsBottom, 0, 180, 320, 60), lumaOf(rs, 0, 180, 320, 60), Similarity{},
                     MotionOptions{});
    const MotionEstimate across = est.estimate(
        lumaOf(gsTop, 0, 180, 320, 60), lumaOf(rs, 0, 180, 320, 60), Similarity{}, MotionOptions{});
    ASSERT_TRUE(top.ok && bottom.ok && across.ok);
    EXPECT_NEAR(top.motion.tx, 0, 0.3);
    EXPECT_NEAR(bottom.motion.tx, 0, 0.3);
    EXPECT_NEAR(across.motion.tx, -cam.focalPx * 0.4 * 0.075, 0.5);
}

TEST(SyntheticRecording, FramesGyroAndConfigTextAreConsistent) {
    const SyntheticOptions small = replay_test::walk(320, 240, 1.5);
    SyntheticRecording rec(small);
    EXPECT_EQ(rec.count(), 45);
    EXPECT_EQ(rec.timestampNs(30), 2000000000);
    ASSERT_FALSE(rec.gyro().empty());
    EXPECT_LT(rec.gyro().front().timestampNs, rec.timestampNs(0));
    EXPECT_GT(rec.gyro().back().timestampNs, rec.timestampNs(44));
    const std::string config = rec.configText();
    for (const char* line : {"readoutNs=30000000", "gyroTimeOffsetNs=2000000", "gyroAxes=-y,-x,-z",
                             "fovHorizontalDeg=64.0000"})
        EXPECT_THAT(config, HasSubstr("\nvstab." + std::string(line) + "\n"));
    EXPECT_EQ(config.find("native."), std::string::npos) << config;
    Nv21Image a, b;
    a.resize(320, 240);
    b.resize(320, 240);
    rec.read(10, a);
    rec.read(10, b);
    EXPECT_EQ(a.data, b.data);  // deterministic
    rec.read(11, b);
    EXPECT_NE(a.data, b.data);  // and shaking
    SyntheticOptions bad = small;
    bad.width = 321;
    EXPECT_THROW(SyntheticRecording{bad}, ReplayError);
    bad = small;
    bad.scene = "/nonexistent.jpg";
    EXPECT_THROW(SyntheticRecording{bad}, ReplayError);
    CameraFacts f;
    f.width = 800;
    f.height = 600;
    f.focalPx = 400;
    f.focalYPx = 300;
    f.cx = 400;
    f.cy = 330;
    f.readoutMs = 33.3125;
    f.gyroAxes = "-y,-x,-z";
    f.gyroOffsetMs = -2.425;
    f.description = "copied from vstab.readoutNs=1 and native.cameraHeight=2\nsecond line";
    const std::string text = configTextFor(f);
    for (const char* line :
         {"fovHorizontalDeg=90.0000", "fovVerticalDeg=90.0000", "principalPointY=0.55000",
          "readoutNs=33312500", "gyroTimeOffsetNs=-2425000"})
        EXPECT_THAT(text, HasSubstr("\nvstab." + std::string(line) + "\n"));
    // The first occurrence of each key (the engine's and the library's lookup) is the real line.
    EXPECT_EQ(text.find("vstab.readoutNs"), text.find("\nvstab.readoutNs") + 1);
    EXPECT_EQ(text.find("native.cameraHeight"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '#'), 2);  // the description stays one line
}

TEST(GyroAlignment, RowBandsAreMixedAsTheRegistrationFitsThemAndAxisMapsArePermutations) {
    // Texture in the top quarter: the top band's motion; everywhere: every band, shear as rotation.
    GrayImage top, even;
    top.resize(64, 48);
    even.resize(64, 48);
    for (int y = 0; y < 48; ++y) {
        for (int x = 0; x < 64; ++x) {
            const uint8_t v = static_cast<uint8_t>(((x * 7 + y * 13) % 17) * 15);
            top.data[static_cast<size_t>(y) * 64 + x] = y < 12 ? v : 128;
            even.data[static_cast<size_t>(y) * 64 + x] = v;
        }
    }
    MotionEstimate registered;
    registered.ok = true;
    registered.motion.tx = 1.5;
    const std::vector<FrameMotion> m =
        frameMotionFrom({&top, &even, &even}, {1.0, 1.1, 1.2}, {registered, registered});
    ASSERT_EQ(m.size(), 2u);
    EXPECT_GT(m[0].mix[0][0][0], 0.9);
    EXPECT_LT(std::fabs(m[0].mix[3][0][0]), 0.05);
    for (int k = 0; k < 3; ++k) {
        for (int j = 0; j < 3; ++j) {
            double sum = 0;
            for (int b = 0; b < kRowBands; ++b) {
                sum += m[1].mix[b][k][j];
                if (k == j) {
                    EXPECT_GT(m[1].mix[b][k][j], 0.1) << b << k;
                }
            }
            EXPECT_NEAR(sum, k == j ? 1.0 : 0.0, 1e-9) << k << j;
        }
    }
    // Content moving right in the top band turns the fit one way, in the bottom band the other.
    EXPECT_GT(m[1].mix[0][2][0], 0);
    EXPECT_LT(m[1].mix[3][2][0], 0);
    EXPECT_DOUBLE_EQ(m[1].startSec, 1.1);
    EXPECT_DOUBLE_EQ(m[1].endSec, 1.2);
    EXPECT_DOUBLE_EQ(m[1].tx, 1.5);
    EXPECT_TRUE(m[1].ok);
    // Axis maps: signed permutations, half of them rotations.
    const AxisMap map = AxisMap::parse("-y,x,-z");
    EXPECT_EQ(map.apply(V3(1, 2, 3)), V3(-2, 1, -3));
    EXPECT_EQ(map.text(), "-y,x,-z");
    EXPECT_THROW(AxisMap::parse("x,x,z"), ReplayError);
    EXPECT_THROW(AxisMap::parse("x,y"), ReplayError);
    EXPECT_THROW(AxisMap::parse("x,y,z,x"), ReplayError);
    int rotations = 0;
    for (const AxisMap& a : AxisMap::all())
        rotations += a.isRotation();
    EXPECT_EQ(AxisMap::all().size(), 48u);
    EXPECT_EQ(rotations, 24);
    EXPECT_TRUE(AxisMap::parse("y,x,-z").isRotation());
    EXPECT_FALSE(AxisMap::parse("y,x,z").isRotation());
}
