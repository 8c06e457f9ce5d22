#include "FrameIndex.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

constexpr unsigned int kBlock = 8;       // block edge, pixels
constexpr unsigned int kMaxBlocks = 32;  // one per bit of the index

unsigned int blockCount(unsigned int height) {
    return std::min(height / kBlock, kMaxBlocks);
}

}  // namespace

void paintFrameIndex(unsigned char* image, unsigned int width, unsigned int height,
                     unsigned int index) {
    if (image == nullptr || width < kBlock)
        return;
    const unsigned int blocks = blockCount(height);
    const size_t lumaBytes = static_cast<size_t>(width) * height;
    const size_t pictureBytes = lumaBytes + static_cast<size_t>(width) * (height / 2);
    for (unsigned int k = 0; k < blocks; ++k) {
        const int value = ((index >> k) & 1u) != 0 ? 255 : 0;
        for (unsigned int row = kBlock * k; row < kBlock * (k + 1); ++row) {
            std::memset(image + static_cast<size_t>(row) * width + (width - kBlock), value, kBlock);
        }
        const size_t chromaStart = lumaBytes + 2 * static_cast<size_t>(width - kBlock) +
                                   4 * static_cast<size_t>(k) * width;
        for (unsigned int line = 0; line < 4; ++line) {
            const size_t start = chromaStart + static_cast<size_t>(line) * width;
            if (start >= pictureBytes)
                break;
            std::memset(image + start, 128, std::min<size_t>(kBlock, pictureBytes - start));
        }
    }
}

void paintFrameIndexRGBA(unsigned char* image, unsigned int width, unsigned int height,
                         unsigned int stride, unsigned int index) {
    if (image == nullptr || width < 32)
        return;
    const unsigned int blocks = blockCount(height);
    for (unsigned int k = 0; k < blocks; ++k) {
        const int value = ((index >> k) & 1u) != 0 ? 0xFF : 0;
        for (unsigned int row = kBlock * k; row < kBlock * (k + 1); ++row) {
            std::memset(image + (static_cast<size_t>(row) * stride + (width - kBlock)) * 4, value,
                        kBlock * 4);
        }
    }
}

const char* getPixelFormatString(int format) {
    switch (format) {
        case 1:
            return "HAL_PIXEL_FORMAT_RGBA_8888";
        case 2:
            return "HAL_PIXEL_FORMAT_RGBX_8888";
        case 3:
            return "HAL_PIXEL_FORMAT_RGB_888";
        case 4:
            return "HAL_PIXEL_FORMAT_RGB_565";
        case 5:
            return "HAL_PIXEL_FORMAT_BGRA_8888";
        case 16:
            return "HAL_PIXEL_FORMAT_YCbCr_422_SP";
        case 17:
            return "HAL_PIXEL_FORMAT_YCrCb_420_SP";
        case 20:
            return "HAL_PIXEL_FORMAT_YCbCr_422_I";
        case 32:
            return "HAL_PIXEL_FORMAT_RAW_SENSOR";
        case 0x32315659:
            return "HAL_PIXEL_FORMAT_YV12";
        default:
            return "HAL_PIXEL_FORMAT_RGBA_8888";
    }
}
