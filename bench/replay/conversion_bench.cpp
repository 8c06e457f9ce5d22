// Per-frame pixel work of a replay at 1920x1080 and 3840x2160, each beside memcpy of the same
// bytes (the floor any conversion of that picture pays for touching its memory):
//   HostUnlockNv21ToRgba   the camera buffer's unlock conversion (host::nv21ToRgba, libyuv),
//                          on the camera thread once per frame; memcpy of the RGBA bytes;
//   OutputRgbaToI420       an output window's RGBA frame to the I420 of the video (libyuv);
//                          memcpy of the RGBA bytes;
//   DecodePngToNv21        the replay's decode stage for a PNG recording: libpng decode and
//                          RGB -> NV21; memcpy of the NV21 bytes;
//   DecodeJpegToNv21       the same for a JPEG recording (libjpeg-turbo, quality 90, 4:2:0):
//                          the YCbCr planes straight into NV21;
//   DecodeJpegViaRgb       the same JPEG decoded to RGB and converted (the former route).
// Arguments: width, height.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "host/PixelConversion.h"
#include "media/ColorConvert.h"
#include "media/ImageIo.h"

namespace {

using namespace qlmr::replay;

// A picture with detail everywhere (so PNG does not collapse it) and smooth colour.
RgbImage testPicture(int w, int h) {
    RgbImage img;
    img.resize(w, h);
    uint32_t seed = 12345;
    for (int y = 0; y < h; ++y) {
        uint8_t* row = img.row(y);
        for (int x = 0; x < w; ++x) {
            seed = seed * 1664525u + 1013904223u;
            const int noise = static_cast<int>(seed >> 28);  // 0..15
            row[3 * x + 0] = static_cast<uint8_t>((x * 255 / w + noise) & 0xFF);
            row[3 * x + 1] = static_cast<uint8_t>((y * 255 / h + noise) & 0xFF);
            row[3 * x + 2] = static_cast<uint8_t>(((x + y) / 4 + noise) & 0xFF);
        }
    }
    return img;
}

Nv21Image testNv21(int w, int h) {
    Nv21Image nv;
    nv.resize(w, h);
    rgbToNv21(testPicture(w, h), nv);
    return nv;
}

void setBytes(benchmark::State& state, size_t bytesPerFrame) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytesPerFrame));
}

void memcpyOf(benchmark::State& state, size_t bytes) {
    std::vector<uint8_t> src(bytes, 7), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    setBytes(state, bytes);
}

void HostUnlockNv21ToRgba(benchmark::State& state) {
    const int w = static_cast<int>(state.range(0));
    const int h = static_cast<int>(state.range(1));
    const Nv21Image nv = testNv21(w, h);
    std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
    for (auto _ : state) {
        host::nv21ToRgba(nv.y(), w, nv.vu(), w, w, h, rgba.data());
        benchmark::DoNotOptimize(rgba.data());
    }
    setBytes(state, rgba.size());
}
void MemcpyRgba(benchmark::State& state) {
    memcpyOf(state, static_cast<size_t>(state.range(0)) * state.range(1) * 4);
}

void OutputRgbaToI420(benchmark::State& state) {
    const int w = static_cast<int>(state.range(0));
    const int h = static_cast<int>(state.range(1));
    const Nv21Image nv = testNv21(w, h);
    std::vector<uint8_t> rgba(static_cast<size_t>(w) * h * 4);
    nv21ToRgba(nv, rgba.data(), w);
    I420Image out;
    out.resize(w, h);
    for (auto _ : state) {
        rgbaToI420(RgbaView{w, h, w, rgba.data()}, out);
        benchmark::DoNotOptimize(out.data.data());
    }
    setBytes(state, rgba.size());
}

void decodeToNv21(benchmark::State& state, const std::vector<uint8_t>& file, const char* name,
                  bool viaRgb = false) {
    const int w = static_cast<int>(state.range(0));
    const int h = static_cast<int>(state.range(1));
    const std::string path = std::string("/tmp/qlmr_conversion_bench_") + std::to_string(w) + name;
    writeFile(path, file.data(), file.size());
    ImageReader reader;
    RgbImage rgb;
    Nv21Image nv;
    nv.resize(w, h);
    for (auto _ : state) {
        if (viaRgb) {
            reader.read(path, rgb);
            rgbToNv21(rgb, nv);
        } else {
            reader.readNv21(path, nv);
        }
        benchmark::DoNotOptimize(nv.data.data());
    }
    std::remove(path.c_str());
    setBytes(state, nv.data.size());
    state.counters["file_MB"] = static_cast<double>(file.size()) / 1e6;
}
void DecodePngToNv21(benchmark::State& state) {
    decodeToNv21(
        state,
        encodePng(testPicture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)))),
        ".png");
}
void DecodeJpegToNv21(benchmark::State& state) {
    decodeToNv21(
        state,
        encodeJpeg(testPicture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))),
                   90),
        ".jpg");
}
void DecodeJpegViaRgb(benchmark::State& state) {
    decodeToNv21(
        state,
        encodeJpeg(testPicture(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))),
                   90),
        ".jpg", true);
}
void MemcpyNv21(benchmark::State& state) {
    memcpyOf(state, static_cast<size_t>(state.range(0)) * state.range(1) * 3 / 2);
}

#define SIZES ->Args({1920, 1080})->Args({3840, 2160})->Unit(benchmark::kMillisecond)
BENCHMARK(HostUnlockNv21ToRgba) SIZES;
BENCHMARK(MemcpyRgba) SIZES;
BENCHMARK(OutputRgbaToI420) SIZES;
BENCHMARK(DecodePngToNv21) SIZES;
BENCHMARK(DecodeJpegToNv21) SIZES;
BENCHMARK(DecodeJpegViaRgb) SIZES;
BENCHMARK(MemcpyNv21) SIZES;

}  // namespace
