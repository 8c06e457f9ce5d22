// Native objects handed to Java as a long (jlong) and read back from it: the object's address,
// zero-extended to 64 bits. On an ABI with 32-bit pointers a plain cast sign-extends addresses
// from 0x80000000 up into negative longs, and a long whose high half is set reads back as a
// truncated pointer; here a handle is never negative, and a long that is not an address of this
// ABI reads back as null. Any thread; no allocation.
#pragma once

#include <cstdint>

namespace qlmr {

static_assert(sizeof(std::uintptr_t) <= sizeof(std::int64_t), "an address must fit a Java long");

template <class T>
std::int64_t toHandle(T* object) {
    return static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(object));
}

template <class T>
T* fromHandle(std::int64_t handle) {
    if (handle < 0 || static_cast<std::uint64_t>(handle) > UINTPTR_MAX)
        return nullptr;
    return reinterpret_cast<T*>(static_cast<std::uintptr_t>(handle));
}

}  // namespace qlmr
