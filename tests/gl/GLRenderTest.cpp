// The warp draw end to end on the real driver: camera graphic buffers sampled through their
// bindings, drawn through the warp mesh into buffers dequeued from a host output window, and
// checked in what the window's consumer receives.
#include <android/log.h>
#include <gtest/gtest.h>
#include <system/window.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "ColorCalibration.h"
#include "GLContext.h"
#include "GLGraphicBuffer.h"
#include "GbMapper.h"
#include "WarpDraw.h"
#include "LogCapture.h"
#include "host/Window.h"

namespace {

using android::GraphicBuffer;
using android::sp;

constexpr int kWidth = 160, kHeight = 120;  // camera and output, pixels
constexpr int kColumns = 12, kRows = 12;    // stabilizer grid

// Camera picture: red and green ramps with a blue 8 x 8 checker, so that both scale and
// position show in every pixel.
void cameraPixel(int x, int y, uint8_t rgba[4]) {
    rgba[0] = static_cast<uint8_t>(x * 255 / (kWidth - 1));
    rgba[1] = static_cast<uint8_t>(y * 255 / (kHeight - 1));
    rgba[2] = ((x / 8 + y / 8) % 2) ? 255 : 0;
    rgba[3] = 255;
}

sp<GraphicBuffer> makeCamera() {
    sp<GraphicBuffer> camera(
        new GraphicBuffer(kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888,
                          GraphicBuffer::USAGE_SW_WRITE_OFTEN | GraphicBuffer::USAGE_HW_TEXTURE));
    void* address = nullptr;
    EXPECT_EQ(camera->lock(GraphicBuffer::USAGE_SW_WRITE_OFTEN, &address), android::NO_ERROR);
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            cameraPixel(x, y, static_cast<uint8_t*>(address) + (y * camera->getStride() + x) * 4);
        }
    }
    EXPECT_EQ(camera->unlock(), android::NO_ERROR);
    return camera;
}

// What output pixel (x, y) shows: the camera bilinearly sampled where the +-1.25 grid puts it,
// i.e. the central 1/1.25 of the frame spread over the whole output.
void expectedPixel(int x, int y, double rgb[3]) {
    const double u = ((2.0 * (x + 0.5) / kWidth - 1.0) / 1.25 + 1.0) / 2.0 * kWidth - 0.5;
    const double v = ((2.0 * (y + 0.5) / kHeight - 1.0) / 1.25 + 1.0) / 2.0 * kHeight - 0.5;
    const int x0 = static_cast<int>(std::floor(u)), y0 = static_cast<int>(std::floor(v));
    const double fx = u - x0, fy = v - y0;
    for (int c = 0; c < 3; ++c)
        rgb[c] = 0.0;
    for (int k = 0; k < 4; ++k) {
        const int sx = std::clamp(x0 + (k & 1), 0, kWidth - 1);
        const int sy = std::clamp(y0 + (k >> 1), 0, kHeight - 1);
        const double weight = ((k & 1) ? fx : 1 - fx) * ((k >> 1) ? fy : 1 - fy);
        uint8_t p[4];
        cameraPixel(sx, sy, p);
        for (int c = 0; c < 3; ++c)
            rgb[c] += weight * p[c];
    }
}

// Number of output pixels that match no reference pixel within one pixel of their place.
int mismatches(const host::MemorySink::StoredFrame& frame) {
    int bad = 0;
    for (int y = 0; y < kHeight; ++y) {
        for (int x = 0; x < kWidth; ++x) {
            const uint8_t* p = &frame.pixels[(static_cast<size_t>(y) * frame.stride + x) * 4];
            bool near = false;
            for (int dy = -1; dy <= 1 && !near; ++dy) {
                for (int dx = -1; dx <= 1 && !near; ++dx) {
                    double ref[3];
                    expectedPixel(std::clamp(x + dx, 0, kWidth - 1),
                                  std::clamp(y + dy, 0, kHeight - 1), ref);
                    near = std::abs(p[0] - ref[0]) <= 3 && std::abs(p[1] - ref[1]) <= 3 &&
                           std::abs(p[2] - ref[2]) <= 3;
                }
            }
            bad += near ? 0 : 1;
        }
    }
    return bad;
}

struct OutputWindow {
    std::shared_ptr<host::MemorySink> sink = std::make_shared<host::MemorySink>();
    sp<ANativeWindow> window;
    OutputWindow() {
        host::WindowConfig config;
        config.defaultWidth = kWidth;
        config.defaultHeight = kHeight;
        window = host::createWindow(sink, config);
        EXPECT_EQ(native_window_api_connect(window.get(), NATIVE_WINDOW_API_EGL), 0);
        native_window_set_usage(window.get(), GRALLOC_USAGE_HW_RENDER | GRALLOC_USAGE_HW_TEXTURE);
    }
    ~OutputWindow() { native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_EGL); }
};

// One resumed GL session rendering one frame into `out`, with the engine's calls and order.
void renderFrame(OutputWindow& out, const sp<GraphicBuffer>& camera, int64_t timestampNs) {
    shared_ptr<GLContext> context;
    context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
    shared_ptr<GbMapper> mapper;
    mapper.acquire(new GbMapper(context, 3), nullptr);
    ASSERT_TRUE(context->makeCurrent(nullptr));
    {
        gltest::WarpScene scene(kColumns, kRows);
        GLGraphicBuffer cameraBinding(context, camera, GLGraphicBuffer::kUsageTexture);
        std::vector<float> grid = gltest::uniformGrid(kColumns, kRows);
        scene.setGrid(grid.data());

        ANativeWindowBuffer* anb = nullptr;
        int fence = -1;
        ASSERT_EQ(out.window->dequeueBuffer(out.window.get(), &anb, &fence), 0);
        sp<GraphicBuffer> buffer = GraphicBuffer::from(anb);
        GLGraphicBuffer* target = mapper->getGLGB(buffer);
        scene.draw(cameraBinding, *target, static_cast<int>(buffer->getWidth()),
                   static_cast<int>(buffer->getHeight()));
        native_window_set_buffers_timestamp(out.window.get(), timestampNs);
        ASSERT_EQ(out.window->queueBuffer(out.window.get(), anb, -1), 0);
        // The host platform writes a buffer's memory again when its last image goes, which
        // would race with the consumer still copying the queued frame; let it finish first.
        ASSERT_TRUE(host::waitForIdle(out.window.get(), std::chrono::seconds(10)));
        mapper.release();  // the session's pause: bindings go while the context is current
    }
    ASSERT_TRUE(context->clearCurrent());
    context.release();  // terminates the display
}

TEST(WarpRender, UnwarpedGridShowsTheCentreMagnified) {
    OutputWindow out;
    sp<GraphicBuffer> camera = makeCamera();
    renderFrame(out, camera, 123456789);
    ASSERT_TRUE(out.sink->waitForCount(1, std::chrono::seconds(10)));
    const auto frames = out.sink->frames();
    EXPECT_EQ(frames[0].timestampNs, 123456789);
    EXPECT_FALSE(frames[0].autoTimestamp);
    ASSERT_EQ(frames[0].width, static_cast<uint32_t>(kWidth));
    EXPECT_EQ(mismatches(frames[0]), 0);
    // The corner shows camera pixel (8, 6) of the 160 x 120 frame, not the frame's own corner.
    double corner[3];
    expectedPixel(0, 0, corner);
    EXPECT_GT(corner[0], 10.0);
}

TEST(WarpRender, DisplayTerminatedAndReinitialisedTwentyTimes) {
    OutputWindow out;
    sp<GraphicBuffer> camera = makeCamera();
    for (int cycle = 0; cycle < 20; ++cycle) {
        renderFrame(out, camera, 1000 + cycle);
        ASSERT_FALSE(::testing::Test::HasFatalFailure()) << "cycle " << cycle;
    }
    ASSERT_TRUE(out.sink->waitForCount(20, std::chrono::seconds(20)));
    const auto frames = out.sink->frames();
    for (int cycle = 0; cycle < 20; ++cycle) {
        EXPECT_EQ(frames[cycle].timestampNs, 1000 + cycle);
        EXPECT_EQ(mismatches(frames[cycle]), 0) << "cycle " << cycle;
    }
}

// BT.601 limited range ("video" levels), the conversion a camera's NV21 frame must get.
void bt601(int y, int v, int u, double rgb[3]) {
    const double l = 1.164383 * (y - 16);
    rgb[0] = l + 1.596027 * (v - 128);
    rgb[1] = l - 0.391762 * (u - 128) - 0.812968 * (v - 128);
    rgb[2] = l + 2.017232 * (u - 128);
    for (int c = 0; c < 3; ++c)
        rgb[c] = std::clamp(rgb[c], 0.0, 255.0);
}

// The calibration chart painted into an NV21 camera buffer, drawn through the warp program with
// an identity mesh into an RGBA output buffer and read back.
TEST(WarpRender, CalibrationChartComesOutAsBt601) {
    constexpr int w = ColorCalibration::kWidth, h = ColorCalibration::kHeight;
    sp<GraphicBuffer> camera(
        new GraphicBuffer(w, h, HAL_PIXEL_FORMAT_YCrCb_420_SP,
                          GraphicBuffer::USAGE_SW_WRITE_OFTEN | GraphicBuffer::USAGE_HW_TEXTURE));
    sp<GraphicBuffer> output(
        new GraphicBuffer(w, h, HAL_PIXEL_FORMAT_RGBA_8888,
                          GraphicBuffer::USAGE_SW_READ_OFTEN | GraphicBuffer::USAGE_HW_RENDER));
    ColorCalibration chart;
    void* address = nullptr;
    ASSERT_EQ(camera->lock(GraphicBuffer::USAGE_SW_WRITE_OFTEN, &address), android::NO_ERROR);
    auto* luma = static_cast<unsigned char*>(address);
    const int stride = static_cast<int>(camera->getStride());
    chart.setColorCalibration_YUV21sp(luma, luma + stride * h, stride);
    ASSERT_EQ(camera->unlock(), android::NO_ERROR);

    shared_ptr<GLContext> context;
    context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
    auto* guard = new GLContext::Guard(context);
    {
        // Identity: the interior spans exactly the output, on top of the border ring.
        gltest::WarpScene scene(9, 5);
        std::vector<float> grid = gltest::uniformGrid(9, 5);
        for (float& value : grid)
            value /= 1.25f;
        scene.setGrid(grid.data());
        GLGraphicBuffer source(context, camera, GLGraphicBuffer::kUsageTexture);
        GLGraphicBuffer target(context, output, 3);
        scene.draw(source, target, w, h);
    }
    delete guard;
    context.release();

    ASSERT_EQ(output->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address), android::NO_ERROR);
    ASSERT_EQ(output->getStride(), static_cast<uint32_t>(w));
    std::vector<unsigned char> rgba(static_cast<unsigned char*>(address),
                                    static_cast<unsigned char*>(address) + w * h * 4);
    ASSERT_EQ(output->unlock(), android::NO_ERROR);

    for (int b = 0; b < 5; ++b) {
        for (int c = 0; c < 9; ++c) {
            const int yv = ColorCalibration::y[b];
            const int v = ColorCalibration::vu[c + 1][0], u = ColorCalibration::vu[c + 1][1];
            double ref[3];
            bt601(yv, v, u, ref);
            // The whole patch but its outer 2 pixels, where chroma and filtering blend.
            for (int row = 32 * b + 2; row < 32 * b + 30; ++row) {
                for (int col = 32 * c + 2; col < 32 * c + 30; ++col) {
                    const unsigned char* p = &rgba[(static_cast<size_t>(row) * w + col) * 4];
                    if (v == 128 && u == 128) {
                        ASSERT_LE(std::abs(p[0] - p[1]), 1) << "grey patch " << b << "," << c;
                        ASSERT_LE(std::abs(p[1] - p[2]), 1) << "grey patch " << b << "," << c;
                    }
                    for (int k = 0; k < 3; ++k) {
                        ASSERT_NEAR(p[k], ref[k], 3.0) << "patch " << b << "," << c << " channel "
                                                       << k << " at " << col << "," << row;
                    }
                }
            }
        }
    }

    LogCapture log;
    chart.getColorCalibration(rgba.data(), w);
    const std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 45u);
    const unsigned char* last = &rgba[(static_cast<size_t>(144) * w + 272) * 4];
    char expected[96];
    std::snprintf(expected, sizeof expected, "[COLORCONVERSION] 170 170 70 -> %d %d %d", last[0],
                  last[1], last[2]);
    EXPECT_EQ(lines.back().text, expected);
    EXPECT_EQ(lines.back().priority, ANDROID_LOG_WARN);
}

}  // namespace
