#include "output/Compose.h"

#include <cstring>

namespace qlmr::replay {

void sideBySideSize(int lw, int lh, int rw, int rh, int& width, int& height) {
    int scaledRight = static_cast<int>(static_cast<long long>(rw) * lh / rh);
    scaledRight &= ~1;
    width = lw + kSideBySideGap + scaledRight;
    height = lh;
}

namespace {
void scalePlane(const uint8_t* src, int sw, int sh, uint8_t* dst, int dw, int dh, int dstStride) {
    for (int y = 0; y < dh; ++y) {
        const uint8_t* s = src + static_cast<size_t>(static_cast<long long>(y) * sh / dh) * sw;
        uint8_t* d = dst + static_cast<size_t>(y) * dstStride;
        if (dw == sw) {
            std::memcpy(d, s, static_cast<size_t>(dw));
        } else {
            for (int x = 0; x < dw; ++x)
                d[x] = s[static_cast<long long>(x) * sw / dw];
        }
    }
}
}  // namespace

void composeSideBySide(const I420Image& left, const I420Image& right, I420Image& out) {
    const int w = out.width;
    const int h = out.height;
    const int rw = w - left.width - kSideBySideGap;
    const int cw = w / 2;
    // Black background (limited range) for the gap.
    std::memset(out.y(), 16, out.lumaSize());
    std::memset(out.u(), 128, out.chromaSize());
    std::memset(out.v(), 128, out.chromaSize());
    scalePlane(left.y(), left.width, left.height, out.y(), left.width, h, w);
    scalePlane(left.u(), left.width / 2, left.height / 2, out.u(), left.width / 2, h / 2, cw);
    scalePlane(left.v(), left.width / 2, left.height / 2, out.v(), left.width / 2, h / 2, cw);
    const int offset = left.width + kSideBySideGap;
    scalePlane(right.y(), right.width, right.height, out.y() + offset, rw, h, w);
    scalePlane(right.u(), right.width / 2, right.height / 2, out.u() + offset / 2, rw / 2, h / 2,
               cw);
    scalePlane(right.v(), right.width / 2, right.height / 2, out.v() + offset / 2, rw / 2, h / 2,
               cw);
}

RgbImage thumbnail(const RgbImage& in, int maxWidth) {
    int f = 1;
    while (in.width / f > maxWidth)
        ++f;
    RgbImage out;
    out.resize(in.width / f, in.height / f);
    for (int y = 0; y < out.height; ++y) {
        for (int x = 0; x < out.width; ++x) {
            for (int c = 0; c < 3; ++c) {
                int sum = 0;
                for (int j = 0; j < f; ++j) {
                    for (int i = 0; i < f; ++i)
                        sum += in.row(y * f + j)[3 * (x * f + i) + c];
                }
                out.row(y)[3 * x + c] = static_cast<uint8_t>((sum + f * f / 2) / (f * f));
            }
        }
    }
    return out;
}

}  // namespace qlmr::replay
