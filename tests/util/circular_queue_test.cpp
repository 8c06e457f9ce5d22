#include "CircularQueueThreadSafe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

struct Slot {
    long value = -1;
    cTMutex mutex;
};
using Queue = CircularQueueThreadSafe<Slot>;

// Waits for a thread that must end; on a deadlock the program ends instead of hanging.
template <typename R>
void mustFinish(std::future<R>& f, std::chrono::seconds limit, const char* what) {
    if (f.wait_for(limit) == std::future_status::ready)
        return;
    ADD_FAILURE() << what << " still blocked after " << limit.count() << " s: deadlock";
    std::fflush(stdout);
    std::_Exit(1);
}

// Producer side of one frame: take, fill, publish.
void push(Queue& q, long value) {
    Slot* s = nullptr;
    ASSERT_TRUE(q.pushLock(s));
    s->value = value;
    q.unlock(s);
}

// Consumer side of one frame: peek, pop, release; returns the value.
long take(Queue& q) {
    Slot* peeked = nullptr;
    Slot* popped = nullptr;
    EXPECT_TRUE(q.peekLock(peeked));
    EXPECT_TRUE(q.pop(popped));
    EXPECT_EQ(peeked, popped);
    long v = peeked->value;
    q.unlock(peeked);
    return v;
}

// The message of the runtime_error `f` throws.
template <typename F>
std::string messageOf(F f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

TEST(CircularQueueThreadSafe, FullQueueRefusesPushEvenAfterAWrapEmptyQueueNullsOut) {
    for (int capacity : {1, 0, -3}) {
        EXPECT_EQ(messageOf([&] { Queue bad(capacity); }),
                  "Cannot have a circular queue with less than 2 elements");
    }
    Queue q(2);
    Slot marker;
    Slot* s = &marker;
    EXPECT_FALSE(q.pop(s));
    EXPECT_EQ(s, nullptr);
    s = &marker;
    EXPECT_FALSE(q.peekLock(s));
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(messageOf([&] { q.unlock(nullptr); }),
              "CircularQueueThreadSafe Trying to unlock a null element, logical error!");

    push(q, 1);
    EXPECT_EQ(q.size(), 1);
    push(q, 2);
    EXPECT_EQ(q.size(), 0);  // full: indices equal again after the wrap

    s = &marker;
    EXPECT_FALSE(q.pushLock(s));
    EXPECT_EQ(s, &marker);

    EXPECT_EQ(take(q), 1);
    EXPECT_EQ(q.size(), 1);
    push(q, 3);  // room again after one pop
    EXPECT_FALSE(q.pushLock(s));
    EXPECT_EQ(take(q), 2);
    EXPECT_EQ(take(q), 3);
    EXPECT_EQ(q.size(), 0);

    // Peeking twice gives the same slot, which then needs two unlocks.
    push(q, 7);
    Slot* a = nullptr;
    Slot* b = nullptr;
    ASSERT_TRUE(q.peekLock(a));
    ASSERT_TRUE(q.peekLock(b));
    EXPECT_EQ(a, b);
    EXPECT_EQ(q.unlock(a), 0);
    auto tryLock = [&] {
        return std::async(std::launch::async,
                          [a] {
                              int r = pthread_mutex_trylock(&a->mutex.mutex);
                              if (r == 0)
                                  pthread_mutex_unlock(&a->mutex.mutex);
                              return r;
                          })
            .get();
    };
    EXPECT_EQ(tryLock(), EBUSY);
    EXPECT_EQ(q.unlock(b), 0);
    EXPECT_EQ(tryLock(), 0);

    // Full after the write index wrapped mid-ring.
    Queue q3(3);
    push(q3, 1);
    EXPECT_EQ(take(q3), 1);  // read index now 1
    push(q3, 2);
    push(q3, 3);  // write index wraps to 0
    EXPECT_EQ(q3.size(), 2);
    push(q3, 4);
    EXPECT_EQ(q3.size(), 0);
    EXPECT_FALSE(q3.pushLock(s));
    EXPECT_EQ(take(q3), 2);
    EXPECT_EQ(take(q3), 3);  // read index wraps: flag flips back
    EXPECT_EQ(take(q3), 4);
    EXPECT_FALSE(q3.pop(s));
}

// A slot popped but not yet released: pushLock (and so size()) waits for the consumer's unlock.
TEST(CircularQueueThreadSafe, ProducerWaitsForSlotConsumerStillHolds) {
    Queue q(2);
    push(q, 1);
    push(q, 2);
    Slot* held = nullptr;
    ASSERT_TRUE(q.peekLock(held));
    ASSERT_TRUE(q.pop(held));
    ASSERT_EQ(held->value, 1);

    auto producer = std::async(std::launch::async, [&q] {
        Slot* s = nullptr;
        if (!q.pushLock(s))
            return static_cast<Slot*>(nullptr);
        s->value = 3;
        q.unlock(s);
        return s;
    });
    EXPECT_EQ(producer.wait_for(200ms), std::future_status::timeout);
    auto sizer = std::async(std::launch::async, [&q] { return q.size(); });
    EXPECT_EQ(sizer.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(held->value, 1);  // not overwritten while held

    q.unlock(held);
    mustFinish(producer, 10s, "producer");
    mustFinish(sizer, 10s, "size()");
    EXPECT_EQ(producer.get(), held);
    EXPECT_EQ(sizer.get(), 0);  // full again
    EXPECT_EQ(take(q), 2);
    EXPECT_EQ(take(q), 3);
}

// A consumer that reaches a slot still being filled waits for the producer's unlock.
TEST(CircularQueueThreadSafe, ConsumerWaitsForSlotStillBeingFilled) {
    Queue q(4);
    std::promise<void> pushed, go;
    auto producer = std::async(std::launch::async, [&] {
        Slot* s = nullptr;
        if (!q.pushLock(s))
            return false;
        s->value = 1;
        pushed.set_value();
        bool released = go.get_future().wait_for(10s) == std::future_status::ready;
        s->value = 42;
        q.unlock(s);
        return released;
    });
    auto pushedFuture = pushed.get_future();
    mustFinish(pushedFuture, 10s, "pushLock");
    EXPECT_EQ(q.size(), 1);  // counted as queued while still being filled
    auto consumer = std::async(std::launch::async, [&q] { return take(q); });
    EXPECT_EQ(consumer.wait_for(200ms), std::future_status::timeout);
    go.set_value();
    mustFinish(consumer, 10s, "consumer");
    EXPECT_EQ(consumer.get(), 42);
    EXPECT_TRUE(producer.get());
}

TEST(CircularQueueThreadSafe, OneProducerOneConsumerKeepOrderWithoutLoss) {
    constexpr long kFrames = 20000;
    Queue q(3);
    std::atomic<bool> consumerQuit{false};
    auto producer = std::async(std::launch::async, [&] {
        for (long i = 0; i < kFrames && !consumerQuit;) {
            Slot* s = nullptr;
            if (!q.pushLock(s)) {
                std::this_thread::yield();
                continue;
            }
            s->value = i++;
            q.unlock(s);
        }
    });
    // Returns the number of frames received in order before the first wrong one.
    auto consumer = std::async(std::launch::async, [&] {
        long expected = 0;
        while (expected < kFrames) {
            Slot* s = nullptr;
            if (!q.peekLock(s)) {
                std::this_thread::yield();
                continue;
            }
            long v = s->value;
            Slot* popped = nullptr;
            bool ok = q.pop(popped) && popped == s && v == expected;
            q.unlock(s);
            if (!ok)
                break;
            ++expected;
        }
        consumerQuit = true;
        return expected;
    });
    mustFinish(producer, 120s, "producer");
    mustFinish(consumer, 120s, "consumer");
    EXPECT_EQ(consumer.get(), kFrames) << "first frame out of order or lost";
    Slot* s = nullptr;
    EXPECT_FALSE(q.pop(s));
}

}  // namespace
