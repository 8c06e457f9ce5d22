// Shared pieces of the GL test programs, which run on the real EGL/GLES2 driver (llvmpipe).
#pragma once

#include <chrono>
#include <future>
#include <utility>

#include <gtest/gtest.h>

namespace gltest {

// Runs `work` on its own thread and returns its result; fails (instead of hanging) when it takes
// longer than 20 s.
template <typename F>
auto onOtherThread(F&& work) -> decltype(work()) {
    auto future = std::async(std::launch::async, std::forward<F>(work));
    if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "other thread did not finish in 20 s";
        std::abort();  // a deadlocked worker cannot be joined; end the program instead
    }
    return future.get();
}

}  // namespace gltest
