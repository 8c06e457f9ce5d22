#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "GLContext.h"
#include "GLTexture.h"
#include "PwarpShaders.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"

namespace {

using WarpProgram = cTGLProgram<PwarpVS, PwarpFS>;

class GLProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
        guard = new GLContext::Guard(context);
    }
    void TearDown() override {
        delete guard;
        context.release();
    }
    shared_ptr<GLContext> context;
    GLContext::Guard* guard = nullptr;
};

TEST_F(GLProgramTest, WarpProgramBuildsWithFixedBindings) {
    cTGLShader vs(GL_VERTEX_SHADER), fs(GL_FRAGMENT_SHADER);
    ASSERT_TRUE(vs.compile(WarpProgram::vertexSource())) << vs.log();
    ASSERT_TRUE(fs.compile(WarpProgram::fragmentSource())) << fs.log();
    WarpProgram program;
    program.initialize(vs, fs);
    ASSERT_TRUE(program.link()) << program.log();
    EXPECT_EQ(program.log(), "<Blank Log>");
    EXPECT_GE(program.samplerLocation, 0);
    EXPECT_EQ(glGetAttribLocation(program.program, "aPosition"), 0);
    EXPECT_EQ(glGetAttribLocation(program.program, "aTexCoord"), 1);
    GLint attached = -1;
    glGetProgramiv(program.program, GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 0);  // detached again after linking
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST_F(GLProgramTest, CompilerDiagnosticsReachTheLog) {
    cTGLShader vs(GL_VERTEX_SHADER), fs(GL_FRAGMENT_SHADER), unset(GL_FRAGMENT_SHADER);
    EXPECT_FALSE(vs.compile("void main() { gl_Position = undeclaredThing; }\n"));
    const std::string compiler = vs.log();
    EXPECT_NE(compiler.find("undeclaredThing"), std::string::npos) << compiler;
    ASSERT_TRUE(fs.compile(WarpProgram::fragmentSource()));

    WarpProgram program;
    program.samplerLocation = 1234;
    program.initialize(vs, fs);
    EXPECT_FALSE(program.ok);
    EXPECT_FALSE(program.link());
    EXPECT_EQ(program.samplerLocation, 1234);  // untouched by a failed link
    GLint attached = -1;
    glGetProgramiv(program.program, GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 0);
    const std::string log = program.log();
    const std::string head = "Vertex Shader:\n" + compiler + "\n";
    EXPECT_EQ(log.compare(0, head.size(), head), 0) << log;
    EXPECT_NE(log.find("Program Link:\n", head.size()), std::string::npos) << log;

    // A shader never given source counts as failed, with the shader's blank log.
    WarpProgram second;
    second.initialize(fs, unset);
    EXPECT_EQ(second.message, "Fragment Shader:\n<Blank Log>\n");
}

// The fragment shader samples an external texture: a GL texture becomes an EGL image that backs
// an external texture, the warp program draws it over the whole target, alpha is forced to 1.
TEST_F(GLProgramTest, WarpProgramSamplesAnExternalTexture) {
    auto createImage =
        reinterpret_cast<PFNEGLCREATEIMAGEKHRPROC>(eglGetProcAddress("eglCreateImageKHR"));
    auto destroyImage =
        reinterpret_cast<PFNEGLDESTROYIMAGEKHRPROC>(eglGetProcAddress("eglDestroyImageKHR"));
    auto targetTexture = reinterpret_cast<PFNGLEGLIMAGETARGETTEXTURE2DOESPROC>(
        eglGetProcAddress("glEGLImageTargetTexture2DOES"));
    ASSERT_TRUE(createImage && destroyImage && targetTexture);

    // 2 x 2 source, alpha 0 everywhere.
    GLTexture source(context, GL_TEXTURE_2D, 2, 2, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST,
                     GL_CLAMP_TO_EDGE);
    const uint8_t texels[16] = {255, 0, 0, 0, 0, 255, 0, 0, 0, 0, 255, 0, 255, 255, 255, 0};
    source.upload(texels, 0);
    EGLImageKHR image = createImage(
        context->display, context->context, EGL_GL_TEXTURE_2D_KHR,
        reinterpret_cast<EGLClientBuffer>(static_cast<uintptr_t>(source.name)), nullptr);
    ASSERT_NE(image, EGL_NO_IMAGE_KHR);
    GLTexture external(context, GL_TEXTURE_EXTERNAL_OES, GL_NEAREST, GL_CLAMP_TO_EDGE);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, external.name);
    targetTexture(GL_TEXTURE_EXTERNAL_OES, image);
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));

    cTGLShader vs(GL_VERTEX_SHADER), fs(GL_FRAGMENT_SHADER);
    vs.compile(WarpProgram::vertexSource());
    fs.compile(WarpProgram::fragmentSource());
    WarpProgram program;
    program.initialize(vs, fs);
    ASSERT_TRUE(program.link());

    GLTexture target(context, GL_TEXTURE_2D, 4, 4, GL_RGBA, GL_RGBA, GL_UNSIGNED_BYTE, GL_NEAREST,
                     GL_CLAMP_TO_EDGE);
    GLuint fb = 0;
    glGenFramebuffers(1, &fb);
    glBindFramebuffer(GL_FRAMEBUFFER, fb);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target.name, 0);
    glViewport(0, 0, 4, 4);
    const float positions[] = {-1, -1, 0, 1, -1, 0, -1, 1, 0, 1, 1, 0};
    const float coords[] = {0, 0, 1, 0, 0, 1, 1, 1};
    glUseProgram(program.program);
    glUniform1i(program.samplerLocation, 0);
    glActiveTexture(GL_TEXTURE0);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, positions);
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, coords);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glDisableVertexAttribArray(0);
    glDisableVertexAttribArray(1);
    glUseProgram(0);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &fb);
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));

    std::vector<uint8_t> out(4 * 4 * 4);
    target.download(out.data());
    auto pixel = [&](int x, int y) {
        const uint8_t* p = &out[(static_cast<size_t>(y) * 4 + x) * 4];
        return std::vector<int>{p[0], p[1], p[2], p[3]};
    };
    EXPECT_EQ(pixel(0, 0), (std::vector<int>{255, 0, 0, 255}));
    EXPECT_EQ(pixel(3, 0), (std::vector<int>{0, 255, 0, 255}));
    EXPECT_EQ(pixel(0, 3), (std::vector<int>{0, 0, 255, 255}));
    EXPECT_EQ(pixel(3, 3), (std::vector<int>{255, 255, 255, 255}));
    destroyImage(context->display, image);
}

}  // namespace
