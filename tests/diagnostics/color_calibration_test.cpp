// Colour calibration chart: painting, read-back lines, and the host conversion seen through it.
#include "ColorCalibration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "GlTestSupport.h"
#include "LogCapture.h"

namespace {

TEST(ColorCalibration, Nv21ChartHasBandsColumnsAndVFirstPairsPlanarSplitsThem) {
    const int stride = 320;
    std::vector<unsigned char> luma(stride * 160, 1), chroma(stride * 80, 1);
    ColorCalibration chart;
    chart.setColorCalibration_YUV21sp(luma.data(), chroma.data(), stride);
    EXPECT_EQ(luma[0], 70);
    EXPECT_EQ(luma[31 * stride + 287], 70);
    EXPECT_EQ(luma[32 * stride], 90);
    EXPECT_EQ(luma[159 * stride + 100], 170);
    EXPECT_EQ(luma[287 + 1], 1);  // padding beyond the 288 chart columns untouched
    EXPECT_EQ(chroma[0], 70);     // column 0: pair (70, 70)
    // Column 6 (pixels 192..223, samples 96..111) has pair vu[7] = (V 90, U 140).
    EXPECT_EQ(chroma[79 * stride + 2 * 100], 90);
    EXPECT_EQ(chroma[79 * stride + 2 * 100 + 1], 140);
    EXPECT_EQ(chroma[2 * 143 + 1], 70);  // last sample: vu[9] = (170, 70)
    EXPECT_EQ(chroma[2 * 144], 1);
    // Planar: the pairs split, the stride halved. Chroma row 3 of stride 300 starts at 450.
    std::vector<unsigned char> u(300 * 40 + 200, 1), v(300 * 40 + 200, 1);
    chart.setColorCalibration_YUVp(luma.data(), u.data(), v.data(), 300);
    EXPECT_EQ(v[450 + 100], 90);
    EXPECT_EQ(u[450 + 100], 140);
    EXPECT_EQ(u[450 + 144], 1);
}

std::vector<unsigned char> codedRgba(int width, int height) {
    // Each pixel encodes its own position: R = row, G = column / 2, B = 7.
    std::vector<unsigned char> rgba(static_cast<size_t>(width) * height * 4);
    for (int r = 0; r < height; ++r) {
        for (int c = 0; c < width; ++c) {
            unsigned char* p = &rgba[(static_cast<size_t>(r) * width + c) * 4];
            p[0] = static_cast<unsigned char>(r);
            p[1] = static_cast<unsigned char>(c / 2);
            p[2] = 7;
        }
    }
    return rgba;
}

// One line per patch centre, scaled to the picture's width: 288 wide (full size) and 144.
TEST(ColorCalibration, ReadBackLogsFortyFivePatchCentresScaledToThePicture) {
    std::vector<unsigned char> luma(288 * 160), chroma(288 * 80);
    ColorCalibration chart;
    chart.setColorCalibration_YUV21sp(luma.data(), chroma.data(), 288);
    struct Case {
        int width, height;
        const char *first, *seventh, *last;
    };
    const Case cases[] = {
        {288, 160, "[COLORCONVERSION] 70 70 70 -> 16 8 7",
         "[COLORCONVERSION] 70 90 140 -> 16 104 7",  // column 6: vu[7]
         "[COLORCONVERSION] 170 170 70 -> 144 136 7"},
        {144, 80, "[COLORCONVERSION] 70 70 70 -> 8 4 7",  // (8, 8)
         "[COLORCONVERSION] 70 90 140 -> 8 52 7",
         "[COLORCONVERSION] 170 170 70 -> 72 68 7"},  // (72, 136)
    };
    for (const Case& c : cases) {
        std::vector<unsigned char> rgba = codedRgba(c.width, c.height);
        LogCapture capture;
        chart.getColorCalibration(rgba.data(), c.width);
        std::vector<LogLine> lines = capture.lines();
        ASSERT_EQ(lines.size(), 45u);
        for (const LogLine& l : lines) {
            EXPECT_EQ(l.priority, 5);
            EXPECT_EQ(l.tag, "[QLMR]");
        }
        EXPECT_EQ(lines[0].text, c.first);
        EXPECT_EQ(lines[6].text, c.seventh);
        EXPECT_EQ(lines[44].text, c.last);
    }
    // Nothing to read without a chart, or after a stride too small for one.
    ColorCalibration none;
    std::vector<unsigned char> rgba(288 * 160 * 4);
    LogCapture capture;
    none.getColorCalibration(rgba.data(), 288);
    none.setColorCalibration_YUV21sp(rgba.data(), rgba.data(), 100);
    none.getColorCalibration(rgba.data(), 288);
    EXPECT_EQ(capture.countContaining("->"), 0);
    EXPECT_EQ(capture.lines().size(), 3u);
}

// Through the engine's host path (NV21 buffer, EGL image): BT.601 limited range, neutral greys.
TEST(ColorCalibrationOnGl, HostConversionPassesTheChart) {
    gltest::Context gl;
    ASSERT_TRUE(gl.ok() && gl.makeCurrent()) << "no EGL context on the default display";
    android::sp<android::GraphicBuffer> buffer(
        new android::GraphicBuffer(288, 160, HAL_PIXEL_FORMAT_YCrCb_420_SP, 0x130));
    void* address = nullptr;
    ASSERT_EQ(buffer->lock(0x130, &address), 0);
    auto* bytes = static_cast<unsigned char*>(address);
    const int stride = static_cast<int>(buffer->getStride());
    ColorCalibration chart;
    chart.setColorCalibration_YUV21sp(bytes, bytes + stride * 160, stride);
    ASSERT_EQ(buffer->unlock(), 0);
    EGLImageKHR image = gltest::importBuffer(gl.display(), buffer);
    ASSERT_NE(image, EGL_NO_IMAGE_KHR);
    std::vector<uint8_t> rgba = gltest::sampleExternal(image, 288, 160);
    eglDestroyImageKHR(gl.display(), image);
    gl.releaseCurrent();

    LogCapture capture;
    chart.getColorCalibration(rgba.data(), 288);
    std::vector<std::string> texts = capture.texts();
    ASSERT_EQ(texts.size(), 45u);
    for (const std::string& text : texts) {
        int y, v, u, r, g, b;
        ASSERT_EQ(std::sscanf(text.c_str(), "[COLORCONVERSION] %d %d %d -> %d %d %d", &y, &v, &u,
                              &r, &g, &b),
                  6)
            << text;
        double ref[3];
        gltest::referenceRgb(y, u, v, ref);
        EXPECT_NEAR(r, ref[0], 3.0) << text;
        EXPECT_NEAR(g, ref[1], 3.0) << text;
        EXPECT_NEAR(b, ref[2], 3.0) << text;
        if (u == 128 && v == 128) {
            EXPECT_EQ(r, g) << text;
            EXPECT_EQ(g, b) << text;
        }
    }
}

}  // namespace
