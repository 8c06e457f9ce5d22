// The engine's one EGL display connection, OpenGL ES 2.0 context and 1x1 pbuffer surface.
//
// All GL work of the engine happens while this context is current on the calling thread. The
// context is current to at most one thread at a time; that thread may nest makeCurrent() /
// clearCurrent() pairs, and only the outermost pair reaches eglMakeCurrent. A second thread that
// tries to enter while another holds the context gets an exception ("... Logical Error") instead
// of waiting: callers that want to wait serialise on the engine's own lock first.
//
// Always held through the engine's shared_ptr<GLContext>; every other GL object keeps such a
// pointer to the context its names live in.
#pragma once

#include <EGL/egl.h>

#include <atomic>
#include <cstdint>

class GLContext {
  public:
    // One nesting level of a context, held from construction to destruction. Made with `new`
    // (the engine keeps it in a shared_ptr or a plain pointer until its unlock call); it must be
    // deleted on the thread that created it, since deleting it leaves that thread's level.
    class Guard {
      public:
        // Makes `context` current on the calling thread with its own pbuffer. Throws, taking no
        // level, when another thread holds the context.
        explicit Guard(GLContext* context);
        // Leaves the level. A refusal (wrong thread) terminates the process.
        ~Guard();
        Guard(const Guard&) = delete;
        Guard& operator=(const Guard&) = delete;

        GLContext* context;
    };

    // Handles; null when not had (see the constructor). Not cleared by deinit().
    EGLDisplay display;
    EGLSurface surface;  // own 1x1 pbuffer, used when makeCurrent() is given no surface
    EGLContext context;
    // Ownership, changed only by makeCurrent()/clearCurrent() on the owning thread. Atomic so
    // that a refused second thread may read them while the owner works; the invariant is that
    // threadId is -1 (no owner) exactly when count is 0.
    std::atomic<int32_t> threadId;  // kernel thread id (gettid) of the owner, or -1
    std::atomic<int32_t> count;     // nesting depth on the owner

    // Builds display, pbuffer and context, sharing objects with `shareContext` (an EGLContext,
    // or EGL_NO_CONTEXT). Never throws and logs nothing: on failure the object is left partly
    // built, with null handles, and the first makeCurrent() reports false.
    explicit GLContext(void* shareContext);
    // deinit(); a context still held by some thread terminates the process here.
    ~GLContext();
    GLContext(const GLContext&) = delete;
    GLContext& operator=(const GLContext&) = delete;

    // Empty state without any EGL call: null handles, no owner, depth 0.
    void init();
    // Releases the context from this thread, destroys surface and context and terminates the
    // display. Returns eglTerminate's result, or 0 without a display. Throws "Deinitializing GL
    // Context while a guard is active" while any thread holds a level.
    EGLBoolean deinit();

    // Enters one nesting level on the calling thread; `surface` is an EGLSurface or null for the
    // own pbuffer. Only the outermost level calls eglMakeCurrent and returns its result; nested
    // calls return true and never switch the surface. When eglMakeCurrent fails the level is
    // still counted and clearCurrent() must still be called.
    bool makeCurrent(void* surface);
    // Leaves one level; the last one releases the context from the thread (eglMakeCurrent with
    // no surface and no context) and returns that call's result.
    bool clearCurrent();
    // eglSwapBuffers on `surface`, or on the pbuffer when null.
    EGLBoolean swap(void* surface);
    const char* getExtensions() const;
};
