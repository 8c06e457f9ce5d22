#include "GLGraphicBuffer.h"

#include "GLCallCheck.h"
#include "Log.h"

// Each check in this file reports the line it stands on, and those line numbers are part of the
// messages that logs and callers compare against: every checked call is one statement (call and
// check together) or a call followed by its check, and the functions keep their places.

namespace {

const char kAllocate[] = "void GLGraphicBuffer::allocateGLResources()";
const char kDeallocate[] = "void GLGraphicBuffer::deallocateGLResources()";
const char kAttach[] = "void GLGraphicBuffer::attachRenderBuffer()";
const char kDetach[] = "void GLGraphicBuffer::detachRenderBuffer()";
const char kBind[] = "void GLGraphicBuffer::bindTexture()";
const char kUnbind[] = "void GLGraphicBuffer::unbindTexture()";

// The image shows the buffer's existing content: nothing is undefined after binding.
const EGLint kImageAttributes[] = {EGL_IMAGE_PRESERVED_KHR, EGL_TRUE, EGL_NONE};

// Freeing steps of deallocateGLResources(); each has nothing to do for a null handle and is
// checked all the same.
void destroyImage(EGLImageKHR image) {
    if (image != EGL_NO_IMAGE_KHR)
        eglDestroyImageKHR(eglGetDisplay(EGL_DEFAULT_DISPLAY), image);
}
void deleteName(decltype(&glDeleteTextures) remove, GLuint& name) {
    if (name != 0)
        remove(1, &name);
}

}  // namespace

GLGraphicBuffer::GLGraphicBuffer(shared_ptr<GLContext>& contextIn,
                                 android::sp<android::GraphicBuffer> bufferIn, int usageIn)
    : buffer(bufferIn), context(contextIn), usage(usageIn) {
    if (buffer.get() == nullptr)
        qlmr::throwLogged("GLGraphicBuffer created with invalid GraphicBuffer");
    allocateGLResources();
}

// On the thread that creates the binding, inside a context level of its own. Failures are
// logged, not thrown (see the catch below).
void GLGraphicBuffer::allocateGLResources() {
    qlmr::gl::CurrentLevel level(context);
    const GLenum target = GL_TEXTURE_EXTERNAL_OES;
    try {
        framebufferRenderbufferExternal = reinterpret_cast<FramebufferRenderbufferExternal>(
            eglGetProcAddress("glFramebufferRenderbufferExternalQCOM"));
        EGLClientBuffer native = static_cast<EGLClientBuffer>(buffer->getNativeBuffer());
        EGLDisplay display = eglGetDisplay(EGL_DEFAULT_DISPLAY);
        image = eglCreateImageKHR(display, EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID, native,
                                  kImageAttributes);
        QLMR_EGL_CHECK(kAllocate);

        // Drawing target: a renderbuffer whose storage is the buffer's memory, attached to the
        // caller's framebuffer by attachRenderBuffer() for each draw. An output buffer is drawn
        // into directly, without a copy; the picture is complete once the draw has finished
        // (glFinish), which the render path waits for before it queues the buffer.
        if ((usage & kUsageRenderbuffer) != 0) {
            QLMR_GL_CALL(kAllocate, glGenRenderbuffers(1, &renderbuffer));
            // The image gives the storage its size and format, so there is no
            // glRenderbufferStorage call; nothing is cleared either, the buffer keeps its
            // content. Bound only while the storage is set: the renderbuffer binding is back
            // to none afterwards; the framebuffer it is attached to belongs to the caller.
            // Each call is checked on its own line, as the messages give the failing step.
            QLMR_GL_CALL(kAllocate, glBindRenderbuffer(GL_RENDERBUFFER, renderbuffer));
            QLMR_GL_CALL(kAllocate, glEGLImageTargetRenderbufferStorageOES(GL_RENDERBUFFER, image));
            QLMR_GL_CALL(kAllocate, glBindRenderbuffer(GL_RENDERBUFFER, 0));
        }

        // Sampling source: an external texture, read in the warp shader through
        // samplerExternalOES. Linear filtering for the sub-pixel positions of the warped mesh,
        // and clamped so that the mesh's border ring repeats the frame's edge texels instead of
        // wrapping to the opposite edge. External textures have no mipmaps, so the same linear
        // filter serves minification too.
        //
        // The texture stays bound to the active unit only while it is made; the renderer binds
        // it again for each draw with bindTexture(), on the unit that the sampler reads. Its
        // content follows the buffer: whatever the buffer holds when the draw samples it.
        // The shader reads it as RGB, whatever the buffer's own pixel format.
        if ((usage & kUsageTexture) != 0) {
            QLMR_GL_CALL(kAllocate, glGenTextures(1, &texture));
            QLMR_GL_CALL(kAllocate, glBindTexture(target, texture));
            QLMR_GL_CALL(kAllocate, glEGLImageTargetTexture2DOES(target, image));
            QLMR_GL_CALL(kAllocate, glTexParameteri(target, GL_TEXTURE_MAG_FILTER, GL_LINEAR));
            QLMR_GL_CALL(kAllocate, glTexParameteri(target, GL_TEXTURE_MIN_FILTER, GL_LINEAR));
            QLMR_GL_CALL(kAllocate, glTexParameteri(target, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE));
            QLMR_GL_CALL(kAllocate, glTexParameteri(target, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE));
            QLMR_GL_CALL(kAllocate, glBindTexture(target, 0));
        }
    } catch (const std::runtime_error& e) {
        // A buffer that cannot be bound does not end the session: what was made stays.
        QLOGI("GL Error: %s", e.what());
    }
    level.leave();
}

// Needs the context free for, or already current on, the calling thread.
void GLGraphicBuffer::deallocateGLResources() {
    qlmr::gl::CurrentLevel level(context);
    // Every step is checked, also when it had nothing to free.
    QLMR_EGL_CALL(kDeallocate, destroyImage(image));
    QLMR_GL_CALL(kDeallocate, deleteName(glDeleteRenderbuffers, renderbuffer));
    QLMR_GL_CALL(kDeallocate, deleteName(glDeleteTextures, texture));
    level.leave();
}

// The four operations below run with the context already held by the caller (the render
// path), on the framebuffer and the texture unit the caller has bound and made active.
void GLGraphicBuffer::attachRenderBuffer() {
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, renderbuffer);
    QLMR_GL_CHECK(kAttach);
}

// Leaves the framebuffer without a colour attachment, so that the next output buffer can be
// attached in its place and this buffer can be queued while the framebuffer object lives on.
// A framebuffer left attached to a queued buffer would draw into the consumer's picture on the
// next frame's clear.
void GLGraphicBuffer::detachRenderBuffer() {
    glFramebufferRenderbuffer(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_RENDERBUFFER, 0);
    QLMR_GL_CHECK(kDetach);
}

// On the texture unit the caller made active (the sampler's unit).
void GLGraphicBuffer::bindTexture() {
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, texture);
    QLMR_GL_CHECK(kBind);
}

void GLGraphicBuffer::unbindTexture() {
    glBindTexture(GL_TEXTURE_EXTERNAL_OES, 0);
    QLMR_GL_CHECK(kUnbind);
}

GLGraphicBuffer::~GLGraphicBuffer() {
    deallocateGLResources();
    context.release();
    buffer.clear();
}
