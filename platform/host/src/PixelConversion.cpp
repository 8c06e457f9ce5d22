// CPU pixel conversions: NV21 to RGBA (BT.601, limited range) and 32-bit channel orders.
#include "host/PixelConversion.h"

#include <libyuv/convert_argb.h>

#include <system/graphics.h>

#include <cstring>

namespace host {
namespace {

constexpr int kClampOffset = 384;  // index of the value 0 in the clamp table
constexpr int kClampSize = 1024;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "pixels are packed as little-endian words");

// Fixed-point BT.601 limited-range terms, scaled by 256, one table per term, and a clamp table.
// (Y - 16) * 298 + 128 (255 / 219, with rounding), (V - 128) * 409 (1.596) for red,
// (U - 128) * -100 (-0.391) and (V - 128) * -208 (-0.813) for green, (U - 128) * 516 (2.018)
// for blue. A sum shifted right by 8 lies in -278 .. 534.
struct Bt601Tables {
    int32_t y[256];
    int32_t rv[256];
    int32_t gu[256];
    int32_t gv[256];
    int32_t bu[256];
    uint8_t clamp[kClampSize];

    Bt601Tables() {
        for (int i = 0; i < 256; ++i) {
            y[i] = 298 * (i - 16) + 128;
            rv[i] = 409 * (i - 128);
            gu[i] = -100 * (i - 128);
            gv[i] = -208 * (i - 128);
            bu[i] = 516 * (i - 128);
        }
        for (int i = 0; i < kClampSize; ++i) {
            const int value = i - kClampOffset;
            clamp[i] = static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
        }
    }
};

const Bt601Tables kTables;

// One RGBA pixel, opaque, from a luma term and the three chroma terms.
inline void put(uint8_t* out, int32_t yTerm, int32_t rTerm, int32_t gTerm, int32_t bTerm) {
    const uint8_t* clamp = kTables.clamp + kClampOffset;
    const uint32_t pixel = static_cast<uint32_t>(clamp[(yTerm + rTerm) >> 8]) |
                           static_cast<uint32_t>(clamp[(yTerm + gTerm) >> 8]) << 8 |
                           static_cast<uint32_t>(clamp[(yTerm + bTerm) >> 8]) << 16 | 0xFF000000u;
    std::memcpy(out, &pixel, 4);
}

}  // namespace

void yuvToRgb(uint8_t y, uint8_t u, uint8_t v, uint8_t rgb[3]) {
    uint8_t rgba[4];
    put(rgba, kTables.y[y], kTables.rv[v], kTables.gu[u] + kTables.gv[v], kTables.bu[u]);
    std::memcpy(rgb, rgba, 3);
}

void nv21ToRgba(const uint8_t* luma, size_t lumaStride, const uint8_t* vu, size_t chromaStride,
                uint32_t width, uint32_t height, uint8_t* rgba, size_t rgbaStride) {
    if (rgbaStride == 0)
        rgbaStride = static_cast<size_t>(width) * 4;
    // libyuv's "ABGR" is R, G, B, A in memory order (a little-endian 0xAABBGGRR word): RGBA
    // bytes. Its NV21 path is BT.601 limited range with nearest chroma, vectorised (SSSE3/AVX2).
    libyuv::NV21ToABGR(luma, static_cast<int>(lumaStride), vu, static_cast<int>(chromaStride), rgba,
                       static_cast<int>(rgbaStride), static_cast<int>(width),
                       static_cast<int>(height));
}

namespace {

// Copies `height` rows of `rowBytes` bytes between buffers of different row pitches.
void copyRows(uint8_t* dst, size_t dstStride, const uint8_t* src, size_t srcStride, size_t rowBytes,
              uint32_t height) {
    for (uint32_t row = 0; row < height; ++row) {
        std::memcpy(dst + row * dstStride, src + row * srcStride, rowBytes);
    }
}

// Copies `width` x `height` 32-bit pixels exchanging bytes 0 and 2 (RGBA <-> BGRA; the same
// exchange both ways), between buffers of different row pitches.
void swapRedBlueRows(uint8_t* dst, size_t dstStride, const uint8_t* src, size_t srcStride,
                     uint32_t width, uint32_t height) {
    for (uint32_t row = 0; row < height; ++row) {
        const uint8_t* in = src + row * srcStride;
        uint8_t* out = dst + row * dstStride;
        for (uint32_t col = 0; col < width; ++col) {
            out[4 * col + 0] = in[4 * col + 2];
            out[4 * col + 1] = in[4 * col + 1];
            out[4 * col + 2] = in[4 * col + 0];
            out[4 * col + 3] = in[4 * col + 3];
        }
    }
}

}  // namespace

bool packToRgba(int format, const uint8_t* src, size_t strideBytes, uint32_t width, uint32_t height,
                uint8_t* rgba) {
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    switch (format) {
        case HAL_PIXEL_FORMAT_RGBA_8888:
            copyRows(rgba, rowBytes, src, strideBytes, rowBytes, height);
            return true;
        case HAL_PIXEL_FORMAT_RGBX_8888:
            for (uint32_t row = 0; row < height; ++row) {
                const uint8_t* in = src + row * strideBytes;
                uint8_t* out = rgba + row * rowBytes;
                for (uint32_t col = 0; col < width; ++col) {
                    out[4 * col + 0] = in[4 * col + 0];
                    out[4 * col + 1] = in[4 * col + 1];
                    out[4 * col + 2] = in[4 * col + 2];
                    out[4 * col + 3] = 255;
                }
            }
            return true;
        case HAL_PIXEL_FORMAT_BGRA_8888:
            swapRedBlueRows(rgba, rowBytes, src, strideBytes, width, height);
            return true;
        default:
            return false;
    }
}

bool unpackFromRgba(int format, const uint8_t* rgba, uint32_t width, uint32_t height, uint8_t* dst,
                    size_t strideBytes) {
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    switch (format) {
        case HAL_PIXEL_FORMAT_RGBA_8888:
        case HAL_PIXEL_FORMAT_RGBX_8888:
            copyRows(dst, strideBytes, rgba, rowBytes, rowBytes, height);
            return true;
        case HAL_PIXEL_FORMAT_BGRA_8888:
            swapRedBlueRows(dst, strideBytes, rgba, rowBytes, width, height);
            return true;
        default:
            return false;
    }
}

}  // namespace host
