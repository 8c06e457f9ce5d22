#include "media/ColorConvert.h"

#include <libyuv/convert.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <libyuv/convert_from_argb.h>
#include <libyuv/scale.h>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

void scaleNv21(const Nv21Image& src, Nv21Image& dst) {
    // NV12 and NV21 differ only in the order within each chroma pair, which scaling keeps.
    libyuv::NV12Scale(src.y(), src.width, src.vu(), src.width, src.width, src.height, dst.y(),
                      dst.width, dst.vu(), dst.width, dst.width, dst.height,
                      libyuv::kFilterBilinear);
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

namespace {

// The range conversion per level, exact: 16 + round(v * 219 / 255) and 128 +- round(|v - 128| *
// 224 / 255).
struct RangeTables {
    uint8_t luma[256];
    uint8_t chroma[256];
    RangeTables() {
        for (int v = 0; v < 256; ++v) {
            luma[v] = static_cast<uint8_t>(16 + (v * 219 + 127) / 255);
            const int c = (v - 128) * 224;
            chroma[v] =
                static_cast<uint8_t>(128 + (c >= 0 ? (c + 127) / 255 : -((-c + 127) / 255)));
        }
    }
};
const RangeTables kRange;

void lumaRowPortable(const uint8_t* src, uint8_t* dst, int begin, int width) {
    for (int x = begin; x < width; ++x)
        dst[x] = kRange.luma[src[x]];
}
void chromaRowPortable(const uint8_t* cb, const uint8_t* cr, uint8_t* vu, int begin, int count) {
    for (int x = begin; x < count; ++x) {
        vu[2 * x] = kRange.chroma[cr[x]];
        vu[2 * x + 1] = kRange.chroma[cb[x]];
    }
}

#if defined(__x86_64__)
// The same in 16-bit lanes: t / 255 == (t + 1 + (t >> 8)) >> 8 for every numerator here
// (t < 65280).
__attribute__((target("avx2"))) inline __m256i divide255(__m256i t) {
    return _mm256_srli_epi16(
        _mm256_add_epi16(_mm256_add_epi16(t, _mm256_set1_epi16(1)), _mm256_srli_epi16(t, 8)), 8);
}
__attribute__((target("avx2"))) inline __m256i limitedChroma(__m128i v) {
    const __m256i d = _mm256_sub_epi16(_mm256_cvtepu8_epi16(v), _mm256_set1_epi16(128));
    const __m256i t = _mm256_add_epi16(
        _mm256_mullo_epi16(_mm256_abs_epi16(d), _mm256_set1_epi16(224)), _mm256_set1_epi16(127));
    return _mm256_add_epi16(_mm256_set1_epi16(128), _mm256_sign_epi16(divide255(t), d));
}
__attribute__((target("avx2"))) void lumaRowAvx2(const uint8_t* src, uint8_t* dst, int width) {
    int x = 0;
    for (; x + 16 <= width; x += 16) {
        const __m256i v =
            _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x)));
        const __m256i t =
            _mm256_add_epi16(_mm256_mullo_epi16(v, _mm256_set1_epi16(219)), _mm256_set1_epi16(127));
        const __m256i y = _mm256_add_epi16(divide255(t), _mm256_set1_epi16(16));
        const __m256i packed = _mm256_packus_epi16(y, y);  // per 128-bit half: 8 bytes twice
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x),
                         _mm256_castsi256_si128(_mm256_permute4x64_epi64(packed, 0x08)));
    }
    lumaRowPortable(src, dst, x, width);
}
__attribute__((target("avx2"))) void chromaRowAvx2(const uint8_t* cb, const uint8_t* cr,
                                                   uint8_t* vu, int count) {
    int x = 0;
    for (; x + 16 <= count; x += 16) {
        const __m256i v = limitedChroma(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cr + x)));
        const __m256i u = limitedChroma(_mm_loadu_si128(reinterpret_cast<const __m128i*>(cb + x)));
        // Little-endian 16-bit words V | U << 8: the interleaved V, U bytes of 16 samples.
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(vu + 2 * x),
                            _mm256_or_si256(v, _mm256_slli_epi16(u, 8)));
    }
    chromaRowPortable(cb, cr, vu, x, count);
}
#endif

}  // namespace

void jfifToNv21(const uint8_t* y, int yStride, const uint8_t* cb, const uint8_t* cr,
                int chromaStride, Nv21Image& dst, bool vector) {
    const int width = dst.width;
    const int height = dst.height;
#if defined(__x86_64__)
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (vector && avx2) {
        for (int row = 0; row < height; ++row)
            lumaRowAvx2(y + static_cast<size_t>(row) * yStride,
                        dst.y() + static_cast<size_t>(row) * width, width);
        for (int row = 0; row < height / 2; ++row)
            chromaRowAvx2(cb + static_cast<size_t>(row) * chromaStride,
                          cr + static_cast<size_t>(row) * chromaStride,
                          dst.vu() + static_cast<size_t>(row) * width, width / 2);
        return;
    }
#else
    (void)vector;
#endif
    for (int row = 0; row < height; ++row)
        lumaRowPortable(y + static_cast<size_t>(row) * yStride,
                        dst.y() + static_cast<size_t>(row) * width, 0, width);
    for (int row = 0; row < height / 2; ++row)
        chromaRowPortable(cb + static_cast<size_t>(row) * chromaStride,
                          cr + static_cast<size_t>(row) * chromaStride,
                          dst.vu() + static_cast<size_t>(row) * width, 0, width / 2);
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
