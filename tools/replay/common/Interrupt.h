// Interruption of a replay by the user (SIGINT, SIGTERM). The handlers only raise a flag; the
// sessions and the replay's phases poll it at points where they can stop cleanly (the engine
// stopped, the encoders closed, partial outputs removed) and then throw Interrupted. A second
// signal of the same kind ends the program at once (the default action is restored by the first).
#pragma once

#include <stdexcept>
#include <string>

namespace qlmr::replay {

// Thrown by the phase that noticed the request, after it has torn down what it started.
class Interrupted : public std::runtime_error {
  public:
    explicit Interrupted(const std::string& what = "interrupted") : std::runtime_error(what) {}
};

// Installs the SIGINT and SIGTERM handlers (idempotent). Called once by each command's main.
void installInterruptHandlers();

// True once a handled signal has arrived (or requestInterrupt() was called). Any thread.
bool interruptRequested();

// The signal that asked for the interruption, 0 when none did (requestInterrupt()).
int interruptSignal();

// Raises the flag as a signal would (tests; a watchdog that gives up).
void requestInterrupt();
// Lowers it again (tests only: one process runs many replays).
void clearInterrupt();

// Throws Interrupted when the flag is raised.
inline void throwIfInterrupted() {
    if (interruptRequested())
        throw Interrupted();
}

}  // namespace qlmr::replay
