// Shared pieces of the GL test programs, which run on the real EGL/GLES2 driver (llvmpipe).
#pragma once

#include <chrono>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "GLContext.h"
#include "shared_ptr.h"

namespace gltest {

// Runs `work` on its own thread and returns its result; fails instead of hanging after 20 s.
template <typename F>
auto onOtherThread(F&& work) -> decltype(work()) {
    auto future = std::async(std::launch::async, std::forward<F>(work));
    if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        ADD_FAILURE() << "other thread did not finish in 20 s";
        std::abort();  // a deadlocked worker cannot be joined; end the program instead
    }
    return future.get();
}

// Message of the runtime_error thrown by `work`, or "" when it throws none.
template <typename F>
std::string thrown(F&& work) {
    try {
        work();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "";
}

// A fresh engine context, held current on the test's thread by a guard for the whole test.
class CurrentContextTest : public ::testing::Test {
  protected:
    void SetUp() override {
        context.acquire(new GLContext(EGL_NO_CONTEXT), nullptr);
        guard = new GLContext::Guard(context);
    }
    void TearDown() override {
        delete guard;
        context.release();
    }
    shared_ptr<GLContext> context;
    GLContext::Guard* guard = nullptr;
};

}  // namespace gltest
