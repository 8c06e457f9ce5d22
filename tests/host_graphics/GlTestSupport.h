// GL helpers on the host driver (link qlmr_gl_test_process too): context, image import, drawing.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <ui/GraphicBuffer.h>

#include <cstdint>
#include <vector>

namespace gltest {

// The engine's ES2 context with a 1 x 1 pbuffer on the default display (left initialised).
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

// `image` drawn through samplerExternalOES at texel centres: RGBA rows, row 0 first. Needs GL.
std::vector<uint8_t> sampleExternal(EGLImageKHR image, int width, int height);

// The exact BT.601 limited-range conversion, for references.
void referenceRgb(int y, int u, int v, double rgb[3]);

}  // namespace gltest
