// Speed of the replay tool's per-frame work: rendering synthetic frames (1080p and 720p, one
// and two threads), the colour conversions of the output path, and motion registration.
#include "measure/Motion.h"
#include "media/ColorConvert.h"
#include "synthetic/Synthetic.h"

#include <benchmark/benchmark.h>

#include <memory>

using namespace qlmr::replay;

namespace {

SyntheticRecording& recording(int width, int height, int threads) {
    static std::unique_ptr<SyntheticRecording> cached;
    static int key = 0;
    const int k = width * 100000 + height * 10 + threads;
    if (!cached || key != k) {
        SyntheticOptions o;
        o.width = width;
        o.height = height;
        o.threads = threads;
        o.seconds = 2;
        cached = std::make_unique<SyntheticRecording>(o);
        key = k;
    }
    return *cached;
}

void BM_RenderSyntheticFrame(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = width * 9 / 16;
    SyntheticRecording& rec = recording(width, height, static_cast<int>(state.range(1)));
    Nv21Image frame;
    frame.resize(width, height);
    int i = 0;
    for (auto _ : state) {
        rec.read(i, frame);
        i = (i + 1) % rec.count();
        benchmark::DoNotOptimize(frame.data.data());
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(rec.scene().description.substr(0, 40));
}
BENCHMARK(BM_RenderSyntheticFrame)
    ->Args({1920, 1})
    ->Args({1920, 2})
    ->Args({1280, 2})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void BM_Nv21ToRgbaToI420(benchmark::State& state) {
    Nv21Image nv;
    nv.resize(1920, 1080);
    for (size_t i = 0; i < nv.data.size(); ++i)
        nv.data[i] = static_cast<uint8_t>(i * 31);
    std::vector<uint8_t> rgba(1920 * 1080 * 4);
    I420Image out;
    out.resize(1920, 1080);
    for (auto _ : state) {
        nv21ToRgba(nv, rgba.data(), 1920);
        rgbaToI420(RgbaView{1920, 1080, 1920, rgba.data()}, out);
        benchmark::DoNotOptimize(out.data.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Nv21ToRgbaToI420)->Unit(benchmark::kMillisecond);

void BM_RegisterFramePair(benchmark::State& state) {
    SyntheticRecording& rec = recording(1920, 1080, 2);
    Nv21Image a, b;
    a.resize(1920, 1080);
    b.resize(1920, 1080);
    rec.read(10, a);
    rec.read(11, b);
    GrayImage ga, gb;
    ga.resize(640, 360);
    gb.resize(640, 360);
    downsampleLuma(a.y(), 1920, 1080, 1920, 3, ga);
    downsampleLuma(b.y(), 1920, 1080, 1920, 3, gb);
    MotionEstimator est;
    for (auto _ : state) {
        benchmark::DoNotOptimize(est.estimate(ga, gb, Similarity{}, MotionOptions{}));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RegisterFramePair)->Unit(benchmark::kMillisecond);

}  // namespace
