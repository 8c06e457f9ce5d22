// One GL texture name in one GLContext, with the parameters it was last given.
//
// The parameter cache lets per-frame calls of update() or setFilter() with unchanged values cost
// nothing: no GL call and no context switch. Every operation makes the context current itself
// (nesting inside any level the caller holds) except downloadBase(); every GL call is checked
// and a failure throws "<signature>:<line> (<GL error>)" after the operation's level is left.
// Runs on whichever thread may hold the context (one at a time, see GLContext).
#pragma once

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>

#include "GLContext.h"
#include "shared_ptr.h"

class GLTexture {
  public:
    GLuint name;  // 0 when none
    int width;    // level 0 size in pixels
    int height;
    GLint internalFormat;  // as given to glTexImage2D
    GLenum format;         // pixel format of uploads and read-backs
    GLenum type;           // pixel type of uploads and read-backs
    GLint filter;          // both GL_TEXTURE_MIN_FILTER and GL_TEXTURE_MAG_FILTER
    GLint wrap;            // both GL_TEXTURE_WRAP_S and GL_TEXTURE_WRAP_T
    GLenum target;         // GL_TEXTURE_2D or GL_TEXTURE_EXTERNAL_OES, fixed
    shared_ptr<GLContext> context;

    // A texture with level-0 storage of width x height (no data).
    GLTexture(shared_ptr<GLContext>& context, GLenum target, int width, int height,
              GLint internalFormat, GLenum format, GLenum type, GLint filter, GLint wrap);
    // A texture without storage (an external texture takes its storage from an image).
    GLTexture(shared_ptr<GLContext>& context, GLenum target, GLint filter, GLint wrap);
    // Deletes the name; a GL failure here terminates the process.
    ~GLTexture();
    GLTexture(const GLTexture&) = delete;
    GLTexture& operator=(const GLTexture&) = delete;

    // Forgets the eight parameters (not target, not context); no GL call.
    void init();
    // Deletes any old name and generates a new one.
    void createName();
    // Deletes the name if there is one; with name 0 it does nothing, not even a context switch.
    void destroyName();
    void deinit() { destroyName(); }

    // Sets filter and wrap unless both are already the stored values. The values are stored
    // before the GL calls, so after a failed call a retry with the same values is skipped.
    void setFilter(GLint filter, GLint wrap);
    // Sets filter/wrap as setFilter(), and reallocates level 0 (no data) when any of size,
    // internal format, format or type changed. All seven unchanged: no context switch at all.
    void update(int width, int height, GLint internalFormat, GLenum format, GLenum type,
                GLint filter, GLint wrap);
    void update(int filterIn, int wrapIn) { setFilter(filterIn, wrapIn); }

    // Uploads width x height pixels of the stored format/type. A non-zero `alignment` is set as
    // GL_UNPACK_ALIGNMENT for the upload and reset to 0 afterwards; drivers that reject 0 (Mesa
    // does) make that reset throw GL_INVALID_VALUE after the data is in. Pass 0 to leave the
    // unpack alignment as it is.
    void upload(const void* pixels, int alignment);
    // Reads level 0 back through a temporary framebuffer into `pixels` (width x height of the
    // stored format/type); leaves the viewport at the texture's size. The caller must hold the
    // context. Throws "GLTexture::downloadBase(...) Could not bind texture to framebuffer" when
    // the texture cannot be a colour attachment.
    void downloadBase(void* pixels);
    // downloadBase() inside its own context level; returns clearCurrent()'s result.
    bool download(void* pixels);
};
