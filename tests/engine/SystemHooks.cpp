#include "SystemHooks.h"

#include <GLES2/gl2.h>
#include <dlfcn.h>
#include <errno.h>
#include <sys/syscall.h>
#include <time.h>

#include <atomic>
#include <mutex>

namespace {

thread_local bool tFailBoottime = false;
thread_local bool tFailFramebuffers = false;
thread_local bool tBreakShaders = false;

// The GL library's own definition of `name`.
template <typename F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

std::mutex gSleepMutex;
std::atomic<bool> gRecording{false};
pthread_t gSleeper{};
std::vector<useconds_t> gSleeps;

}  // namespace

namespace systemhooks {

void failBoottimeReadsOnThisThread(bool fail) {
    tFailBoottime = fail;
}

void recordSleepsOf(pthread_t thread) {
    std::lock_guard<std::mutex> lock(gSleepMutex);
    gRecording = thread != pthread_t{};
    if (gRecording) {
        gSleeper = thread;
        gSleeps.clear();
    }
}

std::vector<useconds_t> recordedSleeps() {
    std::lock_guard<std::mutex> lock(gSleepMutex);
    return gSleeps;
}

void failFramebufferCallsOnThisThread(bool fail) {
    tFailFramebuffers = fail;
}

void breakShaderSourcesOnThisThread(bool broken) {
    tBreakShaders = broken;
}

}  // namespace systemhooks

extern "C" int clock_gettime(clockid_t clock, struct timespec* ts) noexcept {
    if (tFailBoottime && clock == CLOCK_BOOTTIME) {
        errno = EINVAL;
        return -1;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, ts));
}

extern "C" int usleep(useconds_t us) {
    if (gRecording.load(std::memory_order_relaxed)) {
        std::lock_guard<std::mutex> lock(gSleepMutex);
        if (gRecording && pthread_equal(pthread_self(), gSleeper))
            gSleeps.push_back(us);
    }
    timespec request{static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (nanosleep(&request, &request) != 0 && errno == EINTR) {
    }
    return 0;
}

extern "C" void glGenFramebuffers(GLsizei n, GLuint* framebuffers) {
    static auto real = next<void (*)(GLsizei, GLuint*)>("glGenFramebuffers");
    real(tFailFramebuffers ? -1 : n, framebuffers);  // a negative count: GL_INVALID_VALUE
}

extern "C" void glDeleteFramebuffers(GLsizei n, const GLuint* framebuffers) {
    static auto real = next<void (*)(GLsizei, const GLuint*)>("glDeleteFramebuffers");
    real(tFailFramebuffers ? -1 : n, framebuffers);
}

extern "C" void glShaderSource(GLuint shader, GLsizei count, const GLchar* const* string,
                               const GLint* length) {
    static auto real =
        next<void (*)(GLuint, GLsizei, const GLchar* const*, const GLint*)>("glShaderSource");
    static const GLchar* const kNotGlsl = "this is not a shader;\n";
    if (tBreakShaders)
        real(shader, 1, &kNotGlsl, nullptr);
    else
        real(shader, count, string, length);
}
