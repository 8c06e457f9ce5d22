// Host-side state behind one android::GraphicBuffer: its memory, its CPU lock and the EGL
// images made from it. Internal to the host platform.
#pragma once

#include <ui/GraphicBuffer.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "SharedBlock.h"

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
    // Allocates `bytes` zeroed bytes, 64-byte aligned; false when memory is short. With
    // `textureBytes` > 0 the memory is a SharedBlock of at least that many bytes, which the
    // driver can use as an RGBA texture's storage (ordinary memory when no block can be made).
    // Large memory is mapped pages that the kernel zeroes on first touch: allocating costs
    // nothing per byte, and the first write pays for its own pages.
    bool allocateMemory(size_t bytes, size_t textureBytes = 0);

    // Serialises CPU locks, content transfers to and from the GPU, and changes of `imports`.
    // Lock order: a buffer's mutex before the EGL bridge's mutex.
    std::mutex mutex;

    uint8_t* memory = nullptr;  // the buffer's content, `size` bytes
    size_t size = 0;
    size_t mappedBytes = 0;  // > 0: `memory` is an anonymous mapping of this many bytes
    // The pages of `memory` when it can be a texture's storage (RGBA_8888 buffers), else empty.
    SharedBlock block;

    bool locked = false;     // a CPU lock is outstanding
    uint32_t lockUsage = 0;  // usage of the outstanding lock
    // The memory has been locked for writing since it was allocated. Before that it holds
    // zeros that nobody wrote, which gralloc memory does not promise: an NV21 buffer's first
    // image leaves its picture as it is (zero: transparent black) instead of converting them,
    // so that priming a queue of 1080p buffers does not clear 8 MB of picture pages apiece on
    // the allocating thread. Guarded by `mutex`.
    bool written = false;

    // Tightly packed RGBA of width x height, used to convert to and from the GPU's format;
    // allocated when the first image of the buffer is made, kept until reallocation.
    std::vector<uint8_t> staging;

    // The images share the buffer's bytes with the driver instead of copies: an RGBA_8888
    // buffer's images use `block` (its memory) as their storage, an NV21 buffer's images use
    // `sharedPicture`, its RGB picture (pitch SharedBlock::texturePitch(width)), converted into
    // on every unlock after a write. Nothing is uploaded or read back. Decided when the first
    // image is made, kept until the last one goes. Guarded by `mutex`.
    bool sharedImages = false;
    SharedBlock sharedPicture;

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
