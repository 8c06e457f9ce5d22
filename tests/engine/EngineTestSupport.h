// Small helpers shared by the engine's behaviour tests: expected log texts, ordered log checks,
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

struct Expected {
    int priority;
    std::string text;
};

// Every expected line appears, tagged "[QLMR]" with its priority, in this order (other lines
// may come in between: other threads log too).
inline testing::AssertionResult linesInOrder(const std::vector<LogLine>& lines,
                                             const std::vector<Expected>& expected) {
    size_t at = 0;
    for (const Expected& e : expected) {
        bool found = false;
        for (; at < lines.size(); ++at) {
            if (lines[at].text == e.text) {
                if (lines[at].priority != e.priority || lines[at].tag != "[QLMR]") {
                    return testing::AssertionFailure()
                           << "\"" << e.text << "\" logged with priority " << lines[at].priority
                           << " tag " << lines[at].tag << ", expected " << e.priority;
                }
                found = true;
                ++at;
                break;
            }
        }
        if (!found)
            return testing::AssertionFailure() << "missing (or out of order): \"" << e.text << "\"";
    }
    return testing::AssertionSuccess();
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
