// android::GraphicBuffer: a picture buffer shared between the CPU and the GPU.
//
// On this platform build the buffer's memory is ordinary process memory, which is what CPU
// access through lock()/unlock() sees. The GPU reaches a buffer only through an EGL image made
// with eglCreateImageKHR(display, EGL_NO_CONTEXT, EGL_NATIVE_BUFFER_ANDROID,
// buffer->getNativeBuffer(), ...); the platform keeps every such image in step with the memory
// (see docs/host-graphics.md):
//   - unlock() after a lock with a software-write usage uploads the content to every image of
//     the buffer before it returns (an NV21 buffer is converted to RGB on the way);
//   - lock() of a buffer that GL may have drawn into (an image of it was made renderbuffer
//     storage) first reads the image back; so does queueing it to a native window.
// GL work that draws into a buffer must be finished (glFinish) before the buffer is locked or
// queued, as with a device driver that is given no fence.
//
// Layout of the memory, `stride` in pixels (getStride()):
//   RGBA_8888, RGBX_8888, BGRA_8888: height rows of stride * 4 bytes.
//   YCrCb_420_SP (NV21): height luma rows of stride bytes, then height / 2 rows of stride
//     bytes of interleaved V, U chroma samples, starting at byte stride * height.
// The stride is the width rounded up to a multiple of 16 pixels, so a width that is a multiple
// of 16 has a stride equal to it (one contiguous block per plane).
//
// Thread safety: lock()/unlock() and the getters may be called from any thread; one lock may be
// outstanding at a time. reallocate() must not race with any other use of the buffer.
#pragma once

#include <hardware/gralloc.h>
#include <nativebase/nativebase.h>
#include <stdint.h>
#include <system/graphics.h>
#include <ui/PixelFormat.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

namespace host {
class BufferStore;
}

namespace android {

class GraphicBuffer : public ANativeWindowBuffer, public RefBase {
  public:
    enum {
        USAGE_SW_READ_NEVER = GRALLOC_USAGE_SW_READ_NEVER,
        USAGE_SW_READ_RARELY = GRALLOC_USAGE_SW_READ_RARELY,
        USAGE_SW_READ_OFTEN = GRALLOC_USAGE_SW_READ_OFTEN,
        USAGE_SW_READ_MASK = GRALLOC_USAGE_SW_READ_MASK,

        USAGE_SW_WRITE_NEVER = GRALLOC_USAGE_SW_WRITE_NEVER,
        USAGE_SW_WRITE_RARELY = GRALLOC_USAGE_SW_WRITE_RARELY,
        USAGE_SW_WRITE_OFTEN = GRALLOC_USAGE_SW_WRITE_OFTEN,
        USAGE_SW_WRITE_MASK = GRALLOC_USAGE_SW_WRITE_MASK,

        USAGE_SOFTWARE_MASK = USAGE_SW_READ_MASK | USAGE_SW_WRITE_MASK,

        USAGE_HW_TEXTURE = GRALLOC_USAGE_HW_TEXTURE,
        USAGE_HW_RENDER = GRALLOC_USAGE_HW_RENDER,
        USAGE_HW_2D = GRALLOC_USAGE_HW_2D,
        USAGE_HW_COMPOSER = GRALLOC_USAGE_HW_COMPOSER,
        USAGE_HW_VIDEO_ENCODER = GRALLOC_USAGE_HW_VIDEO_ENCODER,
        USAGE_HW_MASK = GRALLOC_USAGE_HW_MASK,
    };

    // The GraphicBuffer behind a window buffer handed out by a native window (or by
    // getNativeBuffer()); null for null or for a record that is not a GraphicBuffer.
    static sp<GraphicBuffer> from(ANativeWindowBuffer* buffer);

    // An empty buffer: initCheck() is NO_INIT until reallocate() succeeds.
    GraphicBuffer();

    // Allocates width x height pixels of `format`; check initCheck().
    GraphicBuffer(uint32_t width, uint32_t height, PixelFormat format, uint32_t usage);

    // The same with a layer count; this platform supports single-layer buffers (0 counts as 1).
    GraphicBuffer(uint32_t width, uint32_t height, PixelFormat format, uint32_t layerCount,
                  uint64_t usage);

    GraphicBuffer(const GraphicBuffer&) = delete;
    GraphicBuffer& operator=(const GraphicBuffer&) = delete;

    // NO_ERROR once memory is allocated; NO_INIT for an empty buffer; BAD_VALUE when the last
    // allocation was refused (zero size, unsupported format, odd NV21 size, layers > 1);
    // NO_MEMORY when memory could not be had.
    status_t initCheck() const;

    uint32_t getWidth() const { return static_cast<uint32_t>(width); }
    uint32_t getHeight() const { return static_cast<uint32_t>(height); }
    // Row pitch in pixels (bytes for the 8-bit luma plane of NV21).
    uint32_t getStride() const { return static_cast<uint32_t>(stride); }
    uint64_t getUsage() const { return mUsage; }
    PixelFormat getPixelFormat() const { return format; }
    uint32_t getLayerCount() const { return mLayerCount; }
    // Size in bytes of the buffer's memory (all planes).
    size_t getSize() const;

    // Replaces the memory with a new allocation (content undefined, zero on this platform).
    // Refused with INVALID_OPERATION while the buffer is locked or bound to an EGL image.
    status_t reallocate(uint32_t width, uint32_t height, PixelFormat format, uint32_t layerCount,
                        uint64_t usage);

    // Maps the memory for CPU access. `usage` must contain a software read or write level
    // (BAD_VALUE otherwise); INVALID_OPERATION if already locked, NO_INIT if not allocated.
    status_t lock(uint32_t usage, void** vaddr);

    // Ends CPU access; after a software-write lock the content reaches the buffer's EGL images
    // before this returns. INVALID_OPERATION when not locked.
    status_t unlock();

    ANativeWindowBuffer* getNativeBuffer() const;

    // Disambiguates the two reference-counting bases: counting goes to RefBase.
    void incStrong(const void* id) const { RefBase::incStrong(id); }
    void decStrong(const void* id) const { RefBase::decStrong(id); }

  protected:
    ~GraphicBuffer() override;

  private:
    friend class host::BufferStore;

    void initCommon();
    status_t allocate(uint32_t width, uint32_t height, PixelFormat format, uint32_t layerCount,
                      uint64_t usage);

    host::BufferStore* mStore;  // owned; memory, lock state and EGL image bookkeeping
    uint64_t mUsage;
    uint32_t mLayerCount;
    status_t mInitCheck;
};

}  // namespace android
