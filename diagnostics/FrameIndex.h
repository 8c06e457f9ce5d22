// Frame-number marks painted into pictures, and names of platform pixel formats.
//
// A mark encodes `index` in n = min(height / 8, 32) blocks of 8 x 8 pixels stacked in the
// top-right corner: block k (rows 8k .. 8k + 7, columns width - 8 .. width - 1) is white when
// bit k of `index` is set (least significant bit first) and black when it is clear. Nothing is
// painted when n is 0 or `image` is null.
#pragma once

// NV21 picture: width x height luma bytes, directly followed by height / 2 rows of `width`
// interleaved chroma bytes. Needs width >= 8. Luma of each block becomes 255 or 0. For each block
// k, 4 chroma rows of 8 bytes become 128 (neutral), the first starting at byte
// width * height + 2 * (width - 8) + 4k * width, the others `width` bytes apart; this places the
// neutral patch one chroma row lower and 8 bytes left of the block's own chroma, and is kept so.
// Bytes that would fall past the end of the picture are not written.
void paintFrameIndex(unsigned char* image, unsigned int width, unsigned int height,
                     unsigned int index);

// Picture of 32-bit pixels with `stride` pixels a row. Needs width >= 32. Every pixel of a block
// becomes 0xFFFFFFFF (white, opaque) or 0.
void paintFrameIndexRGBA(unsigned char* image, unsigned int width, unsigned int height,
                         unsigned int stride, unsigned int index);

// Static name of a HAL pixel-format code; any code without a name of its own is reported as
// "HAL_PIXEL_FORMAT_RGBA_8888".
const char* getPixelFormatString(int format);
