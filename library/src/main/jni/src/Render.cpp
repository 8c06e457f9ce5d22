// Warped rendering: one queued camera frame is drawn through the warp mesh into every output
// window and queued with the frame's own timestamp. Runs on the processing thread; the frame's
// queue slot stays locked by the caller for the whole call.
#include <system/window.h>
#include <ui/GraphicBuffer.h>

#include "Context.h"

#include <GLES2/gl2ext.h>
#include "FrameIndex.h"
#include "Log.h"
#include "cTTiming.h"

namespace {

// GRALLOC_USAGE_SW_WRITE_OFTEN: CPU access for the frame-number marks.
constexpr uint32_t kMarkLockUsage = 0x30;

// Red level of RenderEmpty, advanced by 0.01 per output buffer and wrapped past 1.0.
float emptyRedLevel = 0.0f;

}  // namespace

// After a GL call in a render path: on an error, log it with the function text and line,
// release the context and leave the function. The dequeued buffer is dropped unqueued, the
// remaining windows are skipped and the registry lock stays taken.
#define RENDER_GL_CHECK(function)                                                  \
    do {                                                                           \
        GLenum glError = glGetError();                                             \
        if (glError != GL_NO_ERROR) {                                              \
            QLOGE(" %s %d (%d)\n", function, __LINE__, static_cast<int>(glError)); \
            glContext->clearCurrent();                                             \
            return;                                                                \
        }                                                                          \
    } while (0)

static const char kRenderName[] =
    "void Context::Render(const Context::VStabFrame *, const VStabOutput &, int64_t)";
static const char kRenderEmptyName[] = "void Context::RenderEmpty()";

void Context::vertBorder(std::vector<float>& positions, float* grid) {
    const int W = mesh.width;
    const int H = mesh.height;
    std::fill(positions.begin(), positions.end(), 0.0f);
    auto at = [&](int i, int j) { return &positions[(static_cast<size_t>(j) * W + i) * 3]; };

    if (H >= 3) {
        for (int j = 1; j <= H - 2; ++j) {
            float y = 2.0f * static_cast<float>(j - 1) / static_cast<float>(H - 3) - 1.0f;
            at(0, j)[0] = -1.0f;
            at(0, j)[1] = y;
            at(W - 1, j)[0] = 1.0f;
            at(W - 1, j)[1] = y;
        }
    }
    if (W >= 3) {
        for (int i = 1; i <= W - 2; ++i) {
            float x = 2.0f * static_cast<float>(i - 1) / static_cast<float>(W - 3) - 1.0f;
            at(i, 0)[0] = x;
            at(i, 0)[1] = -1.0f;
            at(i, H - 1)[0] = x;
            at(i, H - 1)[1] = 1.0f;
        }
    }
    at(0, 0)[0] = -1.0f;
    at(0, 0)[1] = -1.0f;
    at(W - 1, 0)[0] = 1.0f;
    at(W - 1, 0)[1] = -1.0f;
    at(0, H - 1)[0] = -1.0f;
    at(0, H - 1)[1] = 1.0f;
    at(W - 1, H - 1)[0] = 1.0f;
    at(W - 1, H - 1)[1] = 1.0f;

    if (W >= 3 && H >= 3) {
        const int columns = W - 2;
        for (int j = 1; j <= H - 2; ++j) {
            for (int i = 1; i <= W - 2; ++i) {
                const float* g = &grid[(static_cast<size_t>(j - 1) * columns + (i - 1)) * 3];
                at(i, j)[0] = g[0];
                at(i, j)[1] = g[1];
            }
        }
    }
}

void Context::Render(const VStabFrame* frame, const VStabOutput& output, long long timestamp) {
    cTTiming timing("Render()");
    std::vector<float> positions(static_cast<size_t>(mesh.width) * mesh.height * 3, 0.0f);
    vertBorder(positions, output.warpVertices);

    jsm.lock();
    timing("dequeueBuffer_0");

    const bool paintMarks = vstabConfig != nullptr && vstabConfig->debugFrameIndex != 0;
    if (paintMarks) {
        void* vaddr = nullptr;
        frame->buffer->buffer->lock(kMarkLockUsage, &vaddr);
        frame->buffer->buffer->unlock();
    }

    const GLsizei indexCount = static_cast<GLsizei>(meshIndices.indices.size() % 65536u);
    for (auto& entry : jsm.windows) {
        JavaSurfaceManager::Window& window = entry.second;
        android::sp<android::GraphicBuffer> buffer = window.dequeue();
        timing("dequeueBuffer");

        glContext->makeCurrent(nullptr);
        GLGraphicBuffer* target = gbMapper->getGLGB(buffer);

        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        RENDER_GL_CHECK(kRenderName);
        target->attachRenderBuffer();
        glClearColor(1.0f, 0.0f, 0.0f, 0.0f);
        RENDER_GL_CHECK(kRenderName);
        glClear(GL_COLOR_BUFFER_BIT);
        RENDER_GL_CHECK(kRenderName);
        glViewport(0, 0, static_cast<GLsizei>(buffer->getWidth()),
                   static_cast<GLsizei>(buffer->getHeight()));
        RENDER_GL_CHECK(kRenderName);
        glUseProgram(program->program);
        RENDER_GL_CHECK(kRenderName);
        glEnableVertexAttribArray(0);
        RENDER_GL_CHECK(kRenderName);
        glEnableVertexAttribArray(1);
        RENDER_GL_CHECK(kRenderName);
        glActiveTexture(GL_TEXTURE0);
        RENDER_GL_CHECK(kRenderName);
        frame->buffer->bindTexture();
        glUniform1i(program->samplerLocation, 0);
        RENDER_GL_CHECK(kRenderName);
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, positions.data());
        RENDER_GL_CHECK(kRenderName);
        glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, mesh.vertices.data());
        RENDER_GL_CHECK(kRenderName);
        glDrawElements(GL_TRIANGLE_STRIP, indexCount, GL_UNSIGNED_SHORT,
                       meshIndices.indices.data());
        RENDER_GL_CHECK(kRenderName);
        glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
        RENDER_GL_CHECK(kRenderName);
        glDisableVertexAttribArray(0);
        RENDER_GL_CHECK(kRenderName);
        glDisableVertexAttribArray(1);
        RENDER_GL_CHECK(kRenderName);
        glUseProgram(0);
        RENDER_GL_CHECK(kRenderName);
        target->detachRenderBuffer();
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        RENDER_GL_CHECK(kRenderName);
        glFlush();
        RENDER_GL_CHECK(kRenderName);
        glFinish();
        RENDER_GL_CHECK(kRenderName);
        // On the default (pbuffer) surface, deliberately after the finish.
        glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
        RENDER_GL_CHECK(kRenderName);
        timing("Render");

        glContext->clearCurrent();

        if (eis_debug) {
            QLOGW("[JJJ] Out Width Height: %d x %d", buffer->getWidth(), buffer->getHeight());
        }
        if (paintMarks) {
            void* vaddr = nullptr;
            buffer->lock(kMarkLockUsage, &vaddr);
            paintFrameIndexRGBA(static_cast<unsigned char*>(vaddr), buffer->getWidth(),
                                buffer->getHeight(), buffer->getStride(),
                                static_cast<unsigned int>(outputFrameCount));
            buffer->unlock();
        }
        outputFrameCount += 1;
        window.queue(buffer, timestamp);
        timing("QueueBuffer");
    }

    jsm.unlock();
}

void Context::RenderEmpty() {
    jsm.lock();
    if (jsm.windows.empty()) {
        jsm.unlock();
        return;
    }
    for (auto& entry : jsm.windows) {
        JavaSurfaceManager::Window& window = entry.second;
        android::sp<android::GraphicBuffer> buffer = window.dequeue();
        glContext->makeCurrent(nullptr);
        GLGraphicBuffer* target = gbMapper->getGLGB(buffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        RENDER_GL_CHECK(kRenderEmptyName);
        target->attachRenderBuffer();
        double red = static_cast<double>(emptyRedLevel) + 0.01;
        emptyRedLevel = static_cast<float>(red);
        if (emptyRedLevel > 1.0f)
            emptyRedLevel = 0.0f;
        glClearColor(emptyRedLevel, 0.0f, 0.0f, 0.0f);
        RENDER_GL_CHECK(kRenderEmptyName);
        glClear(GL_COLOR_BUFFER_BIT);
        RENDER_GL_CHECK(kRenderEmptyName);
        target->detachRenderBuffer();
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        RENDER_GL_CHECK(kRenderEmptyName);
        glFlush();
        RENDER_GL_CHECK(kRenderEmptyName);
        glFinish();
        RENDER_GL_CHECK(kRenderEmptyName);
        glContext->clearCurrent();
        window.queue(buffer, NATIVE_WINDOW_TIMESTAMP_AUTO);
    }
    jsm.unlock();
}
