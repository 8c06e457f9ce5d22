// Colour conversions between RGB and the 4:2:0 YUV layouts, BT.601 with limited ("video")
// range: luma 16..235, chroma 16..240 centred on 128. The same matrix as the engine's camera
// sampler, so that a frame that goes RGB -> NV21 -> (engine) -> RGBA keeps its colours.
//
// The picture conversions are libyuv's (vectorised); the per-pixel functions below are the
// plain integer reference the tests hold them to (libyuv's own rounding keeps every channel
// within 3 levels of it). All functions write into a destination that the caller has sized
// (resize) to the source's dimensions; none allocates in steady state (rgbToNv21 sizes a
// per-thread buffer once per frame size). Widths and heights of 4:2:0 pictures are even.
#pragma once

#include "media/Image.h"

#include <cstdint>

namespace qlmr::replay {

// Integer BT.601 limited-range conversion of one pixel. Results are clamped to 0..255.
inline uint8_t clampByte(int v) {
    return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v));
}
inline uint8_t rgbToY(int r, int g, int b) {
    return clampByte(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
}
inline uint8_t rgbToU(int r, int g, int b) {
    return clampByte(((-38 * r - 74 * g + 112 * b + 128) >> 8) + 128);
}
inline uint8_t rgbToV(int r, int g, int b) {
    return clampByte(((112 * r - 94 * g - 18 * b + 128) >> 8) + 128);
}
inline void yuvToRgb(int y, int u, int v, uint8_t* rgb) {
    const int c = 298 * (y - 16) + 128;
    const int d = u - 128;
    const int e = v - 128;
    rgb[0] = clampByte((c + 409 * e) >> 8);
    rgb[1] = clampByte((c - 100 * d - 208 * e) >> 8);
    rgb[2] = clampByte((c + 516 * d) >> 8);
}

// RGB -> NV21; each chroma sample is the mean of its 2x2 block's U and V.
void rgbToNv21(const RgbImage& src, Nv21Image& dst);
// NV21 -> RGB, each pixel using the chroma sample of its 2x2 block.
void nv21ToRgb(const Nv21Image& src, RgbImage& dst);
// NV21 -> RGBA (alpha 255) into a buffer of `stride` pixels a row: what the engine's output
// window receives when a frame is drawn without warping. `dst` holds stride*height*4 bytes.
void nv21ToRgba(const Nv21Image& src, uint8_t* dst, int stride);
// NV21 -> NV21 of another size (both sized by the caller), bilinear on both planes.
void scaleNv21(const Nv21Image& src, Nv21Image& dst);
// NV21 -> I420 (luma copied, chroma de-interleaved).
void nv21ToI420(const Nv21Image& src, I420Image& dst);
// RGBA window buffer -> I420; chroma from the mean of each 2x2 block. The view's width and
// height must equal dst's.
void rgbaToI420(const RgbaView& src, I420Image& dst);
// I420 -> RGB.
void i420ToRgb(const I420Image& src, RgbImage& dst);

// Full-range (JFIF) 4:2:0 planes -> limited-range NV21, as a JPEG frame's YCbCr becomes a
// camera frame: luma 0..255 -> 16..235, chroma 0..255 -> 16..240 about 128, each rounded to
// nearest (chroma symmetrically about 128); the matrix is BT.601 in both. Strides in bytes;
// dst must be sized by the caller. `vector` false: the portable code only (the processor's
// vector unit otherwise, where it has AVX2); both give the same bytes.
void jfifToNv21(const uint8_t* y, int yStride, const uint8_t* cb, const uint8_t* cr,
                int chromaStride, Nv21Image& dst, bool vector = true);

// Box-filtered luma reduction by an integer factor: dst is (width/factor) x (height/factor).
// `stride` is the source's bytes per row. dst must be sized by the caller.
void downsampleLuma(const uint8_t* y, int width, int height, int stride, int factor,
                    GrayImage& dst);

}  // namespace qlmr::replay
