#include "GLGraphicBuffer.h"

#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

#include <regex>
#include <string>

#include "GLTestSupport.h"
#include "GbMapper.h"
#include "host/Graphics.h"

namespace {

using android::GraphicBuffer;
using android::sp;

constexpr uint32_t kUsage = GraphicBuffer::USAGE_SW_WRITE_OFTEN | GraphicBuffer::USAGE_HW_TEXTURE |
                            GraphicBuffer::USAGE_HW_RENDER;

using gltest::thrown;

class GLGraphicBufferTest : public gltest::CurrentContextTest {
  protected:
    static sp<GraphicBuffer> buffer(int format) {
        return sp<GraphicBuffer>(new GraphicBuffer(32, 16, format, kUsage));
    }
};

TEST_F(GLGraphicBufferTest, UsageSelectsTextureAndRenderbufferFailuresStopBindingMapperBindsOnce) {
    GLGraphicBuffer both(context, buffer(HAL_PIXEL_FORMAT_RGBA_8888), 3);
    EXPECT_NE(both.image, EGL_NO_IMAGE_KHR);
    EXPECT_TRUE(glIsRenderbuffer(both.renderbuffer));
    EXPECT_TRUE(glIsTexture(both.texture));
    GLGraphicBuffer texture(context, buffer(HAL_PIXEL_FORMAT_YCrCb_420_SP), 1);
    EXPECT_NE(texture.texture, 0u);
    EXPECT_EQ(texture.renderbuffer, 0u);
    EXPECT_EQ(context->count, 1);  // the binding's own levels are all given back

    // The binding keeps its buffer alive after every other holder dropped it.
    android::wp<GraphicBuffer> weak;
    {
        sp<GraphicBuffer> b = buffer(HAL_PIXEL_FORMAT_RGBA_8888);
        weak = b;
        auto* binding = new GLGraphicBuffer(context, b, 2);
        b.clear();
        EXPECT_NE(weak.promote(), nullptr);
        const uint32_t images = host::graphicsCounters().imagesLive;
        delete binding;
        EXPECT_EQ(host::graphicsCounters().imagesLive, images - 1);
    }
    EXPECT_EQ(weak.promote(), nullptr);

    // Failures stop the binding at the failing step.
    EXPECT_EQ(thrown([&] { GLGraphicBuffer(context, nullptr, 3); }),
              "GLGraphicBuffer created with invalid GraphicBuffer");

    // No image from an unallocated buffer: nothing else is made, the constructor returns.
    GLGraphicBuffer empty(context, sp<GraphicBuffer>(new GraphicBuffer()), 3);
    EXPECT_EQ(empty.image, EGL_NO_IMAGE_KHR);
    EXPECT_EQ(empty.renderbuffer, 0u);
    EXPECT_EQ(empty.texture, 0u);
    // A GL failure after the image (an error left pending) stops the binding: no texture.
    glEnable(0x7FFF);
    GLGraphicBuffer partial(context, buffer(HAL_PIXEL_FORMAT_RGBA_8888), 3);
    EXPECT_NE(partial.image, EGL_NO_IMAGE_KHR);
    EXPECT_NE(partial.renderbuffer, 0u);
    EXPECT_EQ(partial.texture, 0u);
    EXPECT_EQ(context->count, 1);

    // The mapper binds each buffer once, until clear().
    GbMapper mapper(context, 3);
    sp<GraphicBuffer> a = buffer(HAL_PIXEL_FORMAT_RGBA_8888),
                      b = buffer(HAL_PIXEL_FORMAT_RGBA_8888);
    const uint32_t images = host::graphicsCounters().imagesLive;
    GLGraphicBuffer* first = mapper.getGLGB(a);
    EXPECT_EQ(mapper.getGLGB(a), first);
    EXPECT_NE(mapper.getGLGB(b), first);
    EXPECT_EQ(first->usage, 3);
    EXPECT_EQ(host::graphicsCounters().imagesLive, images + 2);
    mapper.clear();
    EXPECT_EQ(host::graphicsCounters().imagesLive, images);
    EXPECT_TRUE(mapper.map.empty());
    mapper.getGLGB(a);
    EXPECT_EQ(host::graphicsCounters().imagesLive, images + 1);  // bound anew after clear()
}

TEST_F(GLGraphicBufferTest, BindCallsThrowTheCheckMessage) {
    GLGraphicBuffer out(context, buffer(HAL_PIXEL_FORMAT_RGBA_8888), 3);
    // No framebuffer bound: the default one takes no attachments.
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    EXPECT_EQ(thrown([&] { out.attachRenderBuffer(); }),
              "void GLGraphicBuffer::attachRenderBuffer():114 (1282)");
    EXPECT_EQ(thrown([&] { out.detachRenderBuffer(); }),
              "void GLGraphicBuffer::detachRenderBuffer():123 (1282)");

    GLuint fb = 0;
    glGenFramebuffers(1, &fb);
    glBindFramebuffer(GL_FRAMEBUFFER, fb);
    out.attachRenderBuffer();
    EXPECT_EQ(glCheckFramebufferStatus(GL_FRAMEBUFFER),
              static_cast<GLenum>(GL_FRAMEBUFFER_COMPLETE));
    out.detachRenderBuffer();  // the queued buffer leaves the framebuffer
    GLint attached = -1;
    glGetFramebufferAttachmentParameteriv(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0,
                                          GL_FRAMEBUFFER_ATTACHMENT_OBJECT_NAME, &attached);
    EXPECT_EQ(attached, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &fb);

    // A 2D texture name cannot be bound as external.
    GLuint plain = 0;
    glGenTextures(1, &plain);
    glBindTexture(GL_TEXTURE_2D, plain);
    glBindTexture(GL_TEXTURE_2D, 0);
    const GLuint own = out.texture;
    out.texture = plain;
    EXPECT_EQ(thrown([&] { out.bindTexture(); }), "void GLGraphicBuffer::bindTexture():129 (1282)");
    out.texture = own;
    glDeleteTextures(1, &plain);
    out.bindTexture();
    out.unbindTexture();

    // Freeing an image that is not one: the EGL check throws, the level is given back.
    const EGLImageKHR image = out.image;
    out.image = reinterpret_cast<EGLImageKHR>(out.image == nullptr ? 1 : 0x10);
    const std::string freed = thrown([&] { out.deallocateGLResources(); });
    EXPECT_TRUE(std::regex_match(
        freed, std::regex(R"(void GLGraphicBuffer::deallocateGLResources\(\):104 \(\d+\))")))
        << freed;
    EXPECT_EQ(context->count, 1);
    out.image = image;
}

}  // namespace
