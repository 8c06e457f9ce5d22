#include "cTGLShader.h"

#include <vector>

cTGLShader::cTGLShader(GLenum type) : id(glCreateShader(type)), valid(false) {}

cTGLShader::~cTGLShader() {
    if (id != 0)
        glDeleteShader(id);
}

bool cTGLShader::compile(const char* source) {
    if (id == 0 || source == nullptr)
        return false;
    glShaderSource(id, 1, &source, nullptr);
    valid = true;
    glCompileShader(id);
    return compiled();
}

bool cTGLShader::compiled() const {
    GLint status = GL_FALSE;
    glGetShaderiv(id, GL_COMPILE_STATUS, &status);
    return status == GL_TRUE;
}

std::string cTGLShader::log() const {
    std::string text = "<Blank Log>";
    GLint length = 0;
    glGetShaderiv(id, GL_INFO_LOG_LENGTH, &length);
    if (length >= 1) {
        std::vector<char> buffer(static_cast<size_t>(length), '\0');
        glGetShaderInfoLog(id, length, nullptr, buffer.data());
        buffer.back() = '\0';
        text = buffer.data();
    }
    return text;
}
