// GraphicBuffers as EGL images on the host driver: sampling, drawing, CPU coherence, threads,
// and display termination.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>

#include "GlTestSupport.h"
#include "host/Graphics.h"
#include "host/Window.h"

namespace {

using android::GraphicBuffer;
using android::sp;
using std::chrono::seconds;

constexpr uint32_t kWrite = GraphicBuffer::USAGE_SW_WRITE_OFTEN | GraphicBuffer::USAGE_HW_TEXTURE;

// Fills an NV21 buffer: 8 x 8 pixel patches, each with its own (Y, U, V) from `patch`.
template <typename PatchFn>
void fillNv21(const sp<GraphicBuffer>& buffer, PatchFn patch) {
    void* address = nullptr;
    ASSERT_EQ(buffer->lock(kWrite, &address), android::NO_ERROR);
    auto* bytes = static_cast<uint8_t*>(address);
    const uint32_t w = buffer->getWidth(), h = buffer->getHeight(), s = buffer->getStride();
    for (uint32_t row = 0; row < h; ++row) {
        for (uint32_t col = 0; col < w; ++col) {
            int y, u, v;
            patch(col / 8, row / 8, &y, &u, &v);
            bytes[row * s + col] = static_cast<uint8_t>(y);
            if (row % 2 == 0 && col % 2 == 0) {
                uint8_t* vu = bytes + s * h + (row / 2) * s + col;
                vu[0] = static_cast<uint8_t>(v);
                vu[1] = static_cast<uint8_t>(u);
            }
        }
    }
    ASSERT_EQ(buffer->unlock(), android::NO_ERROR);
}

void patchColours(uint32_t px, uint32_t py, int* y, int* u, int* v) {
    *y = 20 + static_cast<int>(px) * 27;  // 20 .. 236
    *u = 16 + static_cast<int>((px + 3 * py) * 37 % 225);
    *v = 240 - static_cast<int>((2 * px + py) * 29 % 225);
}

// Images made while it lives hold copies of their buffers' content (uploaded on unlock, read
// back for the CPU) instead of sharing the buffers' bytes with the driver.
class ScopedCopiedStorage {
  public:
    explicit ScopedCopiedStorage(bool copied = true) : copied_(copied) {
        if (copied_)
            host::setImageMemorySharing(false);
    }
    ~ScopedCopiedStorage() {
        if (copied_)
            host::setImageMemorySharing(true);
    }
    ScopedCopiedStorage(const ScopedCopiedStorage&) = delete;
    ScopedCopiedStorage& operator=(const ScopedCopiedStorage&) = delete;

  private:
    const bool copied_;
};

class EglImage : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(gl_.ok()) << "no EGL context on the default display";
        ASSERT_TRUE(gl_.makeCurrent());
    }
    void TearDown() override { gl_.releaseCurrent(); }

    gltest::Context gl_;
};

// Both ways of keeping an image's content: the buffer's own bytes (false) or copies (true).
class EglImageStorage : public EglImage, public ::testing::WithParamInterface<bool> {
  protected:
    ScopedCopiedStorage storage_{GetParam()};
};

std::string storageName(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Copied" : "Shared";
}

TEST_P(EglImageStorage, Nv21SamplesAsBt601LimitedRangeRgbAndLaterWritesAreSampled) {
    sp<GraphicBuffer> camera(new GraphicBuffer(64, 32, HAL_PIXEL_FORMAT_YCrCb_420_SP, kWrite));
    ASSERT_EQ(camera->initCheck(), android::NO_ERROR);
    fillNv21(camera, patchColours);
    EGLImageKHR image = gltest::importBuffer(gl_.display(), camera);
    ASSERT_NE(image, EGL_NO_IMAGE_KHR);
    EXPECT_EQ(eglGetError(), EGL_SUCCESS);

    std::vector<uint8_t> rgba = gltest::sampleExternal(image, 64, 32);
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    for (uint32_t row = 0; row < 32; ++row) {
        for (uint32_t col = 0; col < 64; ++col) {
            int y, u, v;
            patchColours(col / 8, row / 8, &y, &u, &v);
            double ref[3];
            gltest::referenceRgb(y, u, v, ref);
            const uint8_t* p = &rgba[(row * 64 + col) * 4];
            for (int c = 0; c < 3; ++c) {
                ASSERT_NEAR(p[c], ref[c], 3.0) << "pixel " << col << "," << row << " ch " << c;
            }
        }
    }
    // Written after the image exists, neutral chroma: the next sampling sees it, grey.
    fillNv21(camera, [](uint32_t px, uint32_t, int* y, int* u, int* v) {
        *y = px < 2 ? 16 : 235;
        *u = *v = 128;
    });
    rgba = gltest::sampleExternal(image, 64, 32);
    for (uint32_t i = 0; i < 64 * 32; ++i) {
        const uint8_t* p = &rgba[i * 4];
        EXPECT_EQ(p[0], p[1]);
        EXPECT_EQ(p[1], p[2]);
        EXPECT_NEAR(p[0], (i % 64) < 16 ? 0 : 255, 1);
    }
    EXPECT_EQ(eglDestroyImageKHR(gl_.display(), image), EGL_TRUE);
    EXPECT_EQ(eglGetError(), EGL_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(Ways, EglImageStorage, ::testing::Bool(), storageName);

struct RgbCase {
    int format;
    uint32_t width;
    bool copied;  // images hold copies instead of the buffer's bytes
};

class EglRenderTarget : public EglImage, public ::testing::WithParamInterface<RgbCase> {
  protected:
    ScopedCopiedStorage storage_{GetParam().copied};
};

// Drawn by GL, read by the next CPU lock, with the image alive or already destroyed.
TEST_P(EglRenderTarget, GlDrawingIsSeenByTheNextCpuLockAndOutlivesTheImage) {
    const RgbCase c = GetParam();
    for (bool destroyFirst : {false, true}) {
        sp<GraphicBuffer> output(
            new GraphicBuffer(c.width, 24, c.format, GraphicBuffer::USAGE_SW_WRITE_OFTEN));
        ASSERT_EQ(output->initCheck(), android::NO_ERROR);
        EGLImageKHR image = gltest::importBuffer(gl_.display(), output);
        ASSERT_NE(image, EGL_NO_IMAGE_KHR);
        const float base[4] = {0.0f, 0.0f, 1.0f, 1.0f};
        const float patch[4] = {1.0f, 0.0f, 0.0f, 1.0f};
        // GL rows 0..11 of columns 0..9 red, the rest blue.
        ASSERT_EQ(gltest::renderInto(image, base, 0, 0, 10, 12, patch),
                  static_cast<GLenum>(GL_NO_ERROR));
        if (destroyFirst) {
            ASSERT_EQ(eglDestroyImageKHR(gl_.display(), image), EGL_TRUE);
        }
        void* address = nullptr;
        ASSERT_EQ(output->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address), android::NO_ERROR);
        const auto* bytes = static_cast<const uint8_t*>(address);
        const bool bgra = c.format == HAL_PIXEL_FORMAT_BGRA_8888;
        for (uint32_t row = 0; row < 24; ++row) {
            for (uint32_t col = 0; col < c.width; ++col) {
                const uint8_t* p = bytes + (row * output->getStride() + col) * 4;
                const bool red = row < 12 && col < 10;
                ASSERT_EQ(p[bgra ? 2 : 0], red ? 255 : 0) << col << "," << row << destroyFirst;
                ASSERT_EQ(p[bgra ? 0 : 2], red ? 0 : 255) << col << "," << row << destroyFirst;
            }
        }
        EXPECT_EQ(output->unlock(), android::NO_ERROR);
        if (!destroyFirst)
            eglDestroyImageKHR(gl_.display(), image);
    }
}

// RGBA shares its bytes (50: rows padded to 64 pixels); BGRA is always copied.
INSTANTIATE_TEST_SUITE_P(Formats, EglRenderTarget,
                         ::testing::Values(RgbCase{HAL_PIXEL_FORMAT_RGBA_8888, 48, false},
                                           RgbCase{HAL_PIXEL_FORMAT_RGBA_8888, 50, false},
                                           RgbCase{HAL_PIXEL_FORMAT_RGBA_8888, 50, true},
                                           RgbCase{HAL_PIXEL_FORMAT_BGRA_8888, 32, false}));

// The engine's pause path: the output image goes while the window's consumer still reads the
// last queued frame. The memory was read back at queueing; reading back again would write it
// under the consumer (a race ThreadSanitizer reports). Once dequeued again the buffer may be
// drawn into, so its image's destruction must read back once more.
TEST(EglImageWindow, QueuedBufferIsNotReadBackAgainUnderItsConsumer) {
    ScopedCopiedStorage copied;  // shared storage has no read-back at all
    struct HoldingSink : host::FrameSink {
        std::promise<void> entered;
        std::promise<void> release;
        std::vector<uint8_t> seen;
        void onFrame(const host::Frame& frame) override {
            entered.set_value();
            // Read while the producer destroys the image: no ordering with it on purpose.
            seen.assign(frame.pixels, frame.pixels + frame.sizeBytes);
            release.get_future().wait_for(seconds(20));
        }
    };
    auto sink = std::make_shared<HoldingSink>();
    std::future<void> entered = sink->entered.get_future();
    host::WindowConfig config;
    config.defaultWidth = 40;  // stride 48: the read-back converts on the calling thread
    config.defaultHeight = 8;
    sp<ANativeWindow> window = host::createWindow(sink, config);
    ASSERT_NE(window, nullptr);
    ASSERT_EQ(native_window_api_connect(window.get(), NATIVE_WINDOW_API_EGL), 0);
    gltest::Context gl;
    ASSERT_TRUE(gl.ok() && gl.makeCurrent());

    ANativeWindowBuffer* nativeBuffer = nullptr;
    ASSERT_EQ(window->dequeueBuffer_DEPRECATED(window.get(), &nativeBuffer), 0);
    sp<GraphicBuffer> output = GraphicBuffer::from(nativeBuffer);
    EGLImageKHR image = gltest::importBuffer(gl.display(), output);
    ASSERT_NE(image, EGL_NO_IMAGE_KHR);
    const float red[4] = {1, 0, 0, 1};
    ASSERT_EQ(gltest::renderInto(image, red, 0, 0, 0, 0, red), static_cast<GLenum>(GL_NO_ERROR));
    ASSERT_EQ(window->queueBuffer_DEPRECATED(window.get(), nativeBuffer), 0);
    const bool delivering = entered.wait_for(seconds(20)) == std::future_status::ready;
    const uint64_t readBacks = host::graphicsCounters().readBacks;
    EXPECT_EQ(eglDestroyImageKHR(gl.display(), image), EGL_TRUE);
    EXPECT_EQ(host::graphicsCounters().readBacks, readBacks);
    sink->release.set_value();
    ASSERT_TRUE(delivering) << "the consumer never took the frame";
    ASSERT_TRUE(host::waitForIdle(window.get(), seconds(20)));
    EXPECT_EQ(sink->seen[0], 255);
    EXPECT_EQ(sink->seen[2], 0);

    // The next frame: dequeued (round robin brings the same buffer back with one slot),
    // drawn, and its image destroyed before queueing; the drawing must reach the memory.
    ASSERT_EQ(native_window_set_buffer_count(window.get(), 1), 0);
    ASSERT_EQ(window->dequeueBuffer_DEPRECATED(window.get(), &nativeBuffer), 0);
    ASSERT_EQ(GraphicBuffer::from(nativeBuffer), output);
    image = gltest::importBuffer(gl.display(), output);
    const float blue[4] = {0, 0, 1, 1};
    ASSERT_EQ(gltest::renderInto(image, blue, 0, 0, 0, 0, blue), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(eglDestroyImageKHR(gl.display(), image), EGL_TRUE);
    void* address = nullptr;
    ASSERT_EQ(output->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address), android::NO_ERROR);
    EXPECT_EQ(static_cast<uint8_t*>(address)[2], 255);
    EXPECT_EQ(output->unlock(), android::NO_ERROR);
    EXPECT_EQ(window->cancelBuffer_DEPRECATED(window.get(), nativeBuffer), 0);
    gl.releaseCurrent();
}

}  // namespace
