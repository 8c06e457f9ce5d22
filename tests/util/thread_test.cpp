#include "cTMutex.h"
#include "cTThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <new>
#include <thread>

namespace {

using namespace std::chrono_literals;

TEST(cTMutex, RecursiveLockNeedsAsManyUnlocksAndDestroyingWhileHeldReleases) {
    cTMutex m;
    ASSERT_EQ(m.lock(), 0);
    ASSERT_EQ(m.lock(), 0);  // same thread again: no deadlock
    ASSERT_EQ(m.unlock(), 0);

    auto other = std::async(std::launch::async, [&m] { return pthread_mutex_trylock(&m.mutex); });
    EXPECT_EQ(other.get(), EBUSY);  // still held once

    ASSERT_EQ(m.unlock(), 0);
    auto again = std::async(std::launch::async, [&m] {
        int r = pthread_mutex_trylock(&m.mutex);
        if (r == 0)
            pthread_mutex_unlock(&m.mutex);
        return r;
    });
    EXPECT_EQ(again.get(), 0);

    // Destroyed while its owner holds it: unlocked first, then really destroyed (kind -1).
    alignas(cTMutex) unsigned char storage[sizeof(cTMutex)];
    auto* held = new (storage) cTMutex;
    pthread_mutex_t* raw = &held->mutex;
    ASSERT_EQ(held->lock(), 0);
    ASSERT_NE(raw->__data.__kind, -1);
    held->~cTMutex();
    EXPECT_EQ(raw->__data.__kind, -1);
    EXPECT_EQ(raw->__data.__nusers, 0u);
}

// A worker with the engine's loop shape: Running first, poll the state each round, Exited last.
class Worker : public cTThread {
  public:
    std::atomic<int32_t> state{ThreadState::Created};
    std::atomic<int> rounds{0};
    int maxRounds;
    std::chrono::milliseconds sleep;

    explicit Worker(int maxRoundsIn, std::chrono::milliseconds sleepIn)
        : maxRounds(maxRoundsIn), sleep(sleepIn) {}

    void start() { startThread(); }
    void stop() { stopThread(state); }

    void Run() override {
        state = ThreadState::Running;
        while (state.load(std::memory_order_relaxed) == ThreadState::Running) {
            if (rounds.fetch_add(1) + 1 >= maxRounds)
                break;
            std::this_thread::sleep_for(sleep);
        }
        state = ThreadState::Exited;
    }
};

// Stopped during its sleep, restarted, stopped again; exited on its own, it is still joined.
TEST(cTThread, StoppedDuringSleepOrExitedOnItsOwnEndsJoinedAndRestartsFromJoined) {
    Worker w(1 << 30, 20ms);
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(ThreadState::canStart(w.state.load()));
        const int before = w.rounds.load();
        w.start();
        while (w.rounds.load() == before)
            std::this_thread::yield();
        EXPECT_FALSE(ThreadState::canStart(w.state.load()));
        auto stopped = std::async(std::launch::async, [&w] { w.stop(); });
        ASSERT_EQ(stopped.wait_for(5s), std::future_status::ready) << "stop did not return";
        EXPECT_EQ(w.state.load(), ThreadState::Joined);
    }

    Worker done(3, 1ms);
    done.start();
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (done.state.load() != ThreadState::Exited &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    ASSERT_EQ(done.state.load(), ThreadState::Exited);
    done.stop();
    EXPECT_EQ(done.state.load(), ThreadState::Joined);
    EXPECT_EQ(done.rounds.load(), 3);
}

}  // namespace
