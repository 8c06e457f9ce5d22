// CPU pixel conversions used by the host graphics platform, offered to tools and tests.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace host {

// Converts an NV21 picture to tightly packed RGBA (alpha 255), as a device's external-texture
// sampler presents a camera buffer: ITU-R BT.601 matrix, limited ("video") range (luma 16..235,
// chroma 16..240 centred on 128), each chroma sample shared by its 2 x 2 luma block (no chroma
// interpolation). Done by libyuv (vectorised; the camera thread calls it on every unlock of a
// camera buffer). libyuv keeps 6 fractional bits in its coefficients: results are within 3 of
// the exact formula R = 1.164 (Y - 16) + 1.596 (V - 128), G = 1.164 (Y - 16) - 0.813 (V - 128)
// - 0.391 (U - 128), B = 1.164 (Y - 16) + 2.018 (U - 128), clamped to 0..255 (yuvToRgb below,
// with 8 fractional bits, stays within 1 and is the reference the tests hold it to).
// `luma` has `lumaStride` bytes per row; `vu` holds height / 2 rows of `chromaStride` bytes with
// V first in each pair. width and height must be even. `rgba` receives height rows of width * 4
// bytes, `rgbaStride` bytes apart (0: tightly packed, width * 4).
void nv21ToRgba(const uint8_t* luma, size_t lumaStride, const uint8_t* vu, size_t chromaStride,
                uint32_t width, uint32_t height, uint8_t* rgba, size_t rgbaStride = 0);

// One NV21 sample converted by the same rule on the CPU in plain integer arithmetic (8
// fractional bits, within 1 of the exact formula), for checks: writes R, G, B.
void yuvToRgb(uint8_t y, uint8_t u, uint8_t v, uint8_t rgb[3]);

// Copies 32-bit pixels of HAL format `format` (RGBA_8888, RGBX_8888 or BGRA_8888) with a row
// pitch of `strideBytes` into tightly packed RGBA: RGBX gets alpha 255, BGRA is swizzled.
// Returns false for any other format.
bool packToRgba(int format, const uint8_t* src, size_t strideBytes, uint32_t width, uint32_t height,
                uint8_t* rgba);

// The reverse of packToRgba: tightly packed RGBA into pixels of `format` with `strideBytes`.
bool unpackFromRgba(int format, const uint8_t* rgba, uint32_t width, uint32_t height, uint8_t* dst,
                    size_t strideBytes);

}  // namespace host
