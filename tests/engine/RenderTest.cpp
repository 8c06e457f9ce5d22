// Rendering through the real engine: the mesh, warped and unwarped pictures, colours, RenderEmpty.
#include <gtest/gtest.h>
#include <host/PixelConversion.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "ColorCalibration.h"
#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "GlTestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

// A camera of `frames` frames whose pictures `paint` writes, paced by the library's warps.
host::CameraSetup paintedCamera(int width, int height, uint64_t frames, PaintFrame paint) {
    host::CameraSetup setup =
        sourceCamera(width, height, periodicSource(frames, 50000000, nullptr, std::move(paint)));
    paceByWarps(setup);
    return setup;
}

const uint8_t* pixelAt(const host::MemorySink::StoredFrame& frame, int x, int y) {
    return &frame.pixels[(static_cast<size_t>(y) * frame.stride + x) * 4];
}

// The mesh is the library's grid (x, y; no z) inside a ring spread evenly on the output's edges.
TEST(EngineRender, BorderRingLiesOnTheOutputEdgesAroundTheLibraryGrid) {
    Context engine;
    constexpr int kColumns = 4, kRows = 3;  // library grid; the mesh is 6 x 5
    engine.mesh.resize(kColumns + 2, kRows + 2);
    std::vector<float> grid(kColumns * kRows * 3);
    for (int j = 0; j < kRows; ++j) {
        for (int i = 0; i < kColumns; ++i) {
            float* v = &grid[(j * kColumns + i) * 3];
            v[0] = 10.0f + static_cast<float>(i);
            v[1] = 20.0f + static_cast<float>(j);
            v[2] = 99.0f;
        }
    }
    std::vector<float> positions(6 * 5 * 3, 7.0f);  // stale values must not survive
    engine.vertBorder(positions, grid.data());

    auto vertex = [&](int i, int j) { return &positions[(j * 6 + i) * 3]; };
    const float ringX[6] = {-1.0f, -1.0f, -1.0f / 3.0f, 1.0f / 3.0f, 1.0f, 1.0f};
    const float ringY[5] = {-1.0f, -1.0f, 0.0f, 1.0f, 1.0f};
    for (int j = 0; j < 5; ++j) {
        for (int i = 0; i < 6; ++i) {
            const float* v = vertex(i, j);
            const bool ring = i == 0 || i == 5 || j == 0 || j == 4;
            const float x = ring ? ringX[i] : 10.0f + static_cast<float>(i - 1);
            const float y = ring ? ringY[j] : 20.0f + static_cast<float>(j - 1);
            EXPECT_FLOAT_EQ(v[0], x) << "vertex " << i << "," << j;
            EXPECT_FLOAT_EQ(v[1], y) << "vertex " << i << "," << j;
            EXPECT_EQ(v[2], 0.0f) << "vertex " << i << "," << j;
        }
    }
}

// Luma of the horizontal ramp the picture tests feed: 60 at the left edge, 210 at the right.
uint8_t rampLuma(int x, int width) {
    return static_cast<uint8_t>(60 + (x * 150) / (width - 1));
}

void paintRamp(uint64_t, const host::FrameImage& image) {
    for (int y = 0; y < image.height; ++y) {
        for (int x = 0; x < image.width; ++x)
            image.luma[y * image.pitch + x] = rampLuma(x, image.width);
    }
    for (int y = 0; y < image.height / 2; ++y)
        std::memset(image.chroma + y * image.pitch, 128, image.width);
}

// Status 0: the grid moved W/4 right (x shows x - W/4); status 1: the centre magnified 1.25x.
TEST(EngineRender, FrameIsDrawnThroughTheLibraryGridOrUnwarped) {
    constexpr int kW = 640, kH = 480;
    for (int status : {0, 1}) {
        EngineHarness h;
        vstabDouble().defaultStatus = status;
        vstabDouble().gridScale = 0.8f;  // +-1.25 x 0.8: the interior spans exactly +-1
        vstabDouble().gridOffsetX = 0.5f;
        h.makeCamera(paintedCamera(kW, kH, 1, paintRamp));
        auto& out = h.addOutput(1, kW, kH);
        h.start();
        ASSERT_TRUE(out.sink->waitForCount(1, 10s)) << status;
        h.stop();

        const auto frame = out.sink->frames()[0];
        int worst = 0;
        for (int y : {40, kH / 2, kH - 40}) {
            for (int x = 8; x < kW - 8; ++x) {
                const double xin = 0.1 * kW + 0.8 * (x + 0.5) - 0.5;
                const uint8_t luma =
                    status == 0 ? rampLuma(std::max(0, x - kW / 4), kW)
                                : static_cast<uint8_t>(std::lround(60 + xin * 150.0 / (kW - 1)));
                uint8_t rgb[3];
                host::yuvToRgb(luma, 128, 128, rgb);
                const uint8_t* px = pixelAt(frame, x, y);
                worst = std::max(worst, std::abs(px[1] - rgb[1]));
                ASSERT_EQ(px[0], px[1]) << "not grey at " << x << "," << y << " status " << status;
            }
        }
        EXPECT_LE(worst, 2) << status;
    }
}

// The calibration chart comes through intake, slot, texture and identity warp in BT.601.
TEST(EngineRender, CalibrationChartComesOutAsBt601) {
    constexpr int w = ColorCalibration::kWidth, h = ColorCalibration::kHeight;
    EngineHarness harness;
    vstabDouble().gridScale = 0.8f;  // identity: the interior spans exactly the output
    ColorCalibration chart;
    harness.makeCamera(paintedCamera(w, h, 1, [&chart](uint64_t, const host::FrameImage& image) {
        chart.setColorCalibration_YUV21sp(image.luma, image.chroma, image.pitch);
    }));
    auto& out = harness.addOutput(1, w, h);
    harness.start();
    ASSERT_TRUE(out.sink->waitForCount(1, 10s));
    harness.stop();
    const auto frame = out.sink->frames()[0];
    ASSERT_EQ(frame.width, static_cast<uint32_t>(w));

    for (int b = 0; b < 5; ++b) {
        for (int c = 0; c < 9; ++c) {
            const int yv = ColorCalibration::y[b];
            const int v = ColorCalibration::vu[c + 1][0], u = ColorCalibration::vu[c + 1][1];
            double ref[3];
            gltest::referenceRgb(yv, u, v, ref);
            // The whole patch but its outer 2 pixels, where chroma and filtering blend.
            for (int row = 32 * b + 2; row < 32 * b + 30; ++row) {
                for (int col = 32 * c + 2; col < 32 * c + 30; ++col) {
                    const uint8_t* p = pixelAt(frame, col, row);
                    for (int k = 0; k < 3; ++k) {
                        ASSERT_NEAR(p[k], ref[k], 3.0) << "patch " << b << "," << c << " channel "
                                                       << k << " at " << col << "," << row;
                    }
                }
            }
        }
    }
}

// RenderEmpty: window-stamped frames, red rising by 0.01 a frame, back to 0.0 past 1.0.
TEST(EngineRender, EmptyFramesRampTheRedLevelAndLetTheWindowStampThem) {
    EngineHarness h;
    h.engine->RenderEmpty();  // no window yet
    auto& out = h.addOutput(1, 64, 16);
    constexpr int kCalls = 105;
    for (int k = 0; k < kCalls; ++k)
        h.engine->RenderEmpty();
    ASSERT_TRUE(out.sink->waitForCount(kCalls, 10s));
    const auto frames = out.sink->frames();

    float level = 0.0f;  // the process's first RenderEmpty (ctest runs every case on its own)
    int wraps = 0;
    for (int k = 0; k < kCalls; ++k) {
        level = static_cast<float>(static_cast<double>(level) + 0.01);
        if (level > 1.0f) {
            level = 0.0f;
            ++wraps;
        }
        const uint8_t* px = pixelAt(frames[k], 40, 8);
        EXPECT_NEAR(px[0], level * 255.0f, 1.0) << "frame " << k;
        EXPECT_EQ(px[1], 0) << "frame " << k;
        EXPECT_EQ(px[2], 0) << "frame " << k;
        EXPECT_TRUE(frames[k].autoTimestamp) << "frame " << k;
    }
    EXPECT_EQ(wraps, 1);
}

}  // namespace
