// Host form of the platform's shared-memory interfaces.
//
// IMemoryHeap is one mapped block of memory; IMemory is a window (offset, size) into a heap.
// The camera hands recording frames to its listener as IMemory objects; pointer() and size()
// give the frame's bytes. On the host a heap is a memfd mapping in this process (see
// MemoryHeapBase.h), so pointer() is an ordinary address and no copy is involved.
//
// This header replaces the platform's binder/IMemory.h: the same classes and helpers, without
// the binder transport (libbinder does not exist on the host).
#pragma once

#include <stdint.h>
#include <sys/mman.h>
#include <sys/types.h>

#include <binder/IInterface.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

namespace android {

class IMemoryHeap : public IInterface {
  public:
    DECLARE_META_INTERFACE(MemoryHeap)

    // Flags returned by getFlags().
    enum { READ_ONLY = 0x00000001 };

    // The heap's identity: the file descriptor of its mapping, -1 when the mapping failed.
    virtual int getHeapID() const = 0;
    // Start of the mapping in this process; null when the mapping failed.
    virtual void* getBase() const = 0;
    // Mapped size in bytes.
    virtual size_t getSize() const = 0;
    virtual uint32_t getFlags() const = 0;
    // Offset of the mapping in the underlying file (0 for host heaps).
    virtual off_t getOffset() const = 0;

    // Platform shorthands.
    int32_t heapID() const { return getHeapID(); }
    void* base() const { return getBase(); }
    size_t virtualSize() const { return getSize(); }
};

class IMemory : public IInterface {
  public:
    DECLARE_META_INTERFACE(Memory)

    // The heap this memory lies in; `offset` and `size` receive the window, when not null.
    // NOLINTNEXTLINE(google-default-arguments)
    virtual sp<IMemoryHeap> getMemory(ssize_t* offset = nullptr, size_t* size = nullptr) const = 0;

    // Address of the first byte of the window, or null when the heap has no mapping.
    void* pointer() const;
    void* unsecurePointer() const { return pointer(); }
    // Size of the window in bytes.
    size_t size() const;
    // Offset of the window from the start of its heap.
    ssize_t offset() const;
};

}  // namespace android
