// The bare warp draw on the host driver (llvmpipe), built from the GL layer's own classes: a
// GLContext, a camera frame (NV21 GraphicBuffer) bound as an external texture through
// GLGraphicBuffer, output RGBA buffers bound as render targets through a GbMapper, the warp
// program cTGLProgram<PwarpVS, PwarpFS> and a cTGridMesh / cTGridMeshIndices strip. One
// iteration draws the frame through the grid into one output buffer and finishes (glFinish):
// the GL work of one output of the engine's render call, without the engine around it (no
// queues, no stabilizer, no window dequeue/queue and no read-back of the output).
//
// Arguments: output width, output height, grid columns, grid rows (the stabilizer's vertices;
// the mesh adds one border ring as the engine does), camera buffers (the draws sample them in
// turn, each painted once: 1 keeps one frame in the caches; the engine's queue at the pipeline
// benchmark's configuration cycles through 16, each a frame the draw has not read before).
// Counters: `draw_fps` = draws per second, `cpu_ms_per_frame` = CPU time of all threads per draw.
#include <EGL/egl.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <benchmark/benchmark.h>
#include <ui/GraphicBuffer.h>

#include <cmath>
#include <cstdint>
#include <ctime>
#include <memory>
#include <vector>

#include "GLContext.h"
#include "GLGraphicBuffer.h"
#include "GbMapper.h"
#include "PwarpShaders.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"
#include "cTGridMesh.h"
#include "cTGridMeshIndices.h"
#include "shared_ptr.h"

namespace {

// CPU time of the whole process (every thread, llvmpipe's included), in milliseconds.
double processCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

constexpr int kNv21Format = 17;                // HAL_PIXEL_FORMAT_YCrCb_420_SP
constexpr uint32_t kCameraUsage = 0x130;       // the engine's camera queue buffers
constexpr uint32_t kOutputUsage = 0x30 | 0x3;  // the engine's window usage + CPU read (consumer)
constexpr int kOutputBuffers = 3;              // a window's buffers, cycled

// Camera picture: a luma ramp and slowly varying chroma, so that sampling is not of a flat image.
void paintCamera(const android::sp<android::GraphicBuffer>& camera) {
    void* address = nullptr;
    camera->lock(kCameraUsage, &address);
    auto* nv21 = static_cast<uint8_t*>(address);
    const uint32_t stride = camera->getStride();
    const uint32_t width = camera->getWidth();
    const uint32_t height = camera->getHeight();
    for (uint32_t row = 0; row < height; ++row) {
        for (uint32_t col = 0; col < width; ++col)
            nv21[row * stride + col] = static_cast<uint8_t>((row + col) & 0xFF);
    }
    uint8_t* vu = nv21 + stride * height;
    for (uint32_t i = 0; i < stride * height / 2; ++i)
        vu[i] = static_cast<uint8_t>(64 + i % 128);
    camera->unlock();  // converts and uploads into the bound EGL image
}

// Output positions (x, y, z) of a (columns + 2) x (rows + 2) mesh: an even grid over [-s, s]^2,
// turned by `radians`; the border ring lies on the interior's outer vertices, as the engine's
// border leaves no gap. s = 1.1 and a small turn, as a stabilizing warp zooms and rotates.
void warpPositions(std::vector<float>& positions, int meshWidth, int meshHeight, float radians) {
    const float s = 1.1f;
    const float c = std::cos(radians);
    const float n = std::sin(radians);
    for (int j = 0; j < meshHeight; ++j) {
        int jj = j == 0 ? 0 : (j == meshHeight - 1 ? meshHeight - 3 : j - 1);
        for (int i = 0; i < meshWidth; ++i) {
            int ii = i == 0 ? 0 : (i == meshWidth - 1 ? meshWidth - 3 : i - 1);
            float x =
                s * (2.0f * static_cast<float>(ii) / static_cast<float>(meshWidth - 3) - 1.0f);
            float y =
                s * (2.0f * static_cast<float>(jj) / static_cast<float>(meshHeight - 3) - 1.0f);
            float* p = &positions[(static_cast<size_t>(j) * meshWidth + i) * 3];
            p[0] = c * x - n * y;
            p[1] = n * x + c * y;
            p[2] = 0.0f;
        }
    }
}

void WarpDraw(benchmark::State& state) {
    const auto width = static_cast<uint32_t>(state.range(0));
    const auto height = static_cast<uint32_t>(state.range(1));
    const auto columns = static_cast<unsigned short>(state.range(2));
    const auto rows = static_cast<unsigned short>(state.range(3));
    const auto cameraCount = static_cast<size_t>(state.range(4));

    shared_ptr<GLContext> context;
    context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
    if (!context->makeCurrent(nullptr)) {
        context->clearCurrent();
        return state.SkipWithError("no EGL context");
    }
    {
        std::vector<android::sp<android::GraphicBuffer>> cameraBuffers;
        std::vector<std::unique_ptr<GLGraphicBuffer>> cameras;
        for (size_t i = 0; i < cameraCount; ++i) {
            cameraBuffers.emplace_back(
                new android::GraphicBuffer(width, height, kNv21Format, kCameraUsage));
            cameras.emplace_back(
                new GLGraphicBuffer(context, cameraBuffers.back(), GLGraphicBuffer::kUsageTexture));
            paintCamera(cameraBuffers.back());
        }

        GbMapper outputs(context,
                         GLGraphicBuffer::kUsageTexture | GLGraphicBuffer::kUsageRenderbuffer);
        std::vector<android::sp<android::GraphicBuffer>> targets;
        for (int i = 0; i < kOutputBuffers; ++i) {
            targets.emplace_back(new android::GraphicBuffer(
                width, height, HAL_PIXEL_FORMAT_RGBA_8888, kOutputUsage));
            outputs.getGLGB(targets.back());
        }

        cTGLShader vertexShader(PwarpVS::type);
        cTGLShader fragmentShader(PwarpFS::type);
        vertexShader.compile(PwarpVS::source);
        fragmentShader.compile(PwarpFS::source);
        cTGLProgram<PwarpVS, PwarpFS> program;
        program.initialize(vertexShader, fragmentShader);
        if (!program.link()) {
            context->clearCurrent();
            return state.SkipWithError(program.log().c_str());
        }

        cTGridMesh mesh;
        mesh.resize(static_cast<unsigned short>(columns + 2),
                    static_cast<unsigned short>(rows + 2));
        mesh.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
        cTGridMeshIndices indices;
        indices.resize(mesh.width, mesh.height);
        std::vector<float> positions(static_cast<size_t>(mesh.width) * mesh.height * 3);
        const auto indexCount = static_cast<GLsizei>(indices.indices.size());

        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        int64_t frame = 0;
        const double cpuBeginMs = processCpuMs();
        for (auto _ : state) {
            // Per frame, as the engine does: new positions from the warp, then the draw.
            warpPositions(positions, mesh.width, mesh.height,
                          0.01f * static_cast<float>(frame % 7 - 3));
            GLGraphicBuffer* target =
                outputs.getGLGB(targets[static_cast<size_t>(frame % kOutputBuffers)]);
            glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
            target->attachRenderBuffer();
            glClearColor(1.0f, 0.0f, 0.0f, 0.0f);
            glClear(GL_COLOR_BUFFER_BIT);
            glViewport(0, 0, static_cast<GLsizei>(width), static_cast<GLsizei>(height));
            glUseProgram(program.program);
            glEnableVertexAttribArray(0);
            glEnableVertexAttribArray(1);
            glActiveTexture(GL_TEXTURE0);
            GLGraphicBuffer& camera = *cameras[static_cast<size_t>(frame) % cameraCount];
            camera.bindTexture();
            glUniform1i(program.samplerLocation, 0);
            glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, positions.data());
            glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, mesh.vertices.data());
            glDrawElements(GL_TRIANGLE_STRIP, indexCount, GL_UNSIGNED_SHORT,
                           indices.indices.data());
            camera.unbindTexture();
            glDisableVertexAttribArray(0);
            glDisableVertexAttribArray(1);
            glUseProgram(0);
            target->detachRenderBuffer();
            glBindFramebuffer(GL_FRAMEBUFFER, 0);
            glFinish();
            ++frame;
        }
        const double cpuMs = processCpuMs() - cpuBeginMs;
        GLenum error = glGetError();
        glDeleteFramebuffers(1, &framebuffer);
        outputs.clear();
        if (error != GL_NO_ERROR)
            state.SkipWithError("GL error during the draws");
        // The centre of the first output must come from the warp program (alpha forced to 1),
        // not from the clear (alpha 0): a draw that did nothing is not timed as one.
        void* address = nullptr;
        targets[0]->lock(GRALLOC_USAGE_SW_READ_OFTEN, &address);
        const auto* centre =
            static_cast<const uint8_t*>(address) +
            (static_cast<size_t>(height / 2) * targets[0]->getStride() + width / 2) * 4;
        const bool drawn = centre[3] == 255;
        targets[0]->unlock();
        if (!drawn)
            state.SkipWithError("the warp draw left the output unwritten");
        state.counters["draw_fps"] =
            benchmark::Counter(static_cast<double>(frame), benchmark::Counter::kIsRate);
        // CPU time per draw, of all threads (llvmpipe's rasterisers do the work): comparable on
        // a loaded machine, where the wall time is not.
        if (frame > 0)
            state.counters["cpu_ms_per_frame"] = cpuMs / static_cast<double>(frame);
    }
    context->clearCurrent();
}

// The engine's default grid (33 x 19) and the test double's (4 x 3), which the engine pipeline
// benchmark runs with; the latter also over the 16 camera buffers of that benchmark's queue.
BENCHMARK(WarpDraw)
    ->Args({1920, 1080, 33, 19, 1})
    ->Args({1920, 1080, 4, 3, 1})
    ->Args({1920, 1080, 4, 3, 16})
    ->Args({3840, 2160, 33, 19, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
