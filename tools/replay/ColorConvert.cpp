#include "ColorConvert.h"

#include <cstring>

namespace qlmr::replay {

namespace {

// One 2x2 block of RGB(A) pixels (top-left, top-right, bottom-left, bottom-right) into its four
// luma values and the block's mean U and V (rounded).
struct Yuv2x2 {
    uint8_t y[4];
    uint8_t u;
    uint8_t v;
};

Yuv2x2 convertBlock(const uint8_t* const p[4]) {
    Yuv2x2 out{};
    int su = 0;
    int sv = 0;
    for (int k = 0; k < 4; ++k) {
        out.y[k] = rgbToY(p[k][0], p[k][1], p[k][2]);
        su += rgbToU(p[k][0], p[k][1], p[k][2]);
        sv += rgbToV(p[k][0], p[k][1], p[k][2]);
    }
    out.u = static_cast<uint8_t>((su + 2) >> 2);
    out.v = static_cast<uint8_t>((sv + 2) >> 2);
    return out;
}

}  // namespace

void rgbToNv21(const RgbImage& src, Nv21Image& dst) {
    const int w = src.width;
    const int h = src.height;
    uint8_t* yPlane = dst.y();
    uint8_t* vu = dst.vu();
    for (int y = 0; y < h; y += 2) {
        const uint8_t* r0 = src.row(y);
        const uint8_t* r1 = src.row(y + 1);
        uint8_t* y0 = yPlane + static_cast<size_t>(y) * w;
        uint8_t* y1 = y0 + w;
        uint8_t* c = vu + static_cast<size_t>(y / 2) * w;
        for (int x = 0; x < w; x += 2) {
            const uint8_t* p[4] = {r0 + 3 * x, r0 + 3 * x + 3, r1 + 3 * x, r1 + 3 * x + 3};
            const Yuv2x2 b = convertBlock(p);
            y0[x] = b.y[0];
            y0[x + 1] = b.y[1];
            y1[x] = b.y[2];
            y1[x + 1] = b.y[3];
            c[x] = b.v;
            c[x + 1] = b.u;
        }
    }
}

void nv21ToRgb(const Nv21Image& src, RgbImage& dst) {
    const int w = src.width;
    for (int y = 0; y < src.height; ++y) {
        const uint8_t* yr = src.y() + static_cast<size_t>(y) * w;
        const uint8_t* c = src.vu() + static_cast<size_t>(y / 2) * w;
        uint8_t* out = dst.row(y);
        for (int x = 0; x < w; ++x) {
            const int cx = x & ~1;
            yuvToRgb(yr[x], c[cx + 1], c[cx], out + 3 * x);
        }
    }
}

void nv21ToRgba(const Nv21Image& src, uint8_t* dst, int stride) {
    const int w = src.width;
    for (int y = 0; y < src.height; ++y) {
        const uint8_t* yr = src.y() + static_cast<size_t>(y) * w;
        const uint8_t* c = src.vu() + static_cast<size_t>(y / 2) * w;
        uint8_t* out = dst + static_cast<size_t>(y) * stride * 4;
        for (int x = 0; x < w; ++x) {
            const int cx = x & ~1;
            yuvToRgb(yr[x], c[cx + 1], c[cx], out + 4 * x);
            out[4 * x + 3] = 255;
        }
    }
}

void nv21ToI420(const Nv21Image& src, I420Image& dst) {
    std::memcpy(dst.y(), src.y(), dst.lumaSize());
    const int cw = src.width / 2;
    const int ch = src.height / 2;
    uint8_t* u = dst.u();
    uint8_t* v = dst.v();
    for (int y = 0; y < ch; ++y) {
        const uint8_t* c = src.vu() + static_cast<size_t>(y) * src.width;
        for (int x = 0; x < cw; ++x) {
            v[static_cast<size_t>(y) * cw + x] = c[2 * x];
            u[static_cast<size_t>(y) * cw + x] = c[2 * x + 1];
        }
    }
}

void rgbaToI420(const RgbaView& src, I420Image& dst) {
    const int w = dst.width;
    const int h = dst.height;
    const int cw = w / 2;
    for (int y = 0; y < h; y += 2) {
        const uint8_t* r0 = src.data + static_cast<size_t>(y) * src.stride * 4;
        const uint8_t* r1 = r0 + static_cast<size_t>(src.stride) * 4;
        uint8_t* y0 = dst.y() + static_cast<size_t>(y) * w;
        uint8_t* y1 = y0 + w;
        uint8_t* u = dst.u() + static_cast<size_t>(y / 2) * cw;
        uint8_t* v = dst.v() + static_cast<size_t>(y / 2) * cw;
        for (int x = 0; x < w; x += 2) {
            const uint8_t* p[4] = {r0 + 4 * x, r0 + 4 * x + 4, r1 + 4 * x, r1 + 4 * x + 4};
            const Yuv2x2 b = convertBlock(p);
            y0[x] = b.y[0];
            y0[x + 1] = b.y[1];
            y1[x] = b.y[2];
            y1[x + 1] = b.y[3];
            u[x / 2] = b.u;
            v[x / 2] = b.v;
        }
    }
}

void i420ToRgb(const I420Image& src, RgbImage& dst) {
    const int w = src.width;
    const int cw = w / 2;
    for (int y = 0; y < src.height; ++y) {
        const uint8_t* yr = src.y() + static_cast<size_t>(y) * w;
        const uint8_t* u = src.u() + static_cast<size_t>(y / 2) * cw;
        const uint8_t* v = src.v() + static_cast<size_t>(y / 2) * cw;
        uint8_t* out = dst.row(y);
        for (int x = 0; x < w; ++x) {
            yuvToRgb(yr[x], u[x / 2], v[x / 2], out + 3 * x);
        }
    }
}

void downsampleLuma(const uint8_t* y, int width, int height, int stride, int factor,
                    GrayImage& dst) {
    const int dw = width / factor;
    const int dh = height / factor;
    const int area = factor * factor;
    for (int dy = 0; dy < dh; ++dy) {
        uint8_t* out = dst.data.data() + static_cast<size_t>(dy) * dst.width;
        for (int dx = 0; dx < dw; ++dx) {
            int sum = 0;
            for (int j = 0; j < factor; ++j) {
                const uint8_t* r = y + static_cast<size_t>(dy * factor + j) * stride + dx * factor;
                for (int i = 0; i < factor; ++i)
                    sum += r[i];
            }
            out[dx] = static_cast<uint8_t>((sum + area / 2) / area);
        }
    }
}

}  // namespace qlmr::replay
