// One android::GraphicBuffer bound to GL through one EGL image: as an external texture for
// sampling (usage bit 1) and/or as a renderbuffer for drawing through a framebuffer (usage bit 2).
//
// The binding keeps the buffer alive and shares the context its GL names live in. Creating it
// makes the EGL image and the GL names (with the context current for the length of that work);
// destroying it frees them, so the context must be free for, or already current on, the
// destroying thread. The bind/attach operations need the caller to hold the context already
// (the render path does) and work on the framebuffer the caller has bound.
//
// GL failures while binding are swallowed and logged ("GL Error: %s"): a buffer that cannot be
// bound leaves a partial binding and shows later as a missing texture or attachment. Failures
// while freeing, attaching, detaching, binding or unbinding throw the GL call check's message.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>
#include <ui/GraphicBuffer.h>
#include <utils/StrongPointer.h>

#include <cstdint>

#include "GLContext.h"
#include "shared_ptr.h"

class GLGraphicBuffer {
  public:
    enum : int32_t {
        kUsageTexture = 1,       // make the GL_TEXTURE_EXTERNAL_OES texture
        kUsageRenderbuffer = 2,  // make the renderbuffer
    };
    // The vendor call that attaches a renderbuffer of external (YUV) content, where the driver
    // has it; same arguments as glFramebufferRenderbuffer.
    typedef void (*FramebufferRenderbufferExternal)(GLenum target, GLenum attachment,
                                                    GLenum renderbufferTarget, GLuint renderbuffer);

    android::sp<android::GraphicBuffer> buffer;  // kept alive as long as the binding
    EGLImageKHR image = EGL_NO_IMAGE_KHR;        // made from `buffer`; none when not made
    GLuint renderbuffer = 0;                     // storage is `image`; 0 when not made
    GLuint texture = 0;                          // external texture of `image`; 0 when not made
    shared_ptr<GLContext> context;
    int32_t usage = 0;  // kUsageTexture | kUsageRenderbuffer
    // eglGetProcAddress("glFramebufferRenderbufferExternalQCOM"), kept for callers and never
    // called here. EGL loaders may hand out an address even for names no driver implements, so
    // a non-null value does not prove that the driver has it.
    FramebufferRenderbufferExternal framebufferRenderbufferExternal = nullptr;

    // Throws "GLGraphicBuffer created with invalid GraphicBuffer" (logged) for a null buffer.
    GLGraphicBuffer(shared_ptr<GLContext>& context, android::sp<android::GraphicBuffer> buffer,
                    int usage);
    // deallocateGLResources(); a failure there terminates the process.
    ~GLGraphicBuffer();
    GLGraphicBuffer(const GLGraphicBuffer&) = delete;
    GLGraphicBuffer& operator=(const GLGraphicBuffer&) = delete;

    // Makes the image and, as `usage` asks, the renderbuffer and the texture. Never throws for GL
    // failures: logs "GL Error: <check message>" at info priority and keeps what was made.
    void allocateGLResources();
    // Frees image, renderbuffer and texture. Throws on a GL or EGL error; the fields keep their
    // values.
    void deallocateGLResources();

    // Colour attachment 0 of the caller's bound framebuffer := the renderbuffer (or none).
    void attachRenderBuffer();
    void detachRenderBuffer();
    // GL_TEXTURE_EXTERNAL_OES on the active unit := the texture (or none).
    void bindTexture();
    void unbindTexture();
};
