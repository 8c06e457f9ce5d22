// Host-only control of native windows: making a window whose queued frames go to a sink, and
// reading its counters. The engine sees only the platform's ANativeWindow (system/window.h).
//
// Queue semantics of a host window:
//   - `bufferCount` slots (default 3). Each slot's GraphicBuffer is made on the first dequeue
//     that needs it, with the window's current size, format and usage (producer usage plus
//     GRALLOC_USAGE_SW_READ_OFTEN for the consumer); a slot whose buffer no longer matches gets
//     a new one.
//   - dequeue hands out the free slot released longest ago. When no slot is free because
//     frames wait for the consumer, it blocks until the consumer frees one, at most
//     `dequeueTimeoutMs`, then fails with -ETIMEDOUT. When every slot is already dequeued by
//     the producer it fails at once with -ENOSYS (INVALID_OPERATION): waiting could never end.
//   - Dequeue and queue need a connected producer API (-ENODEV otherwise).
//   - queue waits for the fence it is given (if any), brings GL drawing into the buffer's
//     memory, stamps the frame (the timestamp last set, or the monotonic clock at queueing for
//     NATIVE_WINDOW_TIMESTAMP_AUTO, the initial setting) and appends it to the consumer's FIFO.
//   - The window's consumer thread hands every queued frame, in queueing order, to the sink and
//     then frees its slot. No frame is ever dropped; frames queued before the window's last
//     reference goes are still delivered before it is destroyed.
//   - Changing the buffer count is refused (-EINVAL) while the producer holds a buffer, waits
//     (up to the dequeue timeout) until the consumer has delivered every queued frame, then keeps
//     the buffers of the slots that remain.
//   - Disconnecting frees the producer's dequeued buffers and restores size, format, usage,
//     transform and timestamp to their defaults; the buffer count stays.
#pragma once

#include <system/window.h>
#include <utils/StrongPointer.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace host {

// One frame as the consumer sees it. `pixels` is the buffer's memory (layout as in
// ui/GraphicBuffer.h), valid only during FrameSink::onFrame.
struct Frame {
    const uint8_t* pixels = nullptr;
    size_t sizeBytes = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t stride = 0;  // pixels
    int32_t format = 0;   // HAL pixel format
    int64_t timestampNs = 0;
    bool autoTimestamp = false;  // stamped by the window at queueing
    uint32_t transform = 0;      // NATIVE_WINDOW_TRANSFORM_* bits set by the producer
    uint64_t frameNumber = 0;    // 1 for the first frame queued to the window
};

// Receives a window's frames on the window's consumer thread, one call at a time. A slow sink
// makes the producer's dequeue wait (the queue is bounded).
class FrameSink {
  public:
    virtual ~FrameSink() = default;
    virtual void onFrame(const Frame& frame) = 0;
};

// Keeps a copy of every frame, for tests. Copies allocate, once per frame.
class MemorySink : public FrameSink {
  public:
    struct StoredFrame {
        std::vector<uint8_t> pixels;
        uint32_t width = 0;
        uint32_t height = 0;
        uint32_t stride = 0;
        int32_t format = 0;
        int64_t timestampNs = 0;
        bool autoTimestamp = false;
        uint32_t transform = 0;
        uint64_t frameNumber = 0;
    };

    void onFrame(const Frame& frame) override;

    std::vector<StoredFrame> frames() const;
    size_t count() const;
    // Waits until at least `count` frames arrived; false on timeout.
    bool waitForCount(size_t count, std::chrono::milliseconds timeout) const;

  private:
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<StoredFrame> frames_;
};

struct WindowConfig {
    uint32_t defaultWidth = 640;   // pixels; the size used while the producer sets none
    uint32_t defaultHeight = 480;  // pixels
    int32_t defaultFormat = HAL_PIXEL_FORMAT_RGBA_8888;
    size_t bufferCount = 3;
    int64_t dequeueTimeoutMs = 1000;
};

struct WindowCounters {
    uint64_t dequeued = 0;
    uint64_t queued = 0;
    uint64_t cancelled = 0;
    uint64_t delivered = 0;        // frames handed to the sink
    uint64_t dequeueTimeouts = 0;  // dequeues that gave up waiting for the consumer
    uint64_t allocations = 0;      // GraphicBuffers made for slots
    size_t bufferCount = 0;
    int connectedApi = 0;  // NATIVE_WINDOW_API_*, 0 when none
};

// Largest buffer count a host window accepts.
constexpr size_t kMaxWindowBuffers = 32;

// A new window feeding `sink` (which must not be null). Returns null for a bad configuration
// (zero or too large size, unsupported format, buffer count outside 1..kMaxWindowBuffers).
android::sp<ANativeWindow> createWindow(std::shared_ptr<FrameSink> sink,
                                        const WindowConfig& config = WindowConfig());

// Counters of a window made by createWindow; false (and nothing written) for any other window.
bool windowCounters(const ANativeWindow* window, WindowCounters* counters);

// Waits until the consumer has delivered every queued frame; false on timeout or for a window
// not made by createWindow.
bool waitForIdle(const ANativeWindow* window, std::chrono::milliseconds timeout);

}  // namespace host
