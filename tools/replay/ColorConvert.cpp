#include "ColorConvert.h"

#include <libyuv/convert.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale.h>

namespace qlmr::replay {

void rgbToNv21(const RgbImage& src, Nv21Image& dst) {
    // libyuv has no direct RGB -> NV21 at limited range: through I420 in a buffer kept per
    // thread (sized once per frame size, so nothing is allocated in steady state).
    thread_local I420Image scratch;
    scratch.resize(src.width, src.height);
    const int w = src.width;
    const int cw = w / 2;
    libyuv::RAWToI420(src.data.data(), w * 3, scratch.y(), w, scratch.u(), cw, scratch.v(), cw, w,
                      src.height);
    libyuv::I420ToNV21(scratch.y(), w, scratch.u(), cw, scratch.v(), cw, dst.y(), w, dst.vu(), w, w,
                       src.height);
}

void nv21ToRgb(const Nv21Image& src, RgbImage& dst) {
    // libyuv's "RAW" is R, G, B in memory order.
    libyuv::NV21ToRAW(src.y(), src.width, src.vu(), src.width, dst.data.data(), src.width * 3,
                      src.width, src.height);
}

void nv21ToRgba(const Nv21Image& src, uint8_t* dst, int stride) {
    // libyuv's "ABGR" is R, G, B, A in memory order.
    libyuv::NV21ToABGR(src.y(), src.width, src.vu(), src.width, dst, stride * 4, src.width,
                       src.height);
}

void nv21ToI420(const Nv21Image& src, I420Image& dst) {
    const int cw = src.width / 2;
    libyuv::NV21ToI420(src.y(), src.width, src.vu(), src.width, dst.y(), dst.width, dst.u(), cw,
                       dst.v(), cw, src.width, src.height);
}

void rgbaToI420(const RgbaView& src, I420Image& dst) {
    const int cw = dst.width / 2;
    libyuv::ABGRToI420(src.data, src.stride * 4, dst.y(), dst.width, dst.u(), cw, dst.v(), cw,
                       dst.width, dst.height);
}

void i420ToRgb(const I420Image& src, RgbImage& dst) {
    const int cw = src.width / 2;
    libyuv::I420ToRAW(src.y(), src.width, src.u(), cw, src.v(), cw, dst.data.data(), src.width * 3,
                      src.width, src.height);
}

void downsampleLuma(const uint8_t* y, int width, int height, int stride, int factor,
                    GrayImage& dst) {
    // libyuv's box filter over the whole blocks (a right or bottom remainder narrower than a
    // block is left out): the mean of each factor x factor block, to within one level.
    const int dw = width / factor;
    const int dh = height / factor;
    libyuv::ScalePlane(y, stride, dw * factor, dh * factor, dst.data.data(), dst.width, dw, dh,
                       libyuv::kFilterBox);
}

}  // namespace qlmr::replay
