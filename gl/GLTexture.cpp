#include "GLTexture.h"

#include <stdexcept>

#include "GLCallCheck.h"

namespace {

const char kCreateName[] = "void GLTexture::createName()";
const char kDestroyName[] = "void GLTexture::destroyName()";
const char kSetFilter[] = "void GLTexture::setFilter(GLint, GLint)";
const char kUpdate[] = "void GLTexture::update(int, int, GLint, GLenum, GLenum, GLint, GLint)";
const char kUpload[] = "void GLTexture::upload(const void *, int)";
const char kDownloadBase[] = "void GLTexture::downloadBase(void *)";

}  // namespace

GLTexture::GLTexture(shared_ptr<GLContext>& contextIn, GLenum targetIn, int widthIn, int heightIn,
                     GLint internalFormatIn, GLenum formatIn, GLenum typeIn, GLint filterIn,
                     GLint wrapIn)
    : target(targetIn), context(contextIn) {
    init();
    createName();
    update(widthIn, heightIn, internalFormatIn, formatIn, typeIn, filterIn, wrapIn);
}

GLTexture::GLTexture(shared_ptr<GLContext>& contextIn, GLenum targetIn, GLint filterIn,
                     GLint wrapIn)
    : target(targetIn), context(contextIn) {
    init();
    createName();
    setFilter(filterIn, wrapIn);
}

GLTexture::~GLTexture() {
    destroyName();
}

void GLTexture::init() {
    name = 0;
    width = 0;
    height = 0;
    internalFormat = 0;
    format = 0;
    type = 0;
    filter = 0;
    wrap = 0;
}

void GLTexture::createName() {
    qlmr::gl::CurrentLevel level(context);
    destroyName();
    QLMR_GL_CALL(kCreateName, glGenTextures(1, &name));
    level.leave();
}

void GLTexture::destroyName() {
    if (name == 0)
        return;
    qlmr::gl::CurrentLevel level(context);
    QLMR_GL_CALL(kDestroyName, glDeleteTextures(1, &name));
    name = 0;
    level.leave();
}

void GLTexture::setFilter(GLint filterIn, GLint wrapIn) {
    if (filterIn == filter && wrapIn == wrap)
        return;
    filter = filterIn;
    wrap = wrapIn;
    qlmr::gl::CurrentLevel level(context);
    QLMR_GL_CALL(kSetFilter, glBindTexture(target, name));
    QLMR_GL_CALL(kSetFilter, glTexParameteri(target, GL_TEXTURE_MAG_FILTER, filter));
    QLMR_GL_CALL(kSetFilter, glTexParameteri(target, GL_TEXTURE_MIN_FILTER, filter));
    QLMR_GL_CALL(kSetFilter, glTexParameteri(target, GL_TEXTURE_WRAP_S, wrap));
    QLMR_GL_CALL(kSetFilter, glTexParameteri(target, GL_TEXTURE_WRAP_T, wrap));
    QLMR_GL_CALL(kSetFilter, glBindTexture(target, 0));
    level.leave();
}

void GLTexture::update(int widthIn, int heightIn, GLint internalFormatIn, GLenum formatIn,
                       GLenum typeIn, GLint filterIn, GLint wrapIn) {
    const bool storageSame = widthIn == width && heightIn == height &&
                             internalFormatIn == internalFormat && formatIn == format &&
                             typeIn == type;
    if (storageSame && filterIn == filter && wrapIn == wrap)
        return;

    qlmr::gl::CurrentLevel level(context);
    setFilter(filterIn, wrapIn);
    if (!storageSame) {
        width = widthIn;
        height = heightIn;
        internalFormat = internalFormatIn;
        format = formatIn;
        type = typeIn;
        QLMR_GL_CALL(kUpdate, glBindTexture(target, name));
        QLMR_GL_CALL(kUpdate, glTexImage2D(target, 0, internalFormat, width, height, 0, format,
                                           type, nullptr));
        QLMR_GL_CALL(kUpdate, glBindTexture(target, 0));
    }
    level.leave();
}

void GLTexture::upload(const void* pixels, int alignment) {
    qlmr::gl::CurrentLevel level(context);
    if (alignment != 0)
        glPixelStorei(GL_UNPACK_ALIGNMENT, alignment);
    QLMR_GL_CHECK(kUpload);
    QLMR_GL_CALL(kUpload, glBindTexture(target, name));
    QLMR_GL_CALL(kUpload, glTexSubImage2D(target, 0, 0, 0, width, height, format, type, pixels));
    QLMR_GL_CALL(kUpload, glBindTexture(target, 0));
    // Reset to 0, not to GL's default of 4; callers that care pass alignment 0.
    if (alignment != 0)
        glPixelStorei(GL_UNPACK_ALIGNMENT, 0);
    QLMR_GL_CHECK(kUpload);
    level.leave();
}

void GLTexture::downloadBase(void* pixels) {
    GLuint framebuffer = 0;
    QLMR_GL_CALL(kDownloadBase, glGenFramebuffers(1, &framebuffer));
    QLMR_GL_CALL(kDownloadBase, glBindFramebuffer(GL_FRAMEBUFFER, framebuffer));
    QLMR_GL_CALL(kDownloadBase,
                 glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, target, name, 0));
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        throw std::runtime_error(
            "GLTexture::downloadBase(...) Could not bind texture to framebuffer");
    }
    QLMR_GL_CALL(kDownloadBase, glViewport(0, 0, width, height));
    QLMR_GL_CALL(kDownloadBase, glReadPixels(0, 0, width, height, format, type, pixels));
    QLMR_GL_CALL(kDownloadBase, glBindFramebuffer(GL_FRAMEBUFFER, 0));
    glDeleteFramebuffers(1, &framebuffer);
}

bool GLTexture::download(void* pixels) {
    qlmr::gl::CurrentLevel level(context);
    downloadBase(pixels);
    return level.leave();
}
