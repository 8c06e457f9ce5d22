#include "GLContext.h"

#include <unistd.h>

#include "Log.h"

namespace {

// Colour-only pbuffer config: output goes to graphic buffers bound as framebuffer attachments,
// never to window surfaces, so no alpha, depth or stencil is asked for.
// clang-format off
const EGLint kConfigAttributes[] = {
    EGL_RED_SIZE,        8,
    EGL_GREEN_SIZE,      8,
    EGL_BLUE_SIZE,       8,
    EGL_SURFACE_TYPE,    EGL_PBUFFER_BIT,
    EGL_RENDERABLE_TYPE, EGL_OPENGL_ES2_BIT,
    EGL_NONE};
// clang-format on
const EGLint kPbufferAttributes[] = {EGL_HEIGHT, 1, EGL_WIDTH, 1, EGL_NONE};
const EGLint kContextAttributes[] = {EGL_CONTEXT_CLIENT_VERSION, 2, EGL_NONE};

int32_t currentThreadId() {
    return static_cast<int32_t>(gettid());
}

}  // namespace

GLContext::Guard::Guard(GLContext* contextIn) : context(contextIn) {
    context->makeCurrent(nullptr);
}

GLContext::Guard::~Guard() {
    context->clearCurrent();
}

GLContext::GLContext(void* shareContext) {
    init();
    display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
    EGLint major = 0;
    EGLint minor = 0;
    if (display == EGL_NO_DISPLAY || eglInitialize(display, &major, &minor) != EGL_TRUE)
        return;

    EGLConfig config = nullptr;
    EGLint numConfigs = 0;
    if (eglChooseConfig(display, kConfigAttributes, &config, 1, &numConfigs) != EGL_TRUE ||
        numConfigs < 1) {
        return;
    }
    surface = eglCreatePbufferSurface(display, config, kPbufferAttributes);
    if (surface == EGL_NO_SURFACE)
        return;

    context = eglCreateContext(display, config, static_cast<EGLContext>(shareContext),
                               kContextAttributes);
    if (context == EGL_NO_CONTEXT) {
        eglDestroySurface(display, surface);
        surface = EGL_NO_SURFACE;
    }
}

GLContext::~GLContext() {
    deinit();
}

void GLContext::init() {
    display = EGL_NO_DISPLAY;
    surface = EGL_NO_SURFACE;
    context = EGL_NO_CONTEXT;
    threadId = -1;
    count = 0;
}

EGLBoolean GLContext::deinit() {
    if (count != 0 || threadId != -1) {
        qlmr::throwLogged("Deinitializing GL Context while a guard is active");
    }
    if (display != EGL_NO_DISPLAY) {
        eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }
    if (surface != EGL_NO_SURFACE)
        eglDestroySurface(display, surface);
    if (context != EGL_NO_CONTEXT)
        eglDestroyContext(display, context);
    if (display == EGL_NO_DISPLAY)
        return 0;
    return eglTerminate(display);
}

bool GLContext::makeCurrent(void* drawSurface) {
    const int32_t tid = currentThreadId();
    int32_t owner = threadId.load();
    if (owner == -1) {
        if (count != 0) {
            qlmr::throwLogged(
                "GL Context invalid thread id but thread count positive ... Logical Error");
        }
        // Claim; if another thread claimed in between, `owner` becomes that thread.
        if (threadId.compare_exchange_strong(owner, tid))
            owner = tid;
    }
    if (owner != tid) {
        qlmr::throwLogged("GL Context current to another thread ... Logical Error");
    }

    const int32_t outer = count.fetch_add(1);
    EGLSurface target = drawSurface != nullptr ? static_cast<EGLSurface>(drawSurface) : surface;
    // Nested level: the outer level's surface stays current, whatever was passed.
    if (outer != 0)
        return true;
    // Without a context there is nothing to make current. Checked here because some EGL
    // implementations treat a null context with null surfaces as a successful release even on a
    // display that never initialised.
    if (context == EGL_NO_CONTEXT)
        return false;
    return eglMakeCurrent(display, target, target, context) == EGL_TRUE;
}

bool GLContext::clearCurrent() {
    const int32_t owner = threadId.load();
    if (owner == -1) {
        qlmr::throwLogged("GL Context clearCurrent invalid threadID ... Logical Error");
    }
    if (currentThreadId() != owner) {
        qlmr::throwLogged("GL Context clearCurrent called from wrong thread ... Logical Error");
    }
    if (count == 0) {
        qlmr::throwLogged("GL Context clearCurrent context is not current ... Logical Error");
    }
    if (count.fetch_sub(1) - 1 > 0)
        return true;
    threadId = -1;
    return eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT) == EGL_TRUE;
}

EGLBoolean GLContext::swap(void* drawSurface) {
    EGLSurface target = drawSurface != nullptr ? static_cast<EGLSurface>(drawSurface) : surface;
    return eglSwapBuffers(display, target);
}

const char* GLContext::getExtensions() const {
    return eglQueryString(display, EGL_EXTENSIONS);
}
