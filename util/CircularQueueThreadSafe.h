// Bounded ring of pre-built elements shared by exactly one producer thread and one consumer
// thread. Elements are never copied in or out: each side is handed a pointer to a slot, works on
// it in place while holding that slot's lock, and gives it back with unlock().
//
//   producer (camera callback thread):  pushLock -> fill the slot -> unlock
//   consumer (processing thread):       peekLock -> use the slot -> pop -> unlock
//
// Requirement on T: default-constructible, with a public member `cTMutex mutex`, the slot lock.
// The queue locks a slot through `slot.mutex.mutex`; T must not lock it by itself while the slot
// is queued. (The engine's frame record keeps this lock as its last member.)
//
// Locks: the queue lock guards the indices and the full flag and is held for one operation only.
// A slot lock is held from pushLock/peekLock to the matching unlock, across whatever the caller
// does in between. Order is always queue lock, then slot lock; unlock() takes only the slot lock.
// Both locks are recursive: advancing an index re-reads the capacity under the queue lock.
//
// Why the producer may block inside pushLock: pop() frees the slot index before the consumer is
// done with the slot, so when the write index comes round to a slot the consumer still holds,
// pushLock waits on that slot's lock (with the queue lock held, stalling every other queue
// operation) until the consumer's unlock. That is what keeps the producer from overwriting a slot
// that is still being read. Likewise a peekLock that reaches a slot still being filled waits for
// the producer's unlock. Neither wait can deadlock as long as the consumer pops before it unlocks
// and neither side calls pushLock/peekLock/pop while it holds a slot.
//
// Full and empty both have read index == write index; the full flag tells them apart. It starts
// clear and is inverted every time either index wraps from the last slot to slot 0.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <stdexcept>
#include <type_traits>

#include "TsanBuild.h"
#include "cTMutex.h"

#if QLMR_TSAN
#include <errno.h>
#include <sched.h>
#endif

template <typename T>
class CircularQueueThreadSafe {
    static_assert(std::is_same<decltype(T::mutex), cTMutex>::value,
                  "a queue element needs a member `cTMutex mutex` (its slot lock)");

  public:
    // Field order is fixed. All four values below `mutex` are guarded by it.
    int32_t full;         // 0/1: tells full from empty when readIndex == writeIndex
    int32_t capacity;     // number of slots, >= 2, fixed at construction
    T* slots;             // one array of `capacity` elements, owned
    uint32_t readIndex;   // slot of the oldest published element
    uint32_t writeIndex;  // slot that the next pushLock hands out
    cTMutex mutex;        // the queue lock (recursive)

    // Builds every slot in place, each with its own unlocked slot lock. Throws std::runtime_error
    // for a capacity below 2; an allocation failure propagates. Either way the queue lock is
    // released and destroyed before the exception leaves.
    explicit CircularQueueThreadSafe(int capacityIn)
        : full(0), capacity(0), slots(nullptr), readIndex(0), writeIndex(0) {
        mutex.lock();
        if (capacityIn < 2) {
            mutex.unlock();
            throw std::runtime_error("Cannot have a circular queue with less than 2 elements");
        }
        capacity = capacityIn;
        try {
            slots = new T[static_cast<size_t>(capacity)];
        } catch (...) {
            mutex.unlock();
            throw;
        }
        mutex.unlock();
    }

    // Destroys the slots from the last to the first and frees the array, under the queue lock.
    // A queue without its array is a logic error; the exception cannot leave a destructor, so
    // the process terminates.
    ~CircularQueueThreadSafe() {
        mutex.lock();
        if (slots == nullptr)
            logicError();
        delete[] slots;  // element destructors run last to first
        slots = nullptr;
        mutex.unlock();
        // the queue lock itself is released and destroyed by ~cTMutex
    }

    CircularQueueThreadSafe(const CircularQueueThreadSafe&) = delete;
    CircularQueueThreadSafe& operator=(const CircularQueueThreadSafe&) = delete;

    // Producer thread. Full queue: returns false and leaves `element` as it was. Otherwise hands
    // out the slot at the write index with its slot lock taken (waiting for the consumer if it
    // still holds that slot) and advances the write index; the slot counts as queued from now,
    // but a consumer cannot use it before the producer's unlock().
    bool pushLock(T*& element) {
        mutex.lock();
        if (readIndex == writeIndex && full) {
            mutex.unlock();
            return false;
        }
        element = &slots[writeIndex];
        lockSlot(element);
        advance(writeIndex);
        mutex.unlock();
        return true;
    }

    // Either thread. Releases the slot lock of `element`; returns the pthread result. Does not
    // take the queue lock, so it can always end the other side's wait.
    int unlock(T* element) {
        if (element == nullptr) {
            throw std::runtime_error(
                "CircularQueueThreadSafe Trying to unlock a null element, logical error!");
        }
        return pthread_mutex_unlock(&element->mutex.mutex);
    }

    // Consumer thread. Empty queue: returns false and sets `element` to null. Otherwise hands out
    // the oldest slot with its slot lock taken (waiting while the producer still fills it); the
    // read index does not move, so a second peekLock returns the same slot.
    bool peekLock(T*& element) {
        mutex.lock();
        if (readIndex == writeIndex && !full) {
            element = nullptr;
            mutex.unlock();
            return false;
        }
        element = &slots[readIndex];
        lockSlot(element);
        mutex.unlock();
        return true;
    }

    // Consumer thread. Empty queue: returns false and sets `element` to null. Otherwise sets it
    // to the oldest slot and advances the read index. Touches no slot lock: the consumer keeps
    // the lock from its peekLock and releases it with unlock() when done with the slot.
    bool pop(T*& element) {
        mutex.lock();
        if (readIndex == writeIndex && !full) {
            element = nullptr;
            mutex.unlock();
            return false;
        }
        element = &slots[readIndex];
        advance(readIndex);
        mutex.unlock();
        return true;
    }

    // Distance from the read index to the write index. A full queue has equal indices and so
    // reports 0, exactly like an empty one; callers that judge fullness rely on this value as is.
    int size() {
        mutex.lock();
        int distance = static_cast<int>(writeIndex) - static_cast<int>(readIndex);
        if (distance < 0)
            distance += capacity;
        mutex.unlock();
        return distance;
    }

    // Number of slots, read under the queue lock.
    int getCapacity() {
        mutex.lock();
        int value = capacity;
        mutex.unlock();
        return value;
    }

  private:
    // Takes a slot lock; the caller holds the queue lock and waits here as long as it takes.
    static void lockSlot(T* element) {
#if QLMR_TSAN
        // The consumer calls pop() while holding a slot lock, the reverse of the order here.
        // That cannot deadlock: the slot pushLock waits for is never one the consumer holds
        // unpopped (the queue would be full), and peekLock and pop run on the same thread.
        // ThreadSanitizer's lock-order graph cannot see that invariant, so its build takes the
        // slot with try-locks, which add no lock-order edges; the wait itself is the same.
        while (pthread_mutex_trylock(&element->mutex.mutex) == EBUSY)
            sched_yield();
#else
        pthread_mutex_lock(&element->mutex.mutex);
#endif
    }

    // Caller holds the queue lock; the nested lock in getCapacity() relies on its recursion.
    void advance(uint32_t& index) {
        ++index;
        if (index == static_cast<uint32_t>(getCapacity())) {
            index = 0;
            full = !full;
        }
    }

    [[noreturn]] static void logicError() {
        throw std::runtime_error("Logical Error");
    }
};
