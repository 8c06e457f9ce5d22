// Deadlock guard for tests: runs a call on its own thread and waits for it a bounded time.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <thread>

// Runs `f` on another thread; false if it has not finished within `timeout` (a deadlock). The
// thread is detached, so a call that never returns leaves the test failing instead of hanging.
template <typename F>
bool finishesWithin(std::chrono::milliseconds timeout, F f) {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> future = done->get_future();
    std::thread([done, f]() mutable {
        f();
        done->set_value();
    }).detach();
    return future.wait_for(timeout) == std::future_status::ready;
}
