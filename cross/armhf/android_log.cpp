// The entry points of Android's log library that the ARM build's code and tests call, for a
// target where Debian has no build of the library: messages go to the installed logger
// function (stderr by default), which is called under one lock, as the library does.
#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex gLoggerMutex;
__android_logger_function gLogger = __android_log_stderr_logger;

char priorityLetter(int priority) {
    static const char kLetters[] = "??VDIWEF";
    return priority >= 0 && priority < 8 ? kLetters[priority] : '?';
}

}  // namespace

extern "C" {

void __android_log_stderr_logger(const struct __android_logger_data* data, const char* message) {
    std::fprintf(stderr, "%c %s: %s\n", priorityLetter(data->priority),
                 data->tag != nullptr ? data->tag : "", message);
}

void __android_log_set_logger(__android_logger_function logger) {
    std::lock_guard<std::mutex> lock(gLoggerMutex);
    gLogger = logger != nullptr ? logger : __android_log_stderr_logger;
}

int __android_log_write(int priority, const char* tag, const char* text) {
    __android_logger_data data{sizeof(__android_logger_data), -1, priority, tag, nullptr, 0};
    std::lock_guard<std::mutex> lock(gLoggerMutex);
    gLogger(&data, text != nullptr ? text : "");
    return 1;
}

int __android_log_vprint(int priority, const char* tag, const char* fmt, va_list ap) {
    char message[1024];
    std::vsnprintf(message, sizeof message, fmt, ap);
    return __android_log_write(priority, tag, message);
}

int __android_log_print(int priority, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    const int written = __android_log_vprint(priority, tag, fmt, ap);
    va_end(ap);
    return written;
}

}  // extern "C"
