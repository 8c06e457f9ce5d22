// The warp draw as the engine's renderer performs it, for tests and benchmarks: the warp program,
// a mesh of (columns + 2) x (rows + 2) vertices with its border ring, a framebuffer, and one draw
// from a camera binding into an output binding. Call everything with the GL context current.
#pragma once

#include <GLES2/gl2.h>
#include <GLES2/gl2ext.h>

#include <stdexcept>
#include <vector>

#include "GLGraphicBuffer.h"
#include "PwarpShaders.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"
#include "cTGridMesh.h"
#include "cTGridMeshIndices.h"

namespace gltest {

// The stabilizer's unwarped grid: columns x rows vertices (x, y, z) spanning +-1.25.
inline std::vector<float> uniformGrid(int columns, int rows) {
    std::vector<float> grid(static_cast<size_t>(columns) * rows * 3, 0.0f);
    for (int j = 0; j < rows; ++j) {
        for (int i = 0; i < columns; ++i) {
            float* v = &grid[(static_cast<size_t>(j) * columns + i) * 3];
            v[0] = (2.0f * i / (columns - 1) - 1.0f) * 1.25f;
            v[1] = (2.0f * j / (rows - 1) - 1.0f) * 1.25f;
        }
    }
    return grid;
}

class WarpScene {
  public:
    WarpScene(int columns, int rows) : vs_(GL_VERTEX_SHADER), fs_(GL_FRAGMENT_SHADER) {
        if (!vs_.compile(PwarpVS::source) || !fs_.compile(PwarpFS::source)) {
            throw std::runtime_error("warp shaders: " + vs_.log() + fs_.log());
        }
        program_.initialize(vs_, fs_);
        if (!program_.link())
            throw std::runtime_error("warp program: " + program_.log());
        const int w = columns + 2, h = rows + 2;
        mesh_.resize(static_cast<unsigned short>(w), static_cast<unsigned short>(h));
        mesh_.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
        indices_.resize(w, h);
        positions_.assign(static_cast<size_t>(w) * h * 3, 0.0f);
        glGenFramebuffers(1, &framebuffer_);
    }
    ~WarpScene() { glDeleteFramebuffers(1, &framebuffer_); }
    WarpScene(const WarpScene&) = delete;
    WarpScene& operator=(const WarpScene&) = delete;

    // Mesh positions from a stabilizer grid of columns x rows vertices: the border ring lies on
    // the output's edges (+-1), the interior takes the grid's x and y.
    void setGrid(const float* grid) {
        const int w = mesh_.width, h = mesh_.height;
        std::fill(positions_.begin(), positions_.end(), 0.0f);
        auto at = [&](int i, int j) { return &positions_[(static_cast<size_t>(j) * w + i) * 3]; };
        for (int j = 1; j <= h - 2; ++j) {
            const float y = 2.0f * (j - 1) / (h - 3) - 1.0f;
            at(0, j)[0] = -1.0f, at(0, j)[1] = y;
            at(w - 1, j)[0] = 1.0f, at(w - 1, j)[1] = y;
        }
        for (int i = 1; i <= w - 2; ++i) {
            const float x = 2.0f * (i - 1) / (w - 3) - 1.0f;
            at(i, 0)[0] = x, at(i, 0)[1] = -1.0f;
            at(i, h - 1)[0] = x, at(i, h - 1)[1] = 1.0f;
        }
        at(0, 0)[0] = -1, at(0, 0)[1] = -1, at(w - 1, 0)[0] = 1, at(w - 1, 0)[1] = -1;
        at(0, h - 1)[0] = -1, at(0, h - 1)[1] = 1, at(w - 1, h - 1)[0] = 1, at(w - 1, h - 1)[1] = 1;
        for (int j = 1; j <= h - 2; ++j) {
            for (int i = 1; i <= w - 2; ++i) {
                const float* g = &grid[(static_cast<size_t>(j - 1) * (w - 2) + (i - 1)) * 3];
                at(i, j)[0] = g[0];
                at(i, j)[1] = g[1];
            }
        }
    }

    // One output: clear to red, draw the strip sampling `camera`, finish. Throws on a GL error.
    void draw(GLGraphicBuffer& camera, GLGraphicBuffer& output, int width, int height) {
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer_);
        output.attachRenderBuffer();
        glClearColor(1, 0, 0, 0);
        glClear(GL_COLOR_BUFFER_BIT);
        glViewport(0, 0, width, height);
        glUseProgram(program_.program);
        glEnableVertexAttribArray(0);
        glEnableVertexAttribArray(1);
        glActiveTexture(GL_TEXTURE0);
        camera.bindTexture();
        glUniform1i(program_.samplerLocation, 0);
        glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, positions_.data());
        glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, mesh_.vertices.data());
        glDrawElements(GL_TRIANGLE_STRIP, static_cast<GLsizei>(indices_.indices.size() & 0xFFFF),
                       GL_UNSIGNED_SHORT, indices_.indices.data());
        camera.unbindTexture();
        glDisableVertexAttribArray(0);
        glDisableVertexAttribArray(1);
        glUseProgram(0);
        output.detachRenderBuffer();
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        glFlush();
        glFinish();
        GLenum error = glGetError();
        if (error != GL_NO_ERROR)
            throw std::runtime_error("warp draw GL error " + std::to_string(error));
    }

  private:
    cTGLShader vs_, fs_;
    cTGLProgram<PwarpVS, PwarpFS> program_;
    cTGridMesh mesh_;
    cTGridMeshIndices indices_;
    std::vector<float> positions_;
    GLuint framebuffer_ = 0;
};

}  // namespace gltest
