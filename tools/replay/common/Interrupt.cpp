#include "common/Interrupt.h"

#include <atomic>
#include <csignal>

namespace qlmr::replay {
namespace {

// Lock-free, so that the handler may store into it.
std::atomic<int> requested{-1};  // -1: none; 0: requested in-process; else the signal number
static_assert(std::atomic<int>::is_always_lock_free);

extern "C" void onSignal(int signo) {
    requested.store(signo);
}

}  // namespace

void installInterruptHandlers() {
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    // SA_RESETHAND: a second signal of the same kind takes the default action (the user
    // insists). No SA_RESTART: a blocked read or wait returns with EINTR.
    sa.sa_flags = SA_RESETHAND;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

bool interruptRequested() {
    return requested.load() >= 0;
}

int interruptSignal() {
    const int s = requested.load();
    return s > 0 ? s : 0;
}

void requestInterrupt() {
    requested.store(0);
}

void clearInterrupt() {
    requested.store(-1);
}

}  // namespace qlmr::replay
