#include <GLES2/gl2.h>
#include <gtest/gtest.h>

#include <string>

#include "GLTestSupport.h"
#include "PwarpShaders.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"

namespace {

using WarpProgram = cTGLProgram<PwarpVS, PwarpFS>;

class GLProgramTest : public gltest::CurrentContextTest {};

TEST_F(GLProgramTest, WarpProgramBuildsWithFixedBindingsAndFailuresReachTheLog) {
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
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));

    // The compiler's diagnostics reach the log; a failed link leaves the sampler alone.
    cTGLShader bad(GL_VERTEX_SHADER), unset(GL_FRAGMENT_SHADER);
    EXPECT_FALSE(bad.compile("void main() { gl_Position = undeclaredThing; }\n"));
    const std::string compiler = bad.log();
    EXPECT_NE(compiler.find("undeclaredThing"), std::string::npos) << compiler;
    WarpProgram failed;
    failed.samplerLocation = 1234;
    failed.initialize(bad, fs);
    EXPECT_FALSE(failed.ok);
    EXPECT_FALSE(failed.link());
    EXPECT_EQ(failed.samplerLocation, 1234);
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
