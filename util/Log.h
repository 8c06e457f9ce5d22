// Engine logging and assertions.
//
// Every engine line goes to the Android log under the tag "[QLMR]": priority 4 (info) for
// progress and status, 5 (warning) for failures, warnings and diagnostics, 6 (error) for GL
// errors and a few cache and sync messages.
#pragma once

#include <android/log.h>

#include <cstdlib>
#include <stdexcept>

#define QLMR_LOG_TAG "[QLMR]"

#define QLOGI(...) __android_log_print(ANDROID_LOG_INFO, QLMR_LOG_TAG, __VA_ARGS__)
#define QLOGW(...) __android_log_print(ANDROID_LOG_WARN, QLMR_LOG_TAG, __VA_ARGS__)
#define QLOGE(...) __android_log_print(ANDROID_LOG_ERROR, QLMR_LOG_TAG, __VA_ARGS__)

// Programming-error check, compiled into every build. On failure it logs
// "Assert: [<source>:<line>] <condition text>" at warning priority and aborts. `source` is the
// file's path as the engine reports it (e.g. "library/src/main/jni/src/native"); the condition
// is usually written as 0 && "message" so that the message is what gets printed.
#define QLMR_ASSERT(source, condition)                                                 \
    do {                                                                               \
        if (!(condition)) {                                                            \
            __android_log_print(ANDROID_LOG_WARN, QLMR_LOG_TAG, "Assert: [%s:%d] %s\n", \
                                source, __LINE__, #condition);                         \
            abort();                                                                   \
        }                                                                              \
    } while (0)

namespace qlmr {

// Logs `message` at warning priority and throws it as std::runtime_error: the engine's way
// of giving up on a condition it cannot continue from.
[[noreturn]] inline void throwLogged(const char* message) {
    QLOGW("%s", message);
    throw std::runtime_error(message);
}

}  // namespace qlmr
