// The stabilization library through its five C functions, as the engine calls them.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <future>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include <android/log.h>

#include "LogCapture.h"
#include "zef_gyro_vstab.h"

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kStart = 100000 * kMs;  // some time after boot

// One library handle with the engine's vertex array and message buffer.
class Lib {
  public:
    explicit Lib(const std::string& config = "vstab.readoutNs=30000000\n") {
        messageSize = sizeof message;
        status = vStabCreateUseCharCnfgBuff(&handle, config.data(), static_cast<int>(config.size()),
                                            message, &messageSize);
        if (status == 0) {
            const VStabConfigRecord* c = vStabConfig(handle);
            vertices.assign(static_cast<size_t>(c->gridColumns) * c->gridRows * 3, 0.0f);
            out = {0, 0, vertices.data()};
        }
    }
    ~Lib() {
        if (handle != nullptr)
            vStabDestroy(handle);
    }
    Lib(const Lib&) = delete;
    Lib& operator=(const Lib&) = delete;

    // Gyro at 400 Hz over [from, to), camera-axis `rate(t)` mapped to the default -y,-x,-z.
    template <typename Rate>
    void feed(int64_t from, int64_t to, Rate rate) {
        for (int64_t t = from; t < to; t += 2500000) {
            const double s = static_cast<double>(t - kStart) * 1e-9;
            float cam[3];
            rate(s, cam);
            const float sensor[3] = {-cam[1], -cam[0], -cam[2]};
            ASSERT_EQ(vStabAddAngularVelocity(handle, t, sensor), 0);
        }
    }
    void feedStill(int64_t from, int64_t to) {
        feed(from, to, [](double, float* r) { r[0] = r[1] = r[2] = 0.0f; });
    }
    int warp(int64_t timestampNs, int64_t exposureNs = 10 * kMs) {
        VStabFrameInfo info{40, 2, timestampNs, exposureNs, 1.0f, 1.0f, 0, 0};
        return vStabWarpGrid(handle, &info, &out);
    }
    const VStabConfigRecord& config() const { return *vStabConfig(handle); }

    void* handle = nullptr;
    int status = -1;
    char message[512] = {};
    unsigned int messageSize = 0;
    std::vector<float> vertices;
    VStabOutput out{0, 0, nullptr};
};

TEST(VStabApi, ConfigRecordFieldsSitAtTheEnginesOffsetsUnknownKeysAreReportedOnce) {
    Lib lib(
        "vstab.gridColumns=21\nvstab.gridRows=12\nvstab.windowNs=900000000\n"
        "vstab.latencyNs=500000000\nvstab.debugFrameIndex=1\nvstab.clockIdGyro=1\n"
        "vstab.clockIdFrame=7\n");
    ASSERT_EQ(lib.status, 0) << lib.message;
    const unsigned char* raw = reinterpret_cast<const unsigned char*>(vStabConfig(lib.handle));
    auto read = [raw](size_t offset, auto value) {
        std::memcpy(&value, raw + offset, sizeof value);
        return static_cast<int64_t>(value);
    };
    const int64_t fields[] = {read(28, uint32_t{}), read(32, uint32_t{}), read(216, int64_t{}),
                              read(240, int64_t{}), read(256, int32_t{}), read(296, int32_t{}),
                              read(300, int32_t{})};
    EXPECT_EQ(std::vector<int64_t>(fields, fields + 7),
              (std::vector<int64_t>{21, 12, 900000000, 500000000, 1, 1, 7}));
    EXPECT_EQ(vStabConfig(nullptr), nullptr);

    // Unknown keys are reported once, in the message and in the log.
    LogCapture log;
    Lib warned("vstab.readoutNs=30000000\ngyro.axes=y,x,-z\nnative.cameraHeight=1080\n");
    ASSERT_EQ(warned.status, 0) << warned.message;
    const std::string message(warned.message, warned.messageSize);
    EXPECT_EQ(message.rfind("1 configuration warning: Line 2: unknown key gyro.axes is ignored; "
                            "did you mean vstab.gyroAxes?\nGyro stabilizer ready:",
                            0),
              0u)
        << message;
    int warnings = 0;
    for (const LogLine& line : log.lines()) {
        warnings += line.priority == ANDROID_LOG_WARN && line.tag == "ZefVStab" &&
                    line.text.rfind("Configuration warning: Line 2: unknown key gyro.axes", 0) == 0;
    }
    EXPECT_EQ(warnings, 1);
    EXPECT_EQ(log.countContaining("native"), 0);

    log.clear();
    Lib quiet("vstab.readoutNs=30000000\nnative.cameraHeight=1080\n");
    EXPECT_EQ(std::string(quiet.message).rfind("Gyro stabilizer ready:", 0), 0u) << quiet.message;
    EXPECT_EQ(log.countContaining("warning"), 0);
}

TEST(VStabApi, RefusedConfigurationExplainsItselfWithinTheBuffer) {
    const char bad[] = "vstab.gridRows=1\n";
    for (unsigned int capacity : {0u, 1u, 10u, 512u}) {
        char buf[600];
        std::memset(buf, 0x5a, sizeof buf);
        unsigned int size = capacity;
        void* handle = reinterpret_cast<void*>(0x1);
        EXPECT_NE(vStabCreateUseCharCnfgBuff(&handle, bad, sizeof bad - 1, buf, &size), 0);
        EXPECT_EQ(handle, nullptr);
        for (size_t k = capacity; k < sizeof buf; ++k)
            ASSERT_EQ(buf[k], 0x5a) << "written past the capacity " << capacity;
        EXPECT_EQ(size, capacity > 0 ? std::strlen(buf) : 0u);
        EXPECT_TRUE(size == 0 || size < capacity);
        EXPECT_TRUE(capacity < 512 || std::string(buf).find("vstab.gridRows") != std::string::npos)
            << buf;
    }
    void* h = nullptr;
    EXPECT_NE(vStabCreateUseCharCnfgBuff(&h, nullptr, 5, nullptr, nullptr), 0);
    EXPECT_NE(vStabCreateUseCharCnfgBuff(nullptr, "", 0, nullptr, nullptr), 0);
    EXPECT_NE(vStabCreateUseCharCnfgBuff(&h, "", -1, nullptr, nullptr), 0);
}

TEST(VStabApi, StatusFollowsTheGyroCoverageOfTheFrameContractViolationsAreErrors) {
    Lib lib;
    ASSERT_EQ(lib.status, 0);
    const int64_t frame = kStart + 1000 * kMs;
    EXPECT_EQ(lib.warp(frame), 2) << "no gyro at all yet: wait";
    lib.feedStill(frame + 20 * kMs, frame + 100 * kMs);
    EXPECT_EQ(lib.warp(frame), 1) << "gyro starts after the exposure: render unwarped";

    Lib fresh;
    const int64_t latency = fresh.config().latencyNs;
    fresh.feedStill(frame - 500 * kMs, frame + latency);
    EXPECT_EQ(fresh.warp(frame), 2) << "look-ahead not yet complete";
    fresh.feedStill(frame + latency, frame + latency + 100 * kMs);
    EXPECT_EQ(fresh.warp(frame), 0);
    // Contract violations are errors the engine stops on; odd but legal values are warped.
    const std::set<int> notFatal = {0, 1, 2, 5, 25, 26, 27, 20000, 20001};
    auto fatal = [&](int s) { return notFatal.count(s) == 0; };
    VStabFrameInfo info{40, 2, frame + 33 * kMs, 0, 1.0f, 1.0f, 0, 0};
    EXPECT_TRUE(fatal(vStabWarpGrid(nullptr, &info, &fresh.out)));
    EXPECT_TRUE(fatal(vStabWarpGrid(fresh.handle, nullptr, &fresh.out)));
    EXPECT_TRUE(fatal(vStabWarpGrid(fresh.handle, &info, nullptr)));
    VStabOutput empty{0, 0, nullptr};
    EXPECT_TRUE(fatal(vStabWarpGrid(fresh.handle, &info, &empty)));
    VStabFrameInfo wrong = info;
    wrong.recordSize = 36;
    EXPECT_TRUE(fatal(vStabWarpGrid(fresh.handle, &wrong, &fresh.out)));
    EXPECT_NE(vStabAddAngularVelocity(nullptr, kStart, nullptr), 0);
    EXPECT_NE(vStabDestroy(nullptr), 0);
    VStabFrameInfo odd = info;
    odd.exposureNs = -5;
    odd.zoom = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(vStabWarpGrid(fresh.handle, &odd, &fresh.out), 0);
    odd.timestampNs = std::numeric_limits<int64_t>::min();
    EXPECT_EQ(vStabWarpGrid(fresh.handle, &odd, &fresh.out), 1);

    Lib shortHistory("vstab.gyroRateMaxHz=50\n");  // about 4 s at 400 Hz
    shortHistory.feedStill(kStart, kStart + 20000 * kMs);
    EXPECT_EQ(shortHistory.warp(frame), 1) << "older than the history: render unwarped";
}

TEST(VStabApi, StillCameraGetsTheUnwarpedGridAtItsSmallestZoom) {
    // Fixed crop: the engine's unwarped grid. Adaptive: scaled to the smallest magnification.
    const struct {
        const char* config;
        double zoom;
    } cases[] = {{"vstab.readoutNs=30000000\nvstab.cropAdaptive=0\n", 1.25},
                 {"vstab.readoutNs=30000000\nvstab.cropZoomMin=1.05\n", 1.05},
                 // Beyond the engine's overscan: less of the picture, for strong shake.
                 {"vstab.readoutNs=30000000\nvstab.cropAdaptive=0\nvstab.cropZoomMax=1.5\n", 1.5},
                 // The crop check's inset of 0.1 % per side: the smallest zoom that keeps it.
                 {"vstab.readoutNs=30000000\n", 1.0 / 0.998}};
    for (const auto& k : cases) {
        Lib lib(k.config);
        lib.feedStill(kStart, kStart + 3000 * kMs);
        const VStabConfigRecord& c = lib.config();
        for (int64_t f = kStart + 500 * kMs; f < kStart + 2000 * kMs; f += 33 * kMs) {
            ASSERT_EQ(lib.warp(f), 0);
            for (uint32_t j = 0; j < c.gridRows; ++j) {
                for (uint32_t i = 0; i < c.gridColumns; ++i) {
                    const float* v = &lib.vertices[3 * (j * c.gridColumns + i)];
                    ASSERT_NEAR(v[0], (2.0 * i / (c.gridColumns - 1) - 1) * k.zoom, 1e-5);
                    ASSERT_NEAR(v[1], (2.0 * j / (c.gridRows - 1) - 1) * k.zoom, 1e-5);
                    ASSERT_EQ(v[2], 0.0f);
                }
            }
        }
    }
}

// A 0.2 rad/s yaw pan with 5 Hz yaw and 4 Hz pitch shake: the grid centre cancels the shake.
// Unusable samples and a repeated frame change nothing: the same grids as on a clean handle.
TEST(VStabApi, ShakeIsCancelledAndUnusableSamplesOrRepeatedFramesChangeNothing) {
    Lib clean, dirty;
    const double pi = 3.14159265358979;
    const double wy = 2 * pi * 5.0, wx = 2 * pi * 4.0;
    auto rate = [&](double t, float* r) {
        r[0] = static_cast<float>(0.006 * wx * std::cos(wx * t));
        r[1] = static_cast<float>(0.2 + 0.01 * wy * std::cos(wy * t));
        r[2] = 0.0f;
    };
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const float garbage[4][3] = {{nan, 0, 0}, {0, inf, 0}, {1e30f, 0, 0}, {0, 0, -inf}};
    for (int64_t t = kStart; t < kStart + 4000 * kMs; t += 100 * kMs) {
        clean.feed(t, t + 100 * kMs, rate);
        dirty.feed(t, t + 100 * kMs, rate);
        for (const auto& g : garbage) {
            EXPECT_EQ(vStabAddAngularVelocity(dirty.handle, t + 100 * kMs - 1, g), 0);
        }
        EXPECT_EQ(vStabAddAngularVelocity(dirty.handle, t, garbage[0]), 0) << "out of order";
        EXPECT_EQ(vStabAddAngularVelocity(dirty.handle, t + 50 * kMs, nullptr), 0);
        EXPECT_EQ(vStabAddAngularVelocity(dirty.handle, std::numeric_limits<long long>::max(),
                                          garbage[2]),
                  0);
    }
    const VStabConfigRecord& c = clean.config();
    const size_t centre = 3 * ((c.gridRows / 2) * c.gridColumns + c.gridColumns / 2);
    const double fx = 0.5 / std::tan(33.0 * pi / 180.0);
    const double fy = 0.5 / std::tan(20.07 * pi / 180.0);
    double worst = 0.0, spreadX = 0.0, spreadY = 0.0;
    for (int64_t f = kStart + 500 * kMs; f < kStart + 3000 * kMs; f += 33 * kMs) {
        ASSERT_EQ(clean.warp(f), 0);
        ASSERT_EQ(dirty.warp(f), 0);
        ASSERT_EQ(dirty.warp(f), 0);  // the same frame again does not advance the path
        ASSERT_EQ(clean.vertices, dirty.vertices);
        if (f < kStart + 1500 * kMs) {
            continue;  // the path starts at the shaken pose and settles first
        }
        // The shake turns the camera right and down: the frame centre shows right of and above.
        const double t = static_cast<double>(f + 5 * kMs + 15 * kMs - kStart) * 1e-9;
        const double x = 2.5 * fx * std::tan(0.01 * std::sin(wy * t));
        const double y = -2.5 * fy * std::tan(0.006 * std::sin(wx * t));
        worst = std::fmax(worst, std::fabs(clean.vertices[centre] - x));
        worst = std::fmax(worst, std::fabs(clean.vertices[centre + 1] - y));
        spreadX = std::fmax(spreadX, std::fabs(clean.vertices[centre]));
        spreadY = std::fmax(spreadY, std::fabs(clean.vertices[centre + 1]));
    }
    EXPECT_LT(worst, 0.004) << "shake left in the output (NDC)";
    EXPECT_GT(spreadX, 0.015) << "the grid does not move with the yaw shake";
    EXPECT_GT(spreadY, 0.015) << "the grid does not move with the pitch shake";
}

// Handles on two threads share no state: the same gyro gives the same grids.
TEST(VStabApi, HandlesShareNoStateAcrossThreads) {
    auto run = []() {
        Lib lib;
        std::vector<float> all;
        for (int64_t t = kStart; t < kStart + 1500 * kMs; t += 33 * kMs) {
            lib.feed(t, t + 33 * kMs, [](double s, float* r) {
                r[0] = static_cast<float>(0.2 * std::sin(17 * s));
                r[1] = static_cast<float>(0.1 * std::cos(5 * s));
                r[2] = 0.01f;
            });
            if (lib.warp(t - 700 * kMs) == 0) {
                all.insert(all.end(), lib.vertices.begin(), lib.vertices.end());
            }
        }
        return all;
    };
    auto a = std::async(std::launch::async, run);
    auto b = std::async(std::launch::async, run);
    ASSERT_EQ(a.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    ASSERT_EQ(b.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    const std::vector<float> ra = a.get();
    EXPECT_FALSE(ra.empty());
    EXPECT_EQ(ra, b.get());
}

}  // namespace
