// Host implementation of a shared-memory heap: an anonymous memfd of the requested size, mapped
// read-write in this process. The file descriptor is the heap's id, so a heap can be told apart
// from another even when two mappings reuse an address after one is gone.
//
// Not copyable (reference counted through RefBase; hold it in an sp<>). Thread-safe: the
// mapping does not change after construction.
#pragma once

#include <binder/IMemory.h>

namespace android {

class MemoryHeapBase : public IMemoryHeap {
  public:
    enum {
        READ_ONLY = IMemoryHeap::READ_ONLY,
        // Accepted for the platform's flag set; the host always maps its heaps.
        DONT_MAP_LOCALLY = 0x00000100,
        NO_CACHING = 0x00000200,
    };

    // Maps `size` bytes (rounded up to whole pages), zero-filled. On failure the heap has no
    // mapping: getBase() is null, getHeapID() is -1 and the failure is logged.
    explicit MemoryHeapBase(size_t size, uint32_t flags = 0, char const* name = nullptr);

    MemoryHeapBase(const MemoryHeapBase&) = delete;
    MemoryHeapBase& operator=(const MemoryHeapBase&) = delete;

    int getHeapID() const override;
    void* getBase() const override;
    size_t getSize() const override;
    uint32_t getFlags() const override;
    off_t getOffset() const override;

    const char* getDevice() const { return "memfd"; }

  protected:
    ~MemoryHeapBase() override;
    IBinder* onAsBinder() override { return nullptr; }

  private:
    int mFd = -1;
    void* mBase = nullptr;
    size_t mSize = 0;
    uint32_t mFlags = 0;
};

}  // namespace android
