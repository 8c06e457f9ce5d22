// GraphicBuffer allocation, layout and CPU locking; the CPU colour conversion.
#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

#include <cmath>
#include <vector>

#include "GlTestSupport.h"
#include "host/PixelConversion.h"

namespace {

using android::GraphicBuffer;
using android::sp;

constexpr uint32_t kCamera = 0x130;  // software write often | hardware texture

TEST(GraphicBuffer, StrideIsWidthRoundedUpToSixteenAndPlanesFollowIt) {
    struct Case {
        uint32_t width, height;
        int format;
        uint32_t stride;
        size_t bytes;
    } cases[] = {
        {1920, 1080, HAL_PIXEL_FORMAT_YCrCb_420_SP, 1920, 1920 * 1080 * 3 / 2},
        {1088, 1080, HAL_PIXEL_FORMAT_YCrCb_420_SP, 1088, 1088 * 1080 * 3 / 2},
        {1080, 720, HAL_PIXEL_FORMAT_YCrCb_420_SP, 1088, 1088 * 720 * 3 / 2},
        {100, 10, HAL_PIXEL_FORMAT_RGBA_8888, 112, 112 * 10 * 4},
        {64, 3, HAL_PIXEL_FORMAT_BGRA_8888, 64, 64 * 3 * 4},
    };
    for (const Case& c : cases) {
        sp<GraphicBuffer> b(new GraphicBuffer(c.width, c.height, c.format, kCamera));
        ASSERT_EQ(b->initCheck(), android::NO_ERROR) << c.width;
        EXPECT_EQ(b->getStride(), c.stride) << c.width;
        EXPECT_EQ(b->getSize(), c.bytes) << c.width;
        EXPECT_EQ(b->getNativeBuffer()->stride, static_cast<int>(c.stride));
    }
}

TEST(GraphicBuffer, RefusesWhatItCannotHoldAndReallocatesAnEmptyOne) {
    const struct {
        uint32_t w, h;
        int format;
        uint32_t layers;
    } bad[] = {
        {0, 16, HAL_PIXEL_FORMAT_RGBA_8888, 1},     {16, 0, HAL_PIXEL_FORMAT_RGBA_8888, 1},
        {16, 16, HAL_PIXEL_FORMAT_RGB_888, 1},      {16, 16, HAL_PIXEL_FORMAT_YV12, 1},
        {15, 16, HAL_PIXEL_FORMAT_YCrCb_420_SP, 1}, {16, 15, HAL_PIXEL_FORMAT_YCrCb_420_SP, 1},
        {16, 16, HAL_PIXEL_FORMAT_RGBA_8888, 2},    {20000, 16, HAL_PIXEL_FORMAT_RGBA_8888, 1},
    };
    for (const auto& c : bad) {
        sp<GraphicBuffer> b(new GraphicBuffer(c.w, c.h, c.format, c.layers, kCamera));
        EXPECT_EQ(b->initCheck(), android::BAD_VALUE) << c.w << "x" << c.h << " " << c.format;
        EXPECT_EQ(b->getSize(), 0u);
    }
    // The engine's slot buffers: empty, then reallocated (layer count 0 means 1).
    sp<GraphicBuffer> b(new GraphicBuffer());
    EXPECT_EQ(b->initCheck(), android::NO_INIT);
    ASSERT_EQ(b->reallocate(640, 480, HAL_PIXEL_FORMAT_YCrCb_420_SP, 0, kCamera),
              android::NO_ERROR);
    EXPECT_EQ(b->getStride(), 640u);
}

double exactBt601(int y, int u, int v, int i) {
    double rgb[3];
    gltest::referenceRgb(y, u, v, rgb);
    return rgb[i];
}

TEST(PixelConversion, Bt601LimitedRangeWithinOneOfTheExactFormula) {
    for (int y = 0; y < 256; y += 5) {
        for (int u = 0; u < 256; u += 15) {
            for (int v = 0; v < 256; v += 15) {
                uint8_t rgb[3];
                host::yuvToRgb(static_cast<uint8_t>(y), static_cast<uint8_t>(u),
                               static_cast<uint8_t>(v), rgb);
                for (int i = 0; i < 3; ++i) {
                    ASSERT_LE(std::fabs(rgb[i] - exactBt601(y, u, v, i)), 1.0)
                        << y << " " << u << " " << v;
                }
            }
        }
    }
}

// NV21 over every (U, V) pair and luma value: within 3 levels (libyuv's 6-bit coefficients).
TEST(PixelConversion, Nv21WithinThreeOfTheExactFormulaEachChromaSampleCoversItsBlock) {
    constexpr uint32_t kW = 512;  // luma x / 2 at column x: all 256 values, in 2 x 2 blocks
    constexpr uint32_t kH = 2;
    std::vector<uint8_t> luma(kW * kH);
    for (uint32_t x = 0; x < kW; ++x)
        luma[x] = luma[kW + x] = static_cast<uint8_t>(x / 2);
    std::vector<uint8_t> vu(kW);
    std::vector<uint8_t> rgba(kW * kH * 4);
    double worst = 0;
    for (int u = 0; u < 256; u += 3) {
        for (int v = 0; v < 256; v += 3) {
            for (uint32_t x = 0; x < kW; x += 2) {
                vu[x] = static_cast<uint8_t>(v);
                vu[x + 1] = static_cast<uint8_t>(u);
            }
            host::nv21ToRgba(luma.data(), kW, vu.data(), kW, kW, kH, rgba.data());
            for (uint32_t p = 0; p < kW * kH; ++p) {
                const int y = luma[p];
                for (int i = 0; i < 3; ++i)
                    worst = std::fmax(worst, std::fabs(rgba[p * 4 + i] - exactBt601(y, u, v, i)));
                ASSERT_EQ(rgba[p * 4 + 3], 255);
            }
        }
    }
    EXPECT_LE(worst, 3.0);
    // Each chroma sample covers its 2 x 2 block; luma stride 8, chroma stride 6 (padding skipped).
    const uint8_t y4x2[16] = {16, 50, 100, 150, 0, 0, 0, 0, 200, 235, 60, 90, 0, 0, 0, 0};
    const uint8_t vu4x2[6] = {200, 60, 90, 180, 0, 0};  // (V, U) pairs
    host::nv21ToRgba(y4x2, 8, vu4x2, 6, 4, 2, rgba.data());
    for (int i = 0; i < 8; ++i) {
        const int y = y4x2[i % 4 + 8 * (i / 4)], block = (i % 4) / 2 * 2;
        for (int c = 0; c < 3; ++c) {
            EXPECT_LE(std::fabs(rgba[i * 4 + c] - exactBt601(y, vu4x2[block + 1], vu4x2[block], c)),
                      3.0)
                << i << " " << c;
        }
        EXPECT_EQ(rgba[i * 4 + 3], 255) << i;
    }
}

TEST(PixelConversion, ChannelOrdersRoundTrip) {
    // Two rows of stride 2 pixels, width 1: the second row starts at byte 8.
    const uint8_t bgra[2 * 2 * 4] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    uint8_t rows[2 * 4];
    ASSERT_TRUE(host::packToRgba(HAL_PIXEL_FORMAT_RGBA_8888, bgra, 8, 1, 2, rows));
    EXPECT_EQ(rows[4], 9);
    uint8_t rgba[4];
    ASSERT_TRUE(host::packToRgba(HAL_PIXEL_FORMAT_BGRA_8888, bgra, 8, 1, 1, rgba));
    EXPECT_EQ(rgba[0], 3);
    EXPECT_EQ(rgba[2], 1);
    uint8_t rgbx[4];
    ASSERT_TRUE(host::packToRgba(HAL_PIXEL_FORMAT_RGBX_8888, bgra, 8, 1, 1, rgbx));
    EXPECT_EQ(rgbx[0], 1);
    EXPECT_EQ(rgbx[3], 255);
    uint8_t back[8] = {};
    ASSERT_TRUE(host::unpackFromRgba(HAL_PIXEL_FORMAT_BGRA_8888, rgba, 1, 1, back, 8));
    EXPECT_EQ(back[0], 1);
    EXPECT_EQ(back[2], 3);
    EXPECT_FALSE(host::packToRgba(HAL_PIXEL_FORMAT_YCrCb_420_SP, bgra, 8, 1, 1, rgba));
}

}  // namespace
