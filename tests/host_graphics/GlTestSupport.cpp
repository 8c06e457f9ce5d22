#include "GlTestSupport.h"

#include <algorithm>

namespace gltest {
namespace {

GLuint compile(GLenum type, const char* source) {
    GLuint shader = glCreateShader(type);
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    return shader;
}

}  // namespace

Context::Context() {
    display_ = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    if (display_ == EGL_NO_DISPLAY || !eglInitialize(display_, nullptr, nullptr))
        return;
    const EGLint configAttribs[][2] = {{EGL_RED_SIZE, 8},
                                       {EGL_GREEN_SIZE, 8},
                                       {EGL_BLUE_SIZE, 8},
                                       {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT},
                                       {EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT},
                                       {EGL_NONE, 0}};
    EGLConfig config = nullptr;
    EGLint count = 0;
    if (!eglChooseConfig(display_, configAttribs[0], &config, 1, &count) || count < 1)
        return;
    const EGLint pbufferAttribs[] = {EGL_HEIGHT, 1, EGL_WIDTH, 1, EGL_NONE};
    surface_ = eglCreatePbufferSurface(display_, config, pbufferAttribs);
    const EGLint contextAttribs[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};
    context_ = eglCreateContext(display_, config, EGL_NO_CONTEXT, contextAttribs);
}

Context::~Context() {
    if (display_ == EGL_NO_DISPLAY)
        return;
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    if (context_ != EGL_NO_CONTEXT)
        eglDestroyContext(display_, context_);
    if (surface_ != EGL_NO_SURFACE)
        eglDestroySurface(display_, surface_);
}

bool Context::makeCurrent() {
    return eglMakeCurrent(display_, surface_, surface_, context_) == EGL_TRUE;
}

void Context::releaseCurrent() {
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

EGLImageKHR importBuffer(EGLDisplay display, const android::sp<android::GraphicBuffer>& buffer) {
    const EGLint attribs[] = {EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};
    return eglCreateImageKHR(display, EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
                             static_cast<EGLClientBuffer>(buffer->getNativeBuffer()), attribs);
}

std::vector<uint8_t> sampleExternal(EGLImageKHR image, int width, int height) {
    static const char* kVertex =
        "attribute vec2 aPos;\nvarying vec2 vTex;\n"
        "void main() { vTex = aPos * 0.5 + 0.5; gl_Position = vec4(aPos, 0.0, 1.0); }\n";
    static const char* kFragment =
        "#extension GL_OES_EGL_image_external : require\nprecision mediump float;\n"
        "varying vec2 vTex;\nuniform samplerExternalOES uSampler;\n"
        "void main() { gl_FragColor = texture2D(uSampler, vTex); }\n";
    GLuint program = glCreateProgram();
    GLuint vs = compile(GL_VERTEX_SHADER, kVertex);
    GLuint fs = compile(GL_FRAGMENT_SHADER, kFragment);
    glAttachShader(program, vs);
    glAttachShader(program, fs);
    glBindAttribLocation(program, 0, "aPos");
    glLinkProgram(program);

    GLuint external = 0;
    glGenTextures(1, &external);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, external);
    glEGLImageTargetTexture2DOES(GL_TEXTURE_EXTERNAL_OES, image);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MIN_FILTER, GL_NEAREST);
    glTexParameteri(GL_TEXTURE_EXTERNAL_OES, GL_TEXTURE_MAG_FILTER, GL_NEAREST);

    GLuint target = 0;
    GLuint framebuffer = 0;
    glGenTextures(1, &target);
    glBindTexture(GL_TEXTURE_2D, target);
    glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, target, 0);

    const float quad[] = {-1, -1, 1, -1, -1, 1, 1, 1};
    glViewport(0, 0, width, height);
    glUseProgram(program);
    glActiveTexture(GL_TEXTURE0);
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, external);
    glUniform1i(glGetUniformLocation(program, "uSampler"), 0);
    glEnableVertexAttribArray(0);
    glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 0, quad);
    glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
    glDisableVertexAttribArray(0);

    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
    glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());

    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
    glDeleteTextures(1, &target);
    glDeleteTextures(1, &external);
    glUseProgram(0);
    glDeleteProgram(program);
    glDeleteShader(vs);
    glDeleteShader(fs);
    glFinish();
    return pixels;
}

void referenceRgb(int y, int u, int v, double rgb[3]) {
    const double c = 255.0 / 219.0 * (y - 16);
    const double d = 255.0 / 224.0 * (u - 128);
    const double e = 255.0 / 224.0 * (v - 128);
    const double kr = 0.299;
    const double kb = 0.114;
    const double kg = 1.0 - kr - kb;
    rgb[0] = c + 2.0 * (1.0 - kr) * e;
    rgb[1] = c - 2.0 * kb * (1.0 - kb) / kg * d - 2.0 * kr * (1.0 - kr) / kg * e;
    rgb[2] = c + 2.0 * (1.0 - kb) * d;
    for (int i = 0; i < 3; ++i)
        rgb[i] = std::min(255.0, std::max(0.0, rgb[i]));
}

}  // namespace gltest
