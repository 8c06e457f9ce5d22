// The engine's own reference-counted pointer.
//
// Deliberately smaller and stricter than std::shared_ptr: no control block, no weak count, no
// deleter (objects are always destroyed with `delete`), and every misuse throws
// std::runtime_error with a fixed message instead of being tolerated:
//   - acquire() into a pointer that already holds something,
//   - release() of a pointer with data but no count (a corrupt pointer),
//   - assignment of a pointer to itself (even an empty one),
//   - dereference of an empty pointer.
//
// The count is a separately allocated 32-bit integer, updated with sequentially consistent
// atomic read-modify-writes, so two threads may drop their own copies of one object at the same
// time and exactly one of them destroys it. One shared_ptr instance itself is not thread-safe.
#pragma once

#include <cstdint>
#include <new>
#include <stdexcept>

template <typename T>
class shared_ptr {
public:
    // Field order is fixed: the owned object, then the shared count. Both null when empty.
    T* data = nullptr;
    int32_t* count = nullptr;

    shared_ptr() = default;

    // A copy shares the object, exactly as `empty = other` would.
    shared_ptr(const shared_ptr& other) { acquire(other.data, other.count); }

    // Must not let an exception escape: a corrupt pointer terminates the process here.
    ~shared_ptr() noexcept { release(); }

    // Takes a reference on `object`. With `sharedCount` null the object is new to management and
    // gets a fresh count of 1; otherwise the given count is incremented. Acquiring a null object
    // leaves the pointer empty and does not touch `sharedCount`.
    void acquire(T* object, int32_t* sharedCount) {
        if (data != nullptr || count != nullptr) {
            throw std::runtime_error("shared_ptr::acquire() called with data and/or count != 0");
        }
        if (object == nullptr) return;
        if (sharedCount != nullptr) {
            count = sharedCount;
            __atomic_fetch_add(count, 1, __ATOMIC_SEQ_CST);
        } else {
            try {
                count = new int32_t(1);
            } catch (...) {
                delete object;  // the object handed over is never leaked
                throw;
            }
        }
        data = object;
    }

    // Drops this reference and leaves the pointer empty; the last reference deletes the object
    // and the count. Releasing an empty pointer is harmless.
    void release() {
        if (count != nullptr) {
            int32_t before = __atomic_fetch_sub(count, 1, __ATOMIC_SEQ_CST);
            if (before == 1) {
                delete data;
                delete count;
            }
            data = nullptr;
            count = nullptr;
        } else if (data != nullptr) {
            throw std::runtime_error("shared_ptr::release() has count == 0 but data != 0");
        }
    }

    shared_ptr& operator=(const shared_ptr& other) {
        if (&other == this) throw std::runtime_error("shared_ptr cannot equal itself");
        release();
        acquire(other.data, other.count);
        return *this;
    }

    T* operator->() const {
        if (data == nullptr) throw std::runtime_error("shared_ptr data is null");
        return data;
    }

    operator T*() const {
        if (data == nullptr) throw std::runtime_error("shared_ptr data is null");
        return data;
    }
};
