// One compiled GLSL ES shader object.
//
// Created, compiled and deleted on the thread that holds the GL context (the GL session's
// resume and pause). Compile failure is not an error here: the caller checks compiled() and logs
// log(), and the program build (cTGLProgram::initialize) records it as well.
#pragma once

#include <GLES2/gl2.h>

#include <string>

class cTGLShader {
  public:
    GLuint id;   // glCreateShader name; 0 if it could not be created
    bool valid;  // set once source has been handed to the shader

    // Creates a shader object of `type` (GL_VERTEX_SHADER or GL_FRAGMENT_SHADER).
    explicit cTGLShader(GLenum type);
    // glDeleteShader; the context must be current.
    ~cTGLShader();
    cTGLShader(const cTGLShader&) = delete;
    cTGLShader& operator=(const cTGLShader&) = delete;

    // Hands `source` over as one string, compiles it and returns GL_COMPILE_STATUS.
    bool compile(const char* source);
    // GL_COMPILE_STATUS of the shader object.
    bool compiled() const;
    // The shader's info log, or "<Blank Log>" when the driver reports a length of 0. A length of
    // 1 (just the terminator) gives an empty text.
    std::string log() const;
};
