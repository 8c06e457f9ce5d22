// Plain 8-bit picture buffers used by the replay tool. Each owns its pixels in one vector that
// is sized once (resize) and reused frame after frame, so per-frame code does not allocate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qlmr::replay {

// A width x height picture of kBytesNum / kBytesDen bytes a pixel in one vector.
template <int kBytesNum, int kBytesDen>
struct PictureBuffer {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> data;

    void resize(int w, int h) {
        width = w;
        height = h;
        data.resize(static_cast<size_t>(w) * h * kBytesNum / kBytesDen);
    }
};

// Packed RGB, 3 bytes a pixel, rows of width*3 bytes, no padding.
struct RgbImage : PictureBuffer<3, 1> {
    uint8_t* row(int y) { return data.data() + static_cast<size_t>(y) * width * 3; }
    const uint8_t* row(int y) const { return data.data() + static_cast<size_t>(y) * width * 3; }
};

// Packed RGBA, 4 bytes a pixel (R, G, B, A in memory order), `stride` pixels a row: the layout
// of an RGBA_8888 window buffer.
struct RgbaView {
    int width = 0;
    int height = 0;
    int stride = 0;  // pixels per row, >= width
    const uint8_t* data = nullptr;
};

// NV21 (YCrCb 4:2:0 semi-planar, HAL format 17): a width x height luma plane followed directly
// by height/2 rows of width bytes holding interleaved V, U pairs. Width and height are even.
struct Nv21Image : PictureBuffer<3, 2> {
    uint8_t* y() { return data.data(); }
    const uint8_t* y() const { return data.data(); }
    uint8_t* vu() { return data.data() + static_cast<size_t>(width) * height; }
    const uint8_t* vu() const { return data.data() + static_cast<size_t>(width) * height; }
};

// I420 (planar YUV 4:2:0): luma, then the U plane, then the V plane, each chroma plane
// (width/2) x (height/2). The frame layout of a 4:2:0 Y4M stream. Width and height are even.
struct I420Image : PictureBuffer<3, 2> {
    size_t lumaSize() const { return static_cast<size_t>(width) * height; }
    size_t chromaSize() const { return static_cast<size_t>(width / 2) * (height / 2); }
    uint8_t* y() { return data.data(); }
    uint8_t* u() { return data.data() + lumaSize(); }
    uint8_t* v() { return data.data() + lumaSize() + chromaSize(); }
    const uint8_t* y() const { return data.data(); }
    const uint8_t* u() const { return data.data() + lumaSize(); }
    const uint8_t* v() const { return data.data() + lumaSize() + chromaSize(); }
};

// Single-channel 8-bit plane (a luma picture), rows of width bytes.
struct GrayImage : PictureBuffer<1, 1> {
    uint8_t at(int x, int y) const { return data[static_cast<size_t>(y) * width + x]; }
};

}  // namespace qlmr::replay
