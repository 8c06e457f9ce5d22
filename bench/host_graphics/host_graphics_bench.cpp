// Per-frame costs of the host graphics paths at 1920 x 1080:
//   Nv21ToRgba        CPU conversion alone (BT.601 limited range);
//   Nv21UnlockUpload  a camera frame's lock/unlock with an EGL image present: conversion,
//                     upload to the image and glFinish (the camera thread's cost per frame);
//   RgbaLockReadBack  CPU lock of an output buffer that GL drew into (read-back);
//   WindowCycle       dequeue, GL clear into the buffer, glFinish, queue (read-back) to a window
//                     whose sink drops frames.
// The last three take one argument: 0 for images on the buffers' own bytes (the host driver's
// default: no upload or read-back, the unlock only converts), 1 for images holding copies.
#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <benchmark/benchmark.h>
#include <system/window.h>
#include <ui/GraphicBuffer.h>

#include <vector>

#include "GlTestSupport.h"
#include "host/Graphics.h"
#include "host/PixelConversion.h"
#include "host/Window.h"

namespace {

using android::GraphicBuffer;
using android::sp;

constexpr uint32_t kWidth = 1920;
constexpr uint32_t kHeight = 1080;

// Draws one clear colour into `image` through a renderbuffer and finishes.
void clearInto(EGLImageKHR image, float red) {
    GLuint renderbuffer = 0, framebuffer = 0;
    glGenRenderbuffers(1, &renderbuffer);
    glBindRenderbuffer(GL_RENDERBUFFER, renderbuffer);
    glEGLImageTargetRenderbufferStorageOES(GL_RENDERBUFFER, image);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, renderbuffer);
    glClearColor(red, 0.5f, 0.25f, 1.0f);
    glClear(GL_COLOR_BUFFER_BIT);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteRenderbuffers(1, &renderbuffer);
    glFinish();
}

void fillCameraPattern(uint8_t* nv21, uint32_t stride) {
    for (uint32_t row = 0; row < kHeight; ++row) {
        for (uint32_t col = 0; col < kWidth; ++col)
            nv21[row * stride + col] = (row + col) & 0xFF;
    }
    uint8_t* vu = nv21 + stride * kHeight;
    for (uint32_t i = 0; i < stride * kHeight / 2; ++i)
        vu[i] = static_cast<uint8_t>(64 + i % 128);
}

void Nv21ToRgba(benchmark::State& state) {
    std::vector<uint8_t> nv21(kWidth * kHeight * 3 / 2);
    fillCameraPattern(nv21.data(), kWidth);
    std::vector<uint8_t> rgba(kWidth * kHeight * 4);
    for (auto _ : state) {
        host::nv21ToRgba(nv21.data(), kWidth, nv21.data() + kWidth * kHeight, kWidth, kWidth,
                         kHeight, rgba.data());
        benchmark::DoNotOptimize(rgba.data());
    }
}
BENCHMARK(Nv21ToRgba)->Unit(benchmark::kMillisecond);

// Images made while it lives hold copies of their buffers when the argument is 1.
class StorageWay {
  public:
    explicit StorageWay(const benchmark::State& state) {
        host::setImageMemorySharing(state.range(0) == 0);
    }
    ~StorageWay() { host::setImageMemorySharing(true); }
    StorageWay(const StorageWay&) = delete;
    StorageWay& operator=(const StorageWay&) = delete;
};

void Nv21UnlockUpload(benchmark::State& state) {
    StorageWay way(state);
    gltest::Context gl;
    if (!gl.ok() || !gl.makeCurrent())
        return state.SkipWithError("no EGL context");
    sp<GraphicBuffer> camera(
        new GraphicBuffer(kWidth, kHeight, HAL_PIXEL_FORMAT_YCrCb_420_SP, 0x130));
    EGLImageKHR image = gltest::importBuffer(gl.display(), camera);
    void* address = nullptr;
    camera->lock(0x130, &address);
    fillCameraPattern(static_cast<uint8_t*>(address), camera->getStride());
    camera->unlock();
    for (auto _ : state) {
        camera->lock(0x130, &address);
        static_cast<uint8_t*>(address)[0] ^= 1;  // a write, as the camera copy does
        camera->unlock();
    }
    eglDestroyImageKHR(gl.display(), image);
}
BENCHMARK(Nv21UnlockUpload)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void RgbaLockReadBack(benchmark::State& state) {
    StorageWay way(state);
    gltest::Context gl;
    if (!gl.ok() || !gl.makeCurrent())
        return state.SkipWithError("no EGL context");
    sp<GraphicBuffer> output(new GraphicBuffer(kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888, 0x30));
    EGLImageKHR image = gltest::importBuffer(gl.display(), output);
    clearInto(image, 1.0f);
    void* address = nullptr;
    for (auto _ : state) {
        output->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address);
        benchmark::DoNotOptimize(address);
        output->unlock();
    }
    eglDestroyImageKHR(gl.display(), image);
}
BENCHMARK(RgbaLockReadBack)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

class DropSink : public host::FrameSink {
  public:
    void onFrame(const host::Frame&) override {}
};

void WindowCycle(benchmark::State& state) {
    StorageWay way(state);
    gltest::Context gl;
    if (!gl.ok() || !gl.makeCurrent())
        return state.SkipWithError("no EGL context");
    host::WindowConfig config;
    config.defaultWidth = kWidth;
    config.defaultHeight = kHeight;
    sp<ANativeWindow> window = host::createWindow(std::make_shared<DropSink>(), config);
    native_window_api_connect(window.get(), NATIVE_WINDOW_API_CPU);
    std::vector<std::pair<ANativeWindowBuffer*, EGLImageKHR>> images;
    int64_t timestamp = 0;
    for (auto _ : state) {
        ANativeWindowBuffer* buffer = nullptr;
        window->dequeueBuffer_DEPRECATED(window.get(), &buffer);
        EGLImageKHR image = EGL_NO_IMAGE_KHR;
        for (auto& entry : images) {
            if (entry.first == buffer)
                image = entry.second;
        }
        if (image == EGL_NO_IMAGE_KHR) {
            image = gltest::importBuffer(gl.display(), GraphicBuffer::from(buffer));
            images.emplace_back(buffer, image);
        }
        clearInto(image, static_cast<float>(timestamp % 2));
        native_window_set_buffers_timestamp(window.get(), timestamp += 33333333);
        window->queueBuffer(window.get(), buffer, -1);
    }
    host::waitForIdle(window.get(), std::chrono::seconds(10));
    for (auto& entry : images)
        eglDestroyImageKHR(gl.display(), entry.second);
}
BENCHMARK(WindowCycle)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
