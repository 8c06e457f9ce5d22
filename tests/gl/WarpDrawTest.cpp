// The warp program draws through a turned, zoomed grid as the engine does, to GL's bilinear rule.
#include <GLES2/gl2.h>
#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "GLGraphicBuffer.h"
#include "GLTestSupport.h"
#include "PwarpShaders.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"
#include "cTGridMesh.h"
#include "cTGridMeshIndices.h"

namespace {

using android::GraphicBuffer;
using android::sp;

constexpr uint32_t kUsage = GraphicBuffer::USAGE_SW_WRITE_OFTEN |
                            GraphicBuffer::USAGE_SW_READ_OFTEN | GraphicBuffer::USAGE_HW_TEXTURE |
                            GraphicBuffer::USAGE_HW_RENDER;
constexpr int kWidth = 160;
constexpr int kHeight = 120;
constexpr int kColumns = 5;  // the stabilizer's vertices; the mesh adds the border ring
constexpr int kRows = 4;
constexpr float kZoom = 1.15f;     // output positions span [-kZoom, kZoom]
constexpr float kTurnRad = 0.07f;  // turned about the centre

// Sines of a few pixels' period in red and green (a sub-pixel error shows); a ramp in blue.
uint8_t sourceTexel(int x, int y, int channel) {
    if (channel == 0)
        return static_cast<uint8_t>(std::lround(127.5 + 120.0 * std::sin(x * 0.71 + y * 0.13)));
    if (channel == 1)
        return static_cast<uint8_t>(std::lround(127.5 + 120.0 * std::cos(y * 0.83 - x * 0.21)));
    return static_cast<uint8_t>((x + 2 * y) & 0xFF);
}

// GL's bilinear sample of the source at texture coordinates (u, v), clamped to the edge.
double referenceSample(double u, double v, int channel) {
    const double fx = u * kWidth - 0.5;
    const double fy = v * kHeight - 0.5;
    const int x0 = static_cast<int>(std::floor(fx));
    const int y0 = static_cast<int>(std::floor(fy));
    const double ax = fx - x0;
    const double ay = fy - y0;
    auto texel = [channel](int x, int y) {
        return static_cast<double>(
            sourceTexel(std::clamp(x, 0, kWidth - 1), std::clamp(y, 0, kHeight - 1), channel));
    };
    return (1 - ay) * ((1 - ax) * texel(x0, y0) + ax * texel(x0 + 1, y0)) +
           ay * ((1 - ax) * texel(x0, y0 + 1) + ax * texel(x0 + 1, y0 + 1));
}

using WarpProgram = cTGLProgram<PwarpVS, PwarpFS>;

class WarpDrawTest : public gltest::CurrentContextTest {};

TEST_F(WarpDrawTest, TurnedGridMatchesBilinearReference) {
    sp<GraphicBuffer> source(
        new GraphicBuffer(kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888, kUsage));
    sp<GraphicBuffer> target(
        new GraphicBuffer(kWidth, kHeight, HAL_PIXEL_FORMAT_RGBA_8888, kUsage));
    GLGraphicBuffer sourceGl(context, source, GLGraphicBuffer::kUsageTexture);
    GLGraphicBuffer targetGl(context, target, GLGraphicBuffer::kUsageRenderbuffer);
    void* address = nullptr;
    ASSERT_EQ(source->lock(GraphicBuffer::USAGE_SW_WRITE_OFTEN, &address), 0);
    for (int y = 0; y < kHeight; ++y) {
        uint8_t* row =
            static_cast<uint8_t*>(address) + static_cast<size_t>(y) * source->getStride() * 4;
        for (int x = 0; x < kWidth; ++x) {
            for (int c = 0; c < 3; ++c)
                row[x * 4 + c] = sourceTexel(x, y, c);
            row[x * 4 + 3] = 255;
        }
    }
    source->unlock();

    cTGLShader vs(GL_VERTEX_SHADER), fs(GL_FRAGMENT_SHADER);
    ASSERT_TRUE(vs.compile(WarpProgram::vertexSource())) << vs.log();
    ASSERT_TRUE(fs.compile(WarpProgram::fragmentSource())) << fs.log();
    WarpProgram program;
    program.initialize(vs, fs);
    ASSERT_TRUE(program.link()) << program.log();
    EXPECT_EQ(program.log(), "<Blank Log>");
    EXPECT_GE(program.samplerLocation, 0);
    EXPECT_EQ(glGetAttribLocation(program.program, "aPosition"), 0);
    EXPECT_EQ(glGetAttribLocation(program.program, "aTexCoord"), 1);
    GLint attached = -1;
    glGetProgramiv(program.program, GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 0);  // detached again after linking

    // The engine's mesh, scaled by kZoom and turned: p samples at ((R^-1 p) / kZoom + 1) / 2.
    cTGridMesh mesh;
    mesh.resize(kColumns + 2, kRows + 2);
    mesh.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
    cTGridMeshIndices indices;
    indices.resize(mesh.width, mesh.height);
    const float c = std::cos(kTurnRad);
    const float s = std::sin(kTurnRad);
    std::vector<float> positions;
    for (const cTGridMesh::vec2& t : mesh.vertices) {
        const float x = kZoom * (2.0f * t.x - 1.0f);
        const float y = kZoom * (2.0f * t.y - 1.0f);
        positions.insert(positions.end(), {c * x - s * y, s * x + c * y, 0.0f});
    }

    GLuint framebuffer = 0;
    glGenFramebuffers(1, &framebuffer);
    glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
    targetGl.attachRenderBuffer();
    glViewport(0, 0, kWidth, kHeight);
    glUseProgram(program.program);
    glEnableVertexAttribArray(0);
    glEnableVertexAttribArray(1);
    glActiveTexture(GL_TEXTURE0);
    sourceGl.bindTexture();
    glUniform1i(program.samplerLocation, 0);
    glVertexAttribPointer(0, 3, GL_FLOAT, GL_FALSE, 0, positions.data());
    glVertexAttribPointer(1, 2, GL_FLOAT, GL_FALSE, 0, mesh.vertices.data());
    glDrawElements(GL_TRIANGLE_STRIP, static_cast<GLsizei>(indices.indices.size()),
                   GL_UNSIGNED_SHORT, indices.indices.data());
    sourceGl.unbindTexture();
    targetGl.detachRenderBuffer();
    glBindFramebuffer(GL_FRAMEBUFFER, 0);
    glDeleteFramebuffers(1, &framebuffer);
    glFinish();
    ASSERT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));

    // 8-bit filter weights cost about two levels; a 0.1 pixel shift moves the sines up to 9.
    ASSERT_EQ(target->lock(GraphicBuffer::USAGE_SW_READ_OFTEN, &address), 0);
    double sumError = 0.0;
    double maxError = 0.0;
    int count = 0;
    for (int y = 0; y < kHeight; ++y) {
        const uint8_t* row =
            static_cast<const uint8_t*>(address) + static_cast<size_t>(y) * target->getStride() * 4;
        for (int x = 0; x < kWidth; ++x) {
            const double px = 2.0 * (x + 0.5) / kWidth - 1.0;
            const double py = 2.0 * (y + 0.5) / kHeight - 1.0;
            const double u = ((c * px + s * py) / kZoom + 1.0) / 2.0;
            const double v = ((-s * px + c * py) / kZoom + 1.0) / 2.0;
            for (int ch = 0; ch < 3; ++ch) {
                const double error = std::abs(row[x * 4 + ch] - referenceSample(u, v, ch));
                sumError += error;
                maxError = std::max(maxError, error);
                ++count;
            }
            EXPECT_EQ(row[x * 4 + 3], 255) << "alpha at " << x << "," << y;
        }
    }
    target->unlock();
    const double meanError = sumError / count;
    EXPECT_LT(meanError, 0.6);
    EXPECT_LT(maxError, 2.5);
}

// The compiler's diagnostics reach the log; a failed link leaves the sampler alone.
TEST_F(WarpDrawTest, GLProgramFailuresReachTheLog) {
    cTGLShader bad(GL_VERTEX_SHADER), fs(GL_FRAGMENT_SHADER), unset(GL_FRAGMENT_SHADER);
    ASSERT_TRUE(fs.compile(WarpProgram::fragmentSource()));
    EXPECT_FALSE(bad.compile("void main() { gl_Position = undeclaredThing; }\n"));
    const std::string compiler = bad.log();
    EXPECT_NE(compiler.find("undeclaredThing"), std::string::npos) << compiler;
    WarpProgram failed;
    failed.samplerLocation = 1234;
    failed.initialize(bad, fs);
    EXPECT_FALSE(failed.ok);
    EXPECT_FALSE(failed.link());
    EXPECT_EQ(failed.samplerLocation, 1234);
    GLint attached = -1;
    glGetProgramiv(failed.program, GL_ATTACHED_SHADERS, &attached);
    EXPECT_EQ(attached, 0);
    const std::string log = failed.log();
    const std::string head = "Vertex Shader:\n" + compiler + "\n";
    EXPECT_EQ(log.compare(0, head.size(), head), 0) << log;
    EXPECT_NE(log.find("Program Link:\n", head.size()), std::string::npos) << log;

    // A shader never given source counts as failed, with the shader's blank log.
    WarpProgram second;
    second.initialize(fs, unset);
    EXPECT_EQ(second.message, "Fragment Shader:\n<Blank Log>\n");
}

}  // namespace
