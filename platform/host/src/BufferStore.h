// Host-side state behind one android::GraphicBuffer: its memory, its CPU lock and the EGL
// images made from it. Internal to the host platform.
#pragma once

#include <ui/GraphicBuffer.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace host {

struct ImageImport;

class BufferStore {
  public:
    BufferStore() = default;
    ~BufferStore();
    BufferStore(const BufferStore&) = delete;
    BufferStore& operator=(const BufferStore&) = delete;

    static BufferStore& of(const android::GraphicBuffer& buffer) { return *buffer.mStore; }

    // Frees the memory; called with `mutex` held or before the buffer is shared.
    void freeMemory();
    // Allocates `bytes` zeroed bytes, 64-byte aligned; false when memory is short.
    bool allocateMemory(size_t bytes);

    // Serialises CPU locks, content transfers to and from the GPU, and changes of `imports`.
    // Lock order: a buffer's mutex before the EGL bridge's mutex.
    std::mutex mutex;

    uint8_t* memory = nullptr;  // the buffer's content, `size` bytes
    size_t size = 0;

    bool locked = false;     // a CPU lock is outstanding
    uint32_t lockUsage = 0;  // usage of the outstanding lock

    // Tightly packed RGBA of width x height, used to convert to and from the GPU's format;
    // allocated when the first image of the buffer is made, kept until reallocation.
    std::vector<uint8_t> staging;

    // The memory already holds everything GL drew into the images: it was read back when the
    // buffer was queued to a window, and the window has not handed the buffer to its producer
    // since (nothing draws into a queued buffer). Further read-backs are skipped while it is
    // set, so the window's consumer thread can read the memory while the producer locks the
    // buffer or destroys its images. Guarded by `mutex`.
    bool memoryCurrent = false;

    // EGL images made from this buffer. Changed with both this mutex and the bridge's held;
    // read with either.
    std::vector<ImageImport*> imports;
};

// Whether `record` is the native buffer of a live GraphicBuffer (any thread).
bool isLiveBuffer(const ANativeWindowBuffer* record);

}  // namespace host
