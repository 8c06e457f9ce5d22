// Small helpers shared by the engine's behaviour tests: expected log texts, log lines by prefix,
// thrown messages and lock probes from another thread.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "cTMutex.h"

namespace enginetest {

constexpr int kInfo = 4;
constexpr int kWarn = 5;
constexpr int kError = 6;

// printf-style text, for expected log lines with values in them.
inline std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* fmt, ...) {
    char text[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof(text), fmt, args);
    va_end(args);
    return text;
}

// Lines whose text starts with `prefix`, in order.
inline std::vector<LogLine> linesStartingWith(const std::vector<LogLine>& lines,
                                              const std::string& prefix) {
    std::vector<LogLine> out;
    for (const LogLine& l : lines) {
        if (l.text.compare(0, prefix.size(), prefix) == 0)
            out.push_back(l);
    }
    return out;
}

// The message of the std::runtime_error that `work` throws, or a note that it threw nothing.
template <typename F>
std::string thrownMessage(F&& work) {
    try {
        work();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

// True when another thread can take `mutex` at once (nobody holds it).
inline bool freeForOtherThreads(cTMutex& mutex) {
    auto probe = std::async(std::launch::async, [&mutex] {
        if (pthread_mutex_trylock(&mutex.mutex) != 0)
            return false;
        pthread_mutex_unlock(&mutex.mutex);
        return true;
    });
    if (probe.wait_for(std::chrono::seconds(5)) != std::future_status::ready)
        return false;
    return probe.get();
}

// Runs `work` on another thread and waits for it at most `timeout`. A deadlocked worker cannot
// be joined, so a time-out ends the program (after recording the failure) instead of hanging.
template <typename F>
void finishesWithin(std::chrono::milliseconds timeout, const char* what, F&& work) {
    auto done = std::async(std::launch::async, std::forward<F>(work));
    if (done.wait_for(timeout) != std::future_status::ready) {
        ADD_FAILURE() << what << " did not finish within " << timeout.count() << " ms";
        std::fprintf(stderr, "%s did not finish: deadlock\n", what);
        std::abort();
    }
    done.get();
}

}  // namespace enginetest
