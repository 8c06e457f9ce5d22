// Base of the engine's worker objects (the processing loop and the gyro sensor thread).
//
// A derived class owns a 32-bit state word (ThreadState below) that is the only channel between
// the thread that stops the worker and the worker itself: the worker sets Running first thing
// and Exited last thing in Run(), and re-reads the word every round of its loop; the stopping
// thread sets StopRequested, joins, then sets Joined. A worker may be started again only from
// Created or Joined.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace ThreadState {
enum : int32_t {
    Created = 0,
    Running = 1,
    StopRequested = 2,
    Exited = 3,
    Joined = 4,
};

// True in the two states from which a worker may be (re)started: 0 or 4.
inline bool canStart(int32_t state) { return (state | Joined) == Joined; }
}  // namespace ThreadState

class cTThread {
public:
    pthread_t thread{};

    cTThread() = default;
    virtual ~cTThread() = default;
    cTThread(const cTThread&) = delete;
    cTThread& operator=(const cTThread&) = delete;

    // The thread body; runs on the worker thread.
    virtual void Run() = 0;

    // pthread start routine: `arg` is the cTThread; calls its Run() and returns null. It catches
    // nothing, so an exception leaving Run() ends the process.
    static void* threadCaller(void* arg);

protected:
    // Creates the joinable worker thread running Run(). The creation result is not checked.
    void startThread();

    // Stop sequence: state = StopRequested, join, state = Joined.
    void stopThread(std::atomic<int32_t>& state);
};
