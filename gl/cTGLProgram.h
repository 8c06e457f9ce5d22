// The linked warp program: one vertex and one fragment shader, named by the type parameters
// (PwarpVS, PwarpFS; each gives `type` and `source`).
//
// Build order, on the thread that holds the GL context: compile both cTGLShader objects (from
// vertexSource() / fragmentSource()), initialize(), link(); on failure log(). The shaders stay
// owned by the caller and are detached again after linking. Nothing here logs or throws: compile
// failures are recorded in `ok` and `message`, a link failure is link()'s result.
#pragma once

#include <GLES2/gl2.h>

#include <cstdint>
#include <string>
#include <vector>

#include "cTGLShader.h"

template <typename VertexShader, typename FragmentShader>
class cTGLProgram {
  public:
    // Fixed attribute locations bound before linking.
    static constexpr GLuint kPositionLocation = 0;  // "aPosition", vec3
    static constexpr GLuint kTexCoordLocation = 1;  // "aTexCoord", vec2

    uint32_t reserved;      // kept for the record's layout; no operation uses it
    GLint samplerLocation;  // "uSampler", set by a successful link(); -1 before
    GLuint program;         // GL program object; 0 if it could not be created
    bool ok;                // false once a shader failed its compile check
    std::string message;    // shader diagnostics gathered by initialize()
    GLuint vertexShader;    // shader ids given to initialize()
    GLuint fragmentShader;

    cTGLProgram()
        : reserved(0),
          samplerLocation(-1),
          program(0),
          ok(true),
          vertexShader(0),
          fragmentShader(0) {}
    // glDeleteProgram when there is a program; the context must be current.
    ~cTGLProgram() {
        if (program != 0)
            glDeleteProgram(program);
    }
    cTGLProgram(const cTGLProgram&) = delete;
    cTGLProgram& operator=(const cTGLProgram&) = delete;

    static const char* vertexSource() { return VertexShader::source; }
    static const char* fragmentSource() { return FragmentShader::source; }

    // Records each shader's compile state (a shader never given source counts as failed), then
    // creates the program object and binds the attribute locations. A failed shader does not
    // stop this: the program is made all the same and the failure shows in `ok` and `message`.
    void initialize(cTGLShader& vs, cTGLShader& fs) {
        ok = true;
        message.clear();
        if (!vs.compiled() || !vs.valid) {
            ok = false;
            message += "Vertex Shader:\n" + vs.log() + "\n";
        }
        if (!fs.compiled() || !fs.valid) {
            ok = false;
            message += "Fragment Shader:\n" + fs.log() + "\n";
        }
        if (program != 0)
            glDeleteProgram(program);
        program = glCreateProgram();
        if (program == 0)
            return;
        vertexShader = vs.id;
        fragmentShader = fs.id;
        glBindAttribLocation(program, kPositionLocation, "aPosition");
        glBindAttribLocation(program, kTexCoordLocation, "aTexCoord");
    }

    // Attaches the two shaders, links and detaches them again whether or not it linked. On
    // success the sampler location is looked up; on failure it is left as it was.
    bool link() {
        if (program == 0)
            return false;
        if (vertexShader != 0)
            glAttachShader(program, vertexShader);
        if (fragmentShader != 0)
            glAttachShader(program, fragmentShader);
        glLinkProgram(program);
        GLint linked = GL_FALSE;
        glGetProgramiv(program, GL_LINK_STATUS, &linked);
        if (linked == GL_TRUE)
            samplerLocation = glGetUniformLocation(program, "uSampler");
        if (vertexShader != 0)
            glDetachShader(program, vertexShader);
        if (fragmentShader != 0)
            glDetachShader(program, fragmentShader);
        return linked == GL_TRUE;
    }

    // "<Blank Log>" when all is well; otherwise the shader diagnostics, followed by
    // "Program Link:\n<info log>\n" when the program's info log has at least 2 bytes.
    std::string log() const {
        std::string text = "<Blank Log>";
        if (!ok)
            text = message;
        if (program == 0)
            return text;
        GLint length = 0;
        glGetProgramiv(program, GL_INFO_LOG_LENGTH, &length);
        if (length >= 2) {
            if (ok)
                text.clear();
            std::vector<char> buffer(static_cast<size_t>(length), '\0');
            glGetProgramInfoLog(program, length, nullptr, buffer.data());
            buffer.back() = '\0';
            text += "Program Link:\n";
            text += buffer.data();
            text += "\n";
        }
        return text;
    }
};
