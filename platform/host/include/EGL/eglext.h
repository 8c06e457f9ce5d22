// EGL extension declarations: the distribution's header plus the platform's native-buffer image
// target and the image entry points, which this platform exports as ordinary functions
// (whatever EGL_EGLEXT_PROTOTYPES says).
#pragma once

#include_next <EGL/eglext.h>

#ifndef EGL_ANDROID_image_native_buffer
#define EGL_ANDROID_image_native_buffer 1
#define EGL_NATIVE_BUFFER_ANDROID 0x3140
#endif

#ifdef __cplusplus
extern "C" {
#endif

// `buffer` is an ANativeWindowBuffer* (GraphicBuffer::getNativeBuffer()) when `target` is
// EGL_NATIVE_BUFFER_ANDROID; `ctx` must then be EGL_NO_CONTEXT. Other targets go to the driver.
EGLAPI EGLImageKHR EGLAPIENTRY eglCreateImageKHR(EGLDisplay dpy, EGLContext ctx, EGLenum target,
                                                 EGLClientBuffer buffer, const EGLint* attrib_list);
EGLAPI EGLBoolean EGLAPIENTRY eglDestroyImageKHR(EGLDisplay dpy, EGLImageKHR image);

#ifdef __cplusplus
}
#endif
