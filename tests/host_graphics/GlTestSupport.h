// GL helpers for tests and benchmarks that run on the host driver: an engine-like EGL context on
// the default display, image import, and draw/read helpers. Programs using them also link
// qlmr_gl_test_process (tests/support), which keeps the driver loaded.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <ui/GraphicBuffer.h>

#include <cstdint>
#include <vector>

namespace gltest {

// An ES2 context with a 1 x 1 pbuffer on eglGetDisplay(EGL_DEFAULT_DISPLAY), as the engine
// makes it. The destructor destroys the context (the display stays initialised).
class Context {
  public:
    Context();
    ~Context();
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    bool ok() const { return context_ != EGL_NO_CONTEXT; }
    bool makeCurrent();
    void releaseCurrent();
    EGLDisplay display() const { return display_; }

  private:
    EGLDisplay display_ = EGL_NO_DISPLAY;
    EGLSurface surface_ = EGL_NO_SURFACE;
    EGLContext context_ = EGL_NO_CONTEXT;
};

// eglCreateImageKHR for a GraphicBuffer as the engine calls it.
EGLImageKHR importBuffer(EGLDisplay display, const android::sp<android::GraphicBuffer>& buffer);

// Draws `image` through a samplerExternalOES into a width x height RGBA framebuffer (texel
// centres hit exactly) and returns its pixels, row 0 first. Needs a current context.
std::vector<uint8_t> sampleExternal(EGLImageKHR image, int width, int height);

// The exact BT.601 limited-range conversion, for references.
void referenceRgb(int y, int u, int v, double rgb[3]);

}  // namespace gltest
