// Cost of one warp-mesh draw on this machine's GL driver: an NV21 camera frame sampled through
// its external texture, drawn through the 12 x 12 grid with its border ring into an RGBA output
// graphic buffer bound as the framebuffer's colour attachment, and finished (glFinish), as the
// renderer does for each output before it queues the buffer. Reported in ms per frame.
#include <benchmark/benchmark.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <vector>

#include "GLContext.h"
#include "GLGraphicBuffer.h"
#include "WarpDraw.h"

namespace {

using android::GraphicBuffer;
using android::sp;

sp<GraphicBuffer> makeBuffer(int width, int height, int format) {
    sp<GraphicBuffer> buffer(new GraphicBuffer(width, height, format,
                                               GraphicBuffer::USAGE_SW_WRITE_OFTEN |
                                                   GraphicBuffer::USAGE_HW_TEXTURE |
                                                   GraphicBuffer::USAGE_HW_RENDER));
    void* address = nullptr;
    if (buffer->lock(GraphicBuffer::USAGE_SW_WRITE_OFTEN, &address) == android::NO_ERROR) {
        auto* bytes = static_cast<uint8_t*>(address);
        for (size_t i = 0; i < buffer->getSize(); ++i)
            bytes[i] = static_cast<uint8_t>(i * 31);
        buffer->unlock();
    }
    return buffer;
}

void BM_WarpDraw(benchmark::State& state) {
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    shared_ptr<GLContext> context;
    context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
    if (!context->makeCurrent(nullptr)) {
        context->clearCurrent();
        state.SkipWithError("no EGL context on the default display");
        return;
    }
    {
        gltest::WarpScene scene(12, 12);
        std::vector<float> grid = gltest::uniformGrid(12, 12);
        scene.setGrid(grid.data());
        GLGraphicBuffer camera(context, makeBuffer(width, height, HAL_PIXEL_FORMAT_YCrCb_420_SP),
                               GLGraphicBuffer::kUsageTexture);
        GLGraphicBuffer output(
            context, makeBuffer(width, height, HAL_PIXEL_FORMAT_RGBA_8888),
            GLGraphicBuffer::kUsageTexture | GLGraphicBuffer::kUsageRenderbuffer);
        scene.draw(camera, output, width, height);  // first draw compiles the driver's variant
        for (auto _ : state) {
            scene.draw(camera, output, width, height);
        }
        state.counters["pixels"] = static_cast<double>(width) * height;
    }
    context->clearCurrent();
}

BENCHMARK(BM_WarpDraw)
    ->Args({1920, 1080})
    ->Args({3840, 2160})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    // The fastest repetition is the figure least disturbed by other work on a shared machine.
    ->ComputeStatistics("min", [](const std::vector<double>& v) {
        return *std::min_element(v.begin(), v.end());
    });

}  // namespace
