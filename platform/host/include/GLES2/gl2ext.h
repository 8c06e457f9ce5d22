// GLES 2 extension declarations: the distribution's header plus the EGL image entry points,
// which this platform exports as ordinary functions (whatever GL_GLEXT_PROTOTYPES says).
#pragma once

#include_next <GLES2/gl2ext.h>

#ifdef __cplusplus
extern "C" {
#endif

GL_APICALL void GL_APIENTRY glEGLImageTargetTexture2DOES(GLenum target, GLeglImageOES image);
GL_APICALL void GL_APIENTRY glEGLImageTargetRenderbufferStorageOES(GLenum target,
                                                                   GLeglImageOES image);

#ifdef __cplusplus
}
#endif
