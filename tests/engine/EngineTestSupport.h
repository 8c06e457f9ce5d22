// Helpers of the engine tests: log priorities, thrown messages, lock probes, a deadlock guard.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "cTMutex.h"

namespace enginetest {

constexpr int kWarn = 5;
constexpr int kError = 6;

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

// Runs `work` on another thread; past `timeout` (a deadlock) it fails and ends the program.
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
