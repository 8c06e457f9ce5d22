// CPU pixel conversions: NV21 to RGBA (BT.601, limited range) and 32-bit channel orders.
#include "host/PixelConversion.h"

#include <system/graphics.h>

#include <cstring>

namespace host {
namespace {

// Fixed-point BT.601 limited-range coefficients, scaled by 256.
constexpr int kY = 298;    // 255 / 219
constexpr int kRv = 409;   // 1.596
constexpr int kGu = -100;  // -0.391
constexpr int kGv = -208;  // -0.813
constexpr int kBu = 516;   // 2.018
constexpr int kRound = 128;

inline uint8_t clamp255(int value) {
    return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value));
}

// Writes one RGBA pixel from a luma term (already scaled) and the three chroma terms.
inline void put(uint8_t* out, int yTerm, int rTerm, int gTerm, int bTerm) {
    out[0] = clamp255((yTerm + rTerm) >> 8);
    out[1] = clamp255((yTerm + gTerm) >> 8);
    out[2] = clamp255((yTerm + bTerm) >> 8);
    out[3] = 255;
}

}  // namespace

void yuvToRgb(uint8_t y, uint8_t u, uint8_t v, uint8_t rgb[3]) {
    const int yTerm = kY * (y - 16) + kRound;
    const int d = u - 128;
    const int e = v - 128;
    rgb[0] = clamp255((yTerm + kRv * e) >> 8);
    rgb[1] = clamp255((yTerm + kGu * d + kGv * e) >> 8);
    rgb[2] = clamp255((yTerm + kBu * d) >> 8);
}

void nv21ToRgba(const uint8_t* luma, size_t lumaStride, const uint8_t* vu, size_t chromaStride,
                uint32_t width, uint32_t height, uint8_t* rgba) {
    const size_t outStride = static_cast<size_t>(width) * 4;
    for (uint32_t row = 0; row + 1 < height; row += 2) {
        const uint8_t* y0 = luma + row * lumaStride;
        const uint8_t* y1 = y0 + lumaStride;
        const uint8_t* c = vu + (row / 2) * chromaStride;
        uint8_t* out0 = rgba + row * outStride;
        uint8_t* out1 = out0 + outStride;
        for (uint32_t col = 0; col + 1 < width; col += 2) {
            const int e = c[col] - 128;      // V
            const int d = c[col + 1] - 128;  // U
            const int rTerm = kRv * e;
            const int gTerm = kGu * d + kGv * e;
            const int bTerm = kBu * d;
            put(out0 + col * 4, kY * (y0[col] - 16) + kRound, rTerm, gTerm, bTerm);
            put(out0 + col * 4 + 4, kY * (y0[col + 1] - 16) + kRound, rTerm, gTerm, bTerm);
            put(out1 + col * 4, kY * (y1[col] - 16) + kRound, rTerm, gTerm, bTerm);
            put(out1 + col * 4 + 4, kY * (y1[col + 1] - 16) + kRound, rTerm, gTerm, bTerm);
        }
    }
}

bool packToRgba(int format, const uint8_t* src, size_t strideBytes, uint32_t width, uint32_t height,
                uint8_t* rgba) {
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    switch (format) {
        case HAL_PIXEL_FORMAT_RGBA_8888:
            for (uint32_t row = 0; row < height; ++row) {
                std::memcpy(rgba + row * rowBytes, src + row * strideBytes, rowBytes);
            }
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
            for (uint32_t row = 0; row < height; ++row) {
                const uint8_t* in = src + row * strideBytes;
                uint8_t* out = rgba + row * rowBytes;
                for (uint32_t col = 0; col < width; ++col) {
                    out[4 * col + 0] = in[4 * col + 2];
                    out[4 * col + 1] = in[4 * col + 1];
                    out[4 * col + 2] = in[4 * col + 0];
                    out[4 * col + 3] = in[4 * col + 3];
                }
            }
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
            for (uint32_t row = 0; row < height; ++row) {
                std::memcpy(dst + row * strideBytes, rgba + row * rowBytes, rowBytes);
            }
            return true;
        case HAL_PIXEL_FORMAT_BGRA_8888:
            for (uint32_t row = 0; row < height; ++row) {
                const uint8_t* in = rgba + row * rowBytes;
                uint8_t* out = dst + row * strideBytes;
                for (uint32_t col = 0; col < width; ++col) {
                    out[4 * col + 0] = in[4 * col + 2];
                    out[4 * col + 1] = in[4 * col + 1];
                    out[4 * col + 2] = in[4 * col + 0];
                    out[4 * col + 3] = in[4 * col + 3];
                }
            }
            return true;
        default:
            return false;
    }
}

}  // namespace host
