// Source texts of the warp program: the vertex shader passes the mesh position through and
// forwards the texture coordinate; the fragment shader samples the camera frame through an
// external (GL_OES_EGL_image_external) sampler and forces alpha to 1.
//
// The two types name the program's shaders as the type parameters of cTGLProgram<PwarpVS,
// PwarpFS>. Attribute locations are bound by the program: 0 "aPosition", 1 "aTexCoord".
#pragma once

#include <GLES2/gl2.h>

struct PwarpVS {
    static constexpr GLenum type = GL_VERTEX_SHADER;
    static constexpr const char* source =
        "attribute vec3 aPosition;\n"
        "attribute vec2 aTexCoord;\n"
        "varying vec2 vTexCoord;\n"
        "void main() {\n"
        "   gl_Position = vec4(aPosition, 1.0);\n"
        "   vTexCoord   = aTexCoord;\n"
        "}\n";
};

struct PwarpFS {
    static constexpr GLenum type = GL_FRAGMENT_SHADER;
    static constexpr const char* source =
        "#extension GL_OES_EGL_image_external : require\n"
        "precision mediump float;\n"
        "varying vec2 vTexCoord;\n"
        "uniform samplerExternalOES uSampler;\n"
        "void main() {\n"
        "gl_FragColor = vec4(texture2D(uSampler, vTexCoord).rgb, 1.0);\n"
        "}\n";
};
