// Frame-number marks and pixel-format names.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "FrameIndex.h"

namespace {

uint32_t pixelAt(const std::vector<unsigned char>& image, unsigned stride, unsigned col,
                 unsigned row) {
    uint32_t value;
    std::memcpy(&value, &image[(row * stride + col) * 4], 4);
    return value;
}

TEST(FrameIndexRgba, BlocksEncodeBitsLeastSignificantFirstUpToThirtyTwo) {
    const unsigned w = 40, h = 64, stride = 48;
    std::vector<unsigned char> image(stride * h * 4, 0x11);
    paintFrameIndexRGBA(image.data(), w, h, stride, 5);
    for (unsigned k = 0; k < 8; ++k) {
        const uint32_t expected = (k == 0 || k == 2) ? 0xFFFFFFFFu : 0u;
        for (unsigned row = 8 * k; row < 8 * k + 8; ++row) {
            for (unsigned col = w - 8; col < w; ++col) {
                ASSERT_EQ(pixelAt(image, stride, col, row), expected) << k;
            }
        }
    }
    EXPECT_EQ(pixelAt(image, stride, w - 9, 0), 0x11111111u);  // left of the blocks
    EXPECT_EQ(pixelAt(image, stride, w, 0), 0x11111111u);      // stride padding
    // The block count follows the height, up to 32; narrow pictures get none.
    for (const auto& [width, height] : {std::pair{31u, 64u}, std::pair{32u, 7u}}) {
        std::vector<unsigned char> none(width * height * 4, 0x22);
        paintFrameIndexRGBA(none.data(), width, height, width, 0xFFFFFFFFu);
        EXPECT_EQ(none, std::vector<unsigned char>(width * height * 4, 0x22)) << width;
    }
    std::vector<unsigned char> tall(32 * 300 * 4, 0x22);
    paintFrameIndexRGBA(tall.data(), 32, 300, 32, 0x80000001u);
    EXPECT_EQ(pixelAt(tall, 32, 31, 0), 0xFFFFFFFFu);
    EXPECT_EQ(pixelAt(tall, 32, 31, 8), 0u);
    EXPECT_EQ(pixelAt(tall, 32, 31, 255), 0xFFFFFFFFu);  // block 31
    EXPECT_EQ(pixelAt(tall, 32, 31, 256), 0x22222222u);  // no block 32
}

TEST(FrameIndexNv21, LumaBlocksAndShiftedNeutralChromaInsideTheBuffer) {
    const unsigned w = 64, h = 320;  // 32 blocks, chroma writes all inside the picture
    std::vector<unsigned char> image(w * h * 3 / 2, 7);
    paintFrameIndex(image.data(), w, h, 2);
    EXPECT_EQ(image[0 * w + 56], 0);    // block 0 black
    EXPECT_EQ(image[8 * w + 63], 255);  // block 1 white
    EXPECT_EQ(image[16 * w + 60], 0);   // block 2 black
    EXPECT_EQ(image[8 * w + 55], 7);    // left of the blocks
    const size_t chroma = w * h;
    const size_t first = chroma + 2 * (w - 8);  // block 0, row 0: one chroma row down, 8 left
    EXPECT_EQ(image[first - 1], 7);
    for (size_t i = 0; i < 8; ++i)
        EXPECT_EQ(image[first + i], 128) << i;
    EXPECT_EQ(image[first + 8], 7);
    EXPECT_EQ(image[first + 3 * w + 7], 128);
    EXPECT_EQ(image[first + 4 * w], 128);  // block 1 starts 4 rows further
    EXPECT_EQ(image[chroma + w - 8], 7);   // the block's own chroma stays as it was

    // Small pictures stay inside their buffer. 16 x 64: 8 blocks, the last rows past the picture.
    std::vector<unsigned char> small(16 * 64 * 3 / 2, 7);
    paintFrameIndex(small.data(), 16, 64, 0xFF);
    EXPECT_EQ(small[16 * 64 + 2 * (16 - 8)], 128);
    // Block 7 starts at 1024 + 16 + 28 * 16 = 1488: rows at 1488, 1504 and 1520 fit, the fourth
    // (1536) would lie past the 1536-byte picture.
    EXPECT_EQ(small[1520 + 7], 128);
    EXPECT_EQ(small[1528], 7);
    std::vector<unsigned char> tiny(7 * 16 * 3 / 2, 7);
    paintFrameIndex(tiny.data(), 7, 16, 1);
    EXPECT_EQ(tiny, std::vector<unsigned char>(7 * 16 * 3 / 2, 7));
}

TEST(PixelFormatString, NamesKnownCodesAndCallsTheRestRgba) {
    EXPECT_STREQ(getPixelFormatString(17), "HAL_PIXEL_FORMAT_YCrCb_420_SP");
    EXPECT_STREQ(getPixelFormatString(0x32315659), "HAL_PIXEL_FORMAT_YV12");
    EXPECT_STREQ(getPixelFormatString(0), "HAL_PIXEL_FORMAT_RGBA_8888");
    EXPECT_STREQ(getPixelFormatString(999), "HAL_PIXEL_FORMAT_RGBA_8888");
}

}  // namespace
