// The GL call check shared by the GL wrappers, and a scoped context level for their operations.
//
// After a GL (or EGL) call that can fail, the check reads the error state and, if it is set,
// throws std::runtime_error "<signature>:<line> (<code>)", e.g.
//   void GLGraphicBuffer::attachRenderBuffer():114 (1282)
// The signature is spelled out by the caller (not taken from the compiler, whose spelling of
// pointer and typedef'd parameters differs); the line is that of the check itself. The check does
// not log: whoever catches the exception decides.
#pragma once

#include <EGL/egl.h>
#include <GLES2/gl2.h>

#include "GLContext.h"

namespace qlmr {
namespace gl {

[[noreturn]] void throwCallError(const char* signature, int line, unsigned int code);

inline void checkGL(const char* signature, int line) {
    GLenum error = glGetError();
    if (error != GL_NO_ERROR)
        throwCallError(signature, line, error);
}

inline void checkEGL(const char* signature, int line) {
    EGLint error = eglGetError();
    if (error != EGL_SUCCESS)
        throwCallError(signature, line, static_cast<unsigned int>(error));
}

// One nesting level of a GLContext taken for the length of one wrapper operation. The normal exit
// calls leave() and gets clearCurrent()'s result; if the operation throws instead, the destructor
// releases the level while the exception unwinds and swallows any second failure, so that the
// first error is the one reported.
class CurrentLevel {
  public:
    explicit CurrentLevel(GLContext* context) : context_(context) {
        context_->makeCurrent(nullptr);
    }
    ~CurrentLevel() {
        if (context_ == nullptr)
            return;
        try {
            context_->clearCurrent();
        } catch (...) {
        }
    }
    CurrentLevel(const CurrentLevel&) = delete;
    CurrentLevel& operator=(const CurrentLevel&) = delete;

    bool leave() {
        GLContext* context = context_;
        context_ = nullptr;
        return context->clearCurrent();
    }

  private:
    GLContext* context_;
};

}  // namespace gl
}  // namespace qlmr

// Check on the line where the macro stands.
#define QLMR_GL_CHECK(signature) ::qlmr::gl::checkGL(signature, __LINE__)
#define QLMR_EGL_CHECK(signature) ::qlmr::gl::checkEGL(signature, __LINE__)
// A GL call and its check as one statement, so that the check carries the call's line.
#define QLMR_GL_CALL(signature, call) \
    do {                              \
        call;                         \
        QLMR_GL_CHECK(signature);     \
    } while (0)
#define QLMR_EGL_CALL(signature, call) \
    do {                               \
        call;                          \
        QLMR_EGL_CHECK(signature);     \
    } while (0)
