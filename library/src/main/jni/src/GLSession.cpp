// GL session: the engine's GL objects live from onResume to onPause (Java caller thread).
// onResume also reads the two diagnostic system properties and prints the build options.
#include <cutils/properties.h>

#include <cstdlib>
#include <string>

#include "Context.h"

#include <GLES2/gl2ext.h>
#include "Log.h"
#include "cTTiming.h"

namespace {

constexpr const char* kSourceFile = "library/src/main/jni/src/Context";

const char kBuildOptions[] =
    "Building for platform: oem_qcom8976_board_O ~Building for arch: 32 ~Building for ndk: "
    "android-23 ~Building for Android: 6.0 ~Building for GPU: adreno ~Building with GLES: 2 "
    "~Building with GLSL: 300 ~Building with Android Headers for: oem_qcom8976_board_O "
    "~Building with Android Libraries for: oem_qcom8976_board_O ~Flags: Platform is QCOM "
    "~Flags: Frame metadata will be read from the image itself";

// Compiles one shader of the warp program; a failure is logged with the compiler's text and
// the session goes on (rendering then runs with a broken program).
cTGLShader* compileShader(GLenum type, const char* source, const char* failureText) {
    auto* shader = new cTGLShader(type);
    if (!shader->compile(source)) {
        QLOGE("%s", failureText);
        QLOGE("%s", shader->log().c_str());
    }
    return shader;
}

}  // namespace

void Context::onResume() {
    cTTiming timing("Context::onResume()");
    QLOGI("onResume");

    char value[PROPERTY_VALUE_MAX];
    property_get("debug.camera.qlmr.EIS.log", value, "0");
    eis_debug = atoi(value) != 0 ? 1 : 0;
    QLOGW(eis_debug ? "debug.camera.qlmr.EIS.log = 1" : "debug.camera.qlmr.EIS.log = 0");
    Boottime_Monotonic_timerDiff_got = 0;

    property_get("persist.qlmr.EIS.vid.startUs", value, "0");
    if (value[0] != '\0') {
        QLOGW("persist.qlmr.EIS.vid.startUs = %s", value);
        StartTimeOffsetUs = atoi(value);
    } else {
        StartTimeOffsetUs = 0;
    }
    QLOGW("StartTimeOffsetUs = %d", StartTimeOffsetUs);

    QLOGW("[ABO] Application build options:");
    QLOGW("[ABO] ----------------------------------------");
    std::string options(kBuildOptions);
    size_t begin = 0;
    for (;;) {
        size_t tilde = options.find('~', begin);
        QLOGW("[ABO] %s", options.substr(begin, tilde - begin).c_str());
        if (tilde == std::string::npos)
            break;
        begin = tilde + 1;
    }
    QLOGW("[ABO] ----------------------------------------");
    timing("logcat");

    jsm.lock();
    bool surfacesRegistered = !jsm.windows.empty();
    jsm.unlock();
    if (surfacesRegistered)
        QLOGW("onResume JSM is not empty ... surface has been reused?");

    {
        shared_ptr<GLContext> context;
        context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
        glContext = context;
        shared_ptr<GbMapper> mapper;
        mapper.acquire(new GbMapper(glContext, 3), nullptr);
        gbMapper = mapper;
    }
    timing("glContext");

    glContext->makeCurrent(nullptr);
    {
        shared_ptr<GLTexture> texture;
        texture.acquire(
            new GLTexture(glContext, GL_TEXTURE_EXTERNAL_OES, GL_LINEAR, GL_CLAMP_TO_EDGE),
            nullptr);
        cameraTexture = texture;
    }

    glGenFramebuffers(1, &framebuffer);
    GLenum error = glGetError();
    if (error != GL_NO_ERROR) {
        QLOGE(" %s %d (%d)\n", "void Context::onResume()", 566, static_cast<int>(error));
    } else {
        vertexShader =
            compileShader(PwarpVS::type, PwarpVS::source, "Could not compile Vertex Shader: ");
        fragmentShader =
            compileShader(PwarpFS::type, PwarpFS::source, "Could not compile Fragment Shader: ");
        program = new cTGLProgram<PwarpVS, PwarpFS>();
        program->initialize(*vertexShader, *fragmentShader);
        if (!program->link()) {
            QLOGE("Could not link gl program: ");
            QLOGE("%s", program->log().c_str());
        }
        timing("shaders");
    }
    glContext->clearCurrent();
}

void Context::onPause() {
    cTTiming timing("Context::onPause()");
    QLOGI("onPause");
    glContext->makeCurrent(nullptr);

    glDeleteFramebuffers(1, &framebuffer);
    GLenum error = glGetError();
    if (error != GL_NO_ERROR) {
        QLOGE(" %s %d (%d)\n", "void Context::onPause()", 679, static_cast<int>(error));
        glContext->clearCurrent();
        return;
    }

    cameraTexture.release();
    // Each wrapper deletes its GL name (glDeleteProgram / glDeleteShader) in its destructor.
    delete program;
    program = nullptr;
    delete fragmentShader;
    fragmentShader = nullptr;
    delete vertexShader;
    vertexShader = nullptr;
    gbMapper.release();
    frameQueue.release();

    glContext->clearCurrent();
    glContext.release();
    timing("destroy");
}

void Context::lock() {
    if (glGuard.data != nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "glLock Logical Error");
    shared_ptr<GLContext::Guard> guard;
    guard.acquire(new GLContext::Guard(glContext), nullptr);
    glGuard = guard;
}

void Context::unlock() {
    if (glGuard.data == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "glUnlock Logical Error");
    glGuard.release();
}
