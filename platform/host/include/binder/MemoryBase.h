// Host implementation of IMemory: a window (offset, size) into a heap. The window keeps its
// heap alive. Immutable after construction, so any thread may read it.
#pragma once

#include <binder/IMemory.h>

namespace android {

class MemoryBase : public IMemory {
  public:
    MemoryBase(const sp<IMemoryHeap>& heap, ssize_t offset, size_t size);

    MemoryBase(const MemoryBase&) = delete;
    MemoryBase& operator=(const MemoryBase&) = delete;

    // NOLINTNEXTLINE(google-default-arguments)
    sp<IMemoryHeap> getMemory(ssize_t* offset = nullptr, size_t* size = nullptr) const override;

  protected:
    ~MemoryBase() override;
    IBinder* onAsBinder() override { return nullptr; }

    size_t getSize() const { return mSize; }
    ssize_t getOffset() const { return mOffset; }
    const sp<IMemoryHeap>& getHeap() const { return mHeap; }

  private:
    size_t mSize;
    ssize_t mOffset;
    sp<IMemoryHeap> mHeap;
};

}  // namespace android
