#include "GLTexture.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

#include "GLTestSupport.h"

namespace {

class GLTextureTest : public gltest::CurrentContextTest {
  protected:
    // A thread other than the owner: any operation that makes the context current throws there.
    static std::string fromOtherThread(const std::function<void()>& work) {
        return gltest::onOtherThread([&]() -> std::string {
            std::string message = gltest::thrown(work);
            return message.empty() ? "no GL" : message;
        });
    }
    GLint parameter(GLTexture& t, GLenum name) {
        GLint value = 0;
        glBindTexture(t.target, t.name);
        glGetTexParameteriv(t.target, name, &value);
        glBindTexture(t.target, 0);
        return value;
    }
};

std::vector<uint8_t> pattern(int w, int h) {
    std::vector<uint8_t> p(static_cast<size_t>(w) * h * 4);
    for (size_t i = 0; i < p.size(); ++i)
        p[i] = static_cast<uint8_t>(i * 7 + i / 13);
    return p;
}

TEST_F(GLTextureTest, UploadAndDownloadRoundTripFailuresThrowTheCheckMessage) {
    GLTexture t(context, GL_TEXTURE_2D, 37, 23, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST,
                GL_CLAMP_TO_EDGE);
    ASSERT_NE(t.name, 0u);
    std::vector<uint8_t> in = pattern(37, 23), out(in.size(), 0);
    glPixelStorei(GL_UNPACK_ALIGNMENT, 2);
    t.upload(in.data(), 0);
    GLint alignment = 0;
    glGetIntegerv(GL_UNPACK_ALIGNMENT, &alignment);
    EXPECT_EQ(alignment, 2);  // alignment 0 leaves the unpack state alone
    // Framebuffer names in use (a download's own is deleted again): the same before and after.
    auto framebuffers = [] {
        int n = 0;
        for (GLuint name = 1; name < 256; ++name)
            n += glIsFramebuffer(name);
        return n;
    };
    const int before = framebuffers();
    EXPECT_TRUE(t.download(out.data()));
    EXPECT_TRUE(t.download(out.data()));
    EXPECT_EQ(framebuffers(), before);
    EXPECT_EQ(in, out);
    EXPECT_EQ(context->count, 1);  // every operation gave its level back

    // A non-zero alignment is reset to 0 afterwards, which the driver rejects: GL_INVALID_VALUE.
    std::vector<uint8_t> second = pattern(37, 23);
    second[0] ^= 0xFF;
    const std::string upload = gltest::thrown([&] { t.upload(second.data(), 4); });
    EXPECT_TRUE(std::regex_match(
        upload, std::regex(R"(void GLTexture::upload\(const void \*, int\):\d+ \(1281\))")))
        << upload;
    EXPECT_EQ(context->count, 1);
    t.download(out.data());
    EXPECT_EQ(second, out);

    // Failures throw the check message.
    shared_ptr<GLContext> none;
    EXPECT_EQ(gltest::thrown([&] { GLTexture(none, GL_TEXTURE_2D, GL_LINEAR, GL_CLAMP_TO_EDGE); }),
              "shared_ptr data is null");

    GLTexture small(context, GL_TEXTURE_2D, 4, 4, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_LINEAR,
                    GL_CLAMP_TO_EDGE);
    // Internal format and format disagree: glTexImage2D fails; the new values stay stored.
    const std::string update = gltest::thrown([&] {
        small.update(4, 4, GL_RGBA, GL_RGB, GL_UNSIGNED_BYTE, GL_LINEAR, GL_CLAMP_TO_EDGE);
    });
    EXPECT_TRUE(std::regex_match(
        update, std::regex(R"(void GLTexture::update\(int, int, GLint, GLenum, GLenum, )"
                           R"(GLint, GLint\):\d+ \(1282\))")))
        << update;
    EXPECT_EQ(small.format, static_cast<GLenum>(GL_RGB));
    EXPECT_EQ(context->count, 1);

    // Luminance is not colour-renderable: the read-back framebuffer is incomplete.
    GLTexture lum(context, GL_TEXTURE_2D, 4, 4, GL_LUMINANCE, GL_LUMINANCE, GL_UNSIGNED_BYTE,
                  GL_LINEAR, GL_CLAMP_TO_EDGE);
    EXPECT_EQ(gltest::thrown([&] { lum.download(out.data()); }),
              "GLTexture::downloadBase(...) Could not bind texture to framebuffer");
    EXPECT_EQ(context->count, 1);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
}

TEST_F(GLTextureTest, UnchangedParametersCostNoGLWork) {
    GLTexture t(context, GL_TEXTURE_2D, 8, 8, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_LINEAR,
                GL_CLAMP_TO_EDGE);
    // Unchanged values do not take the context (so pass on a non-owning thread), changed ones do.
    EXPECT_EQ(fromOtherThread([&] { t.setFilter(GL_LINEAR, GL_CLAMP_TO_EDGE); }), "no GL");
    EXPECT_EQ(fromOtherThread([&] {
                  t.update(8, 8, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_LINEAR, GL_CLAMP_TO_EDGE);
              }),
              "no GL");
    EXPECT_EQ(fromOtherThread([&] { t.setFilter(GL_NEAREST, GL_CLAMP_TO_EDGE); }),
              "GL Context current to another thread ... Logical Error");

    // A new filter alone changes the parameters and keeps the storage and its content.
    std::vector<uint8_t> in = pattern(8, 8), out(in.size());
    t.upload(in.data(), 0);
    t.update(8, 8, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST, GL_REPEAT);
    EXPECT_EQ(parameter(t, GL_TEXTURE_MIN_FILTER), GL_NEAREST);
    EXPECT_EQ(parameter(t, GL_TEXTURE_MAG_FILTER), GL_NEAREST);
    EXPECT_EQ(parameter(t, GL_TEXTURE_WRAP_T), GL_REPEAT);
    t.download(out.data());
    EXPECT_EQ(in, out);

    // A new width, or a new height alone, reallocates level 0 at the new size.
    for (const int h : {8, 12}) {
        t.update(16, h, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST, GL_REPEAT);
        std::vector<uint8_t> sized = pattern(16, h), back(sized.size());
        t.upload(sized.data(), 0);
        t.download(back.data());
        EXPECT_EQ(sized, back) << h;
        GLint viewport[4];
        glGetIntegerv(GL_VIEWPORT, viewport);
        EXPECT_EQ(viewport[3], h);  // the read-back leaves the viewport at the texture's size
    }

    // A name is replaced and freed; with no name there is nothing to do, so no context is taken.
    GLTexture ext(context, GL_TEXTURE_EXTERNAL_OES, GL_LINEAR, GL_CLAMP_TO_EDGE);
    EXPECT_EQ(ext.width, 0);  // no storage for an external texture
    EXPECT_EQ(parameter(ext, GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    const GLuint old = ext.name;
    EXPECT_TRUE(glIsTexture(old));
    ext.createName();
    EXPECT_FALSE(glIsTexture(old));  // deleted (or reissued and not yet bound)
    EXPECT_NE(ext.name, 0u);
    ext.destroyName();
    EXPECT_EQ(ext.name, 0u);
    EXPECT_EQ(fromOtherThread([&] { ext.destroyName(); }), "no GL");
}

}  // namespace
