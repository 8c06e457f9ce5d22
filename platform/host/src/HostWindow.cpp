// Host native window: a bounded buffer queue whose consumer thread hands frames to a sink.
#include <android/log.h>
#include <poll.h>
#include <system/window.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cerrno>
#include <cstdarg>
#include <ctime>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "BufferStore.h"
#include "EglImageBridge.h"
#include "host/Window.h"

namespace host {
namespace {

constexpr const char* kTag = "host-graphics";
constexpr uint32_t kMaxDimension = 16384;
constexpr int kFenceTimeoutMs = 3000;
constexpr uint32_t kConsumerUsage = GRALLOC_USAGE_SW_READ_OFTEN;

bool supportedFormat(int format) {
    return format == HAL_PIXEL_FORMAT_RGBA_8888 || format == HAL_PIXEL_FORMAT_RGBX_8888 ||
           format == HAL_PIXEL_FORMAT_BGRA_8888 || format == HAL_PIXEL_FORMAT_YCrCb_420_SP;
}

int64_t monotonicNowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Waits for a fence file descriptor to signal, then closes it (the window owns it).
void waitAndCloseFence(int fenceFd) {
    if (fenceFd < 0)
        return;
    pollfd pfd{fenceFd, POLLIN, 0};
    int result;
    do {
        result = poll(&pfd, 1, kFenceTimeoutMs);
    } while (result < 0 && errno == EINTR);
    if (result == 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "fence %d not signalled after %d ms", fenceFd,
                            kFenceTimeoutMs);
    }
    close(fenceFd);
}

class HostWindow;

struct LiveWindows {
    std::mutex mutex;
    std::unordered_set<const ANativeWindow*> windows;
};

LiveWindows& liveWindows() {
    static LiveWindows* live = new LiveWindows;  // never destroyed
    return *live;
}

class HostWindow : public ANativeWindow, public android::RefBase {
  public:
    HostWindow(std::shared_ptr<FrameSink> sink, const WindowConfig& config);

    HostWindow(const HostWindow&) = delete;
    HostWindow& operator=(const HostWindow&) = delete;

    void incStrong(const void* id) const { RefBase::incStrong(id); }
    void decStrong(const void* id) const { RefBase::decStrong(id); }

    WindowCounters counters();
    bool waitForIdle(std::chrono::milliseconds timeout);

  protected:
    ~HostWindow() override;

  private:
    enum class SlotState { Free, Dequeued, Queued, Acquired };

    struct Slot {
        android::sp<android::GraphicBuffer> buffer;
        SlotState state = SlotState::Free;
        uint64_t releasedAt = 0;  // order in which free slots are reused
        int64_t timestampNs = 0;
        bool autoTimestamp = false;
        uint32_t transform = 0;
        uint64_t frameNumber = 0;
    };

    static HostWindow* self(ANativeWindow* w) { return static_cast<HostWindow*>(w); }
    static const HostWindow* self(const ANativeWindow* w) {
        return static_cast<const HostWindow*>(w);
    }

    static void hookIncRef(android_native_base_t* base);
    static void hookDecRef(android_native_base_t* base);
    static int hookSetSwapInterval(ANativeWindow* w, int interval);
    static int hookDequeueDeprecated(ANativeWindow* w, ANativeWindowBuffer** buffer);
    static int hookLockDeprecated(ANativeWindow* w, ANativeWindowBuffer* buffer);
    static int hookQueueDeprecated(ANativeWindow* w, ANativeWindowBuffer* buffer);
    static int hookQuery(const ANativeWindow* w, int what, int* value);
    static int hookPerform(ANativeWindow* w, int operation, ...);
    static int hookCancelDeprecated(ANativeWindow* w, ANativeWindowBuffer* buffer);
    static int hookDequeue(ANativeWindow* w, ANativeWindowBuffer** buffer, int* fenceFd);
    static int hookQueue(ANativeWindow* w, ANativeWindowBuffer* buffer, int fenceFd);
    static int hookCancel(ANativeWindow* w, ANativeWindowBuffer* buffer, int fenceFd);

    int dequeue(ANativeWindowBuffer** buffer, int* fenceFd);
    int queue(ANativeWindowBuffer* buffer, int fenceFd);
    int cancel(ANativeWindowBuffer* buffer, int fenceFd);
    int queryValue(int what, int* value) const;
    int performOperation(int operation, va_list args);

    int setBufferCount(size_t count);
    int connect(int api);
    int disconnect(int api);

    // Called with mutex_ held.
    int findSlot(const ANativeWindowBuffer* buffer, SlotState state) const;
    uint32_t widthLocked() const { return reqWidth_ != 0 ? reqWidth_ : config_.defaultWidth; }
    uint32_t heightLocked() const { return reqHeight_ != 0 ? reqHeight_ : config_.defaultHeight; }
    int formatLocked() const { return reqFormat_ != 0 ? reqFormat_ : config_.defaultFormat; }
    void resetProducerSettingsLocked();
    bool drainedLocked() const;

    void consumerLoop();

    const std::shared_ptr<FrameSink> sink_;
    const WindowConfig config_;

    mutable std::mutex mutex_;  // guards everything below
    std::condition_variable changed_;
    std::vector<Slot> slots_;
    // FIFO of queued slot indices, a fixed ring so that queueing allocates nothing.
    int fifo_[kMaxWindowBuffers] = {};
    size_t fifoHead_ = 0;
    size_t fifoSize_ = 0;
    bool acquired_ = false;  // the consumer is delivering a frame
    uint64_t releaseCounter_ = 0;
    uint64_t frameCounter_ = 0;
    int connectedApi_ = 0;
    uint32_t reqWidth_ = 0;
    uint32_t reqHeight_ = 0;
    int reqFormat_ = 0;
    uint32_t usage_ = 0;
    uint32_t transform_ = 0;
    int64_t timestampNs_ = NATIVE_WINDOW_TIMESTAMP_AUTO;
    bool stopping_ = false;
    WindowCounters counters_;

    std::thread consumer_;  // last: starts after every field above is ready
};

HostWindow::HostWindow(std::shared_ptr<FrameSink> sink, const WindowConfig& config)
    : sink_(std::move(sink)), config_(config), slots_(config.bufferCount) {
    common.incRef = hookIncRef;
    common.decRef = hookDecRef;
    ANativeWindow::setSwapInterval = hookSetSwapInterval;
    ANativeWindow::dequeueBuffer_DEPRECATED = hookDequeueDeprecated;
    ANativeWindow::lockBuffer_DEPRECATED = hookLockDeprecated;
    ANativeWindow::queueBuffer_DEPRECATED = hookQueueDeprecated;
    ANativeWindow::query = hookQuery;
    ANativeWindow::perform = hookPerform;
    ANativeWindow::cancelBuffer_DEPRECATED = hookCancelDeprecated;
    ANativeWindow::dequeueBuffer = hookDequeue;
    ANativeWindow::queueBuffer = hookQueue;
    ANativeWindow::cancelBuffer = hookCancel;
    consumer_ = std::thread([this] { consumerLoop(); });
    LiveWindows& live = liveWindows();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.windows.insert(this);
}

HostWindow::~HostWindow() {
    {
        LiveWindows& live = liveWindows();
        std::lock_guard<std::mutex> lock(live.mutex);
        live.windows.erase(this);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    consumer_.join();  // delivers what is still queued first
}

void HostWindow::hookIncRef(android_native_base_t* base) {
    self(reinterpret_cast<ANativeWindow*>(base))->incStrong(base);
}
void HostWindow::hookDecRef(android_native_base_t* base) {
    self(reinterpret_cast<ANativeWindow*>(base))->decStrong(base);
}
int HostWindow::hookSetSwapInterval(ANativeWindow*, int) {
    return android::NO_ERROR;
}
int HostWindow::hookDequeueDeprecated(ANativeWindow* w, ANativeWindowBuffer** buffer) {
    int fenceFd = -1;
    return self(w)->dequeue(buffer, &fenceFd);  // host buffers come without a fence
}
int HostWindow::hookLockDeprecated(ANativeWindow*, ANativeWindowBuffer*) {
    return android::NO_ERROR;
}
int HostWindow::hookQueueDeprecated(ANativeWindow* w, ANativeWindowBuffer* buffer) {
    return self(w)->queue(buffer, -1);
}
int HostWindow::hookQuery(const ANativeWindow* w, int what, int* value) {
    return self(w)->queryValue(what, value);
}
int HostWindow::hookPerform(ANativeWindow* w, int operation, ...) {
    va_list args;
    va_start(args, operation);
    const int result = self(w)->performOperation(operation, args);
    va_end(args);
    return result;
}
int HostWindow::hookCancelDeprecated(ANativeWindow* w, ANativeWindowBuffer* buffer) {
    return self(w)->cancel(buffer, -1);
}
int HostWindow::hookDequeue(ANativeWindow* w, ANativeWindowBuffer** buffer, int* fenceFd) {
    return self(w)->dequeue(buffer, fenceFd);
}
int HostWindow::hookQueue(ANativeWindow* w, ANativeWindowBuffer* buffer, int fenceFd) {
    return self(w)->queue(buffer, fenceFd);
}
int HostWindow::hookCancel(ANativeWindow* w, ANativeWindowBuffer* buffer, int fenceFd) {
    return self(w)->cancel(buffer, fenceFd);
}

int HostWindow::findSlot(const ANativeWindowBuffer* buffer, SlotState state) const {
    for (size_t i = 0; i < slots_.size(); ++i) {
        const Slot& slot = slots_[i];
        if (slot.state == state && slot.buffer != nullptr &&
            slot.buffer->getNativeBuffer() == buffer) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int HostWindow::dequeue(ANativeWindowBuffer** buffer, int* fenceFd) {
    if (buffer == nullptr)
        return android::BAD_VALUE;
    *buffer = nullptr;
    if (fenceFd != nullptr)
        *fenceFd = -1;
    std::unique_lock<std::mutex> lock(mutex_);
    if (connectedApi_ == 0)
        return android::NO_INIT;
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(config_.dequeueTimeoutMs);
    int chosen = -1;
    for (;;) {
        size_t dequeued = 0;
        for (size_t i = 0; i < slots_.size(); ++i) {
            const Slot& slot = slots_[i];
            if (slot.state == SlotState::Dequeued)
                ++dequeued;
            if (slot.state == SlotState::Free &&
                (chosen < 0 || slot.releasedAt < slots_[chosen].releasedAt)) {
                chosen = static_cast<int>(i);
            }
        }
        if (chosen >= 0)
            break;
        if (dequeued == slots_.size())
            return android::INVALID_OPERATION;
        if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
            // One last look: the consumer may have freed a slot just at the deadline.
            bool freed = false;
            for (const Slot& slot : slots_)
                freed = freed || slot.state == SlotState::Free;
            if (!freed) {
                ++counters_.dequeueTimeouts;
                return android::TIMED_OUT;
            }
        }
        if (connectedApi_ == 0)
            return android::NO_INIT;
    }
    Slot& slot = slots_[chosen];
    const uint32_t w = widthLocked();
    const uint32_t h = heightLocked();
    const int f = formatLocked();
    const uint64_t u = usage_ | kConsumerUsage;
    if (slot.buffer == nullptr || slot.buffer->getWidth() != w || slot.buffer->getHeight() != h ||
        slot.buffer->getPixelFormat() != f || slot.buffer->getUsage() != u) {
        android::sp<android::GraphicBuffer> fresh(new android::GraphicBuffer(w, h, f, 1, u));
        if (fresh->initCheck() != android::NO_ERROR)
            return fresh->initCheck();
        slot.buffer = fresh;
        ++counters_.allocations;
    }
    slot.state = SlotState::Dequeued;
    ++counters_.dequeued;
    const android::sp<android::GraphicBuffer> handedOut = slot.buffer;
    lock.unlock();
    // The producer may draw into it again. Outside the window lock: the slot is dequeued, so
    // the consumer no longer touches the buffer.
    noteHandedToProducer(*handedOut);
    *buffer = handedOut->getNativeBuffer();
    return android::NO_ERROR;
}

int HostWindow::queue(ANativeWindowBuffer* buffer, int fenceFd) {
    waitAndCloseFence(fenceFd);
    android::sp<android::GraphicBuffer> graphicBuffer;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (connectedApi_ == 0)
            return android::NO_INIT;
        const int index = findSlot(buffer, SlotState::Dequeued);
        if (index < 0)
            return android::BAD_VALUE;
        graphicBuffer = slots_[index].buffer;
    }
    // GL may have drawn into the buffer: bring that into memory for the consumer. Done outside
    // the window lock; the slot stays dequeued, so nobody else touches the buffer meanwhile.
    readBackForConsumer(*graphicBuffer);
    std::lock_guard<std::mutex> lock(mutex_);
    if (connectedApi_ == 0)
        return android::NO_INIT;
    const int index = findSlot(buffer, SlotState::Dequeued);
    if (index < 0)
        return android::BAD_VALUE;  // disconnected and reconnected meanwhile
    Slot& slot = slots_[index];
    slot.state = SlotState::Queued;
    slot.autoTimestamp = timestampNs_ == NATIVE_WINDOW_TIMESTAMP_AUTO;
    slot.timestampNs = slot.autoTimestamp ? monotonicNowNs() : timestampNs_;
    slot.transform = transform_;
    slot.frameNumber = ++frameCounter_;
    fifo_[(fifoHead_ + fifoSize_) % kMaxWindowBuffers] = index;
    ++fifoSize_;
    ++counters_.queued;
    changed_.notify_all();
    return android::NO_ERROR;
}

int HostWindow::cancel(ANativeWindowBuffer* buffer, int fenceFd) {
    if (fenceFd >= 0)
        close(fenceFd);
    std::lock_guard<std::mutex> lock(mutex_);
    const int index = findSlot(buffer, SlotState::Dequeued);
    if (index < 0)
        return android::BAD_VALUE;
    slots_[index].state = SlotState::Free;
    slots_[index].releasedAt = ++releaseCounter_;
    ++counters_.cancelled;
    changed_.notify_all();
    return android::NO_ERROR;
}

int HostWindow::queryValue(int what, int* value) const {
    if (value == nullptr)
        return android::BAD_VALUE;
    std::lock_guard<std::mutex> lock(mutex_);
    switch (what) {
        case NATIVE_WINDOW_WIDTH:
            *value = static_cast<int>(widthLocked());
            return android::NO_ERROR;
        case NATIVE_WINDOW_HEIGHT:
            *value = static_cast<int>(heightLocked());
            return android::NO_ERROR;
        case NATIVE_WINDOW_FORMAT:
            *value = formatLocked();
            return android::NO_ERROR;
        case NATIVE_WINDOW_MIN_UNDEQUEUED_BUFFERS:
        case NATIVE_WINDOW_QUEUES_TO_WINDOW_COMPOSER:
        case NATIVE_WINDOW_TRANSFORM_HINT:
        case NATIVE_WINDOW_BUFFER_AGE:
            *value = 0;
            return android::NO_ERROR;
        case NATIVE_WINDOW_CONCRETE_TYPE:
            *value = NATIVE_WINDOW_SURFACE;
            return android::NO_ERROR;
        case NATIVE_WINDOW_DEFAULT_WIDTH:
            *value = static_cast<int>(config_.defaultWidth);
            return android::NO_ERROR;
        case NATIVE_WINDOW_DEFAULT_HEIGHT:
            *value = static_cast<int>(config_.defaultHeight);
            return android::NO_ERROR;
        case NATIVE_WINDOW_CONSUMER_RUNNING_BEHIND:
            *value = fifoSize_ >= 2 ? 1 : 0;
            return android::NO_ERROR;
        case NATIVE_WINDOW_CONSUMER_USAGE_BITS:
            *value = static_cast<int>(kConsumerUsage);
            return android::NO_ERROR;
        default:
            return android::BAD_VALUE;
    }
}

int HostWindow::performOperation(int operation, va_list args) {
    switch (operation) {
        case NATIVE_WINDOW_SET_USAGE: {
            const int usage = va_arg(args, int);
            std::lock_guard<std::mutex> lock(mutex_);
            usage_ = static_cast<uint32_t>(usage);
            return android::NO_ERROR;
        }
        case NATIVE_WINDOW_CONNECT:
        case NATIVE_WINDOW_DISCONNECT:
            return android::NO_ERROR;  // legacy no-ops, as on the platform
        case NATIVE_WINDOW_SET_BUFFER_COUNT:
            return setBufferCount(va_arg(args, size_t));
        case NATIVE_WINDOW_SET_BUFFERS_TRANSFORM: {
            const int transform = va_arg(args, int);
            if (transform < 0 || transform > 0xF)
                return android::BAD_VALUE;
            std::lock_guard<std::mutex> lock(mutex_);
            transform_ = static_cast<uint32_t>(transform);
            return android::NO_ERROR;
        }
        case NATIVE_WINDOW_SET_BUFFERS_TIMESTAMP: {
            const int64_t timestamp = va_arg(args, int64_t);
            std::lock_guard<std::mutex> lock(mutex_);
            timestampNs_ = timestamp;
            return android::NO_ERROR;
        }
        case NATIVE_WINDOW_SET_BUFFERS_DIMENSIONS: {
            const int w = va_arg(args, int);
            const int h = va_arg(args, int);
            if (w < 0 || h < 0 || (w == 0) != (h == 0) ||
                static_cast<uint32_t>(w) > kMaxDimension ||
                static_cast<uint32_t>(h) > kMaxDimension) {
                return android::BAD_VALUE;
            }
            std::lock_guard<std::mutex> lock(mutex_);
            reqWidth_ = static_cast<uint32_t>(w);
            reqHeight_ = static_cast<uint32_t>(h);
            return android::NO_ERROR;
        }
        case NATIVE_WINDOW_SET_BUFFERS_FORMAT: {
            const int format = va_arg(args, int);
            if (format != 0 && !supportedFormat(format))
                return android::BAD_VALUE;
            std::lock_guard<std::mutex> lock(mutex_);
            reqFormat_ = format;
            return android::NO_ERROR;
        }
        case NATIVE_WINDOW_API_CONNECT:
            return connect(va_arg(args, int));
        case NATIVE_WINDOW_API_DISCONNECT:
            return disconnect(va_arg(args, int));
        default:
            return android::NAME_NOT_FOUND;
    }
}

bool HostWindow::drainedLocked() const {
    return fifoSize_ == 0 && !acquired_;
}

int HostWindow::setBufferCount(size_t count) {
    if (count < 1 || count > kMaxWindowBuffers)
        return android::BAD_VALUE;
    std::unique_lock<std::mutex> lock(mutex_);
    for (const Slot& slot : slots_) {
        if (slot.state == SlotState::Dequeued)
            return android::BAD_VALUE;
    }
    if (!changed_.wait_for(lock, std::chrono::milliseconds(config_.dequeueTimeoutMs),
                           [this] { return drainedLocked(); })) {
        return android::TIMED_OUT;
    }
    // Nothing is dequeued or waiting for the consumer, so every slot is free.
    slots_.resize(count);
    changed_.notify_all();
    return android::NO_ERROR;
}

int HostWindow::connect(int api) {
    if (api < NATIVE_WINDOW_API_EGL || api > NATIVE_WINDOW_API_CAMERA)
        return android::BAD_VALUE;
    std::lock_guard<std::mutex> lock(mutex_);
    if (connectedApi_ != 0)
        return android::BAD_VALUE;
    connectedApi_ = api;
    return android::NO_ERROR;
}

void HostWindow::resetProducerSettingsLocked() {
    reqWidth_ = 0;
    reqHeight_ = 0;
    reqFormat_ = 0;
    usage_ = 0;
    transform_ = 0;
    timestampNs_ = NATIVE_WINDOW_TIMESTAMP_AUTO;
}

int HostWindow::disconnect(int api) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (connectedApi_ == 0 || api != connectedApi_)
        return android::BAD_VALUE;
    connectedApi_ = 0;
    for (Slot& slot : slots_) {
        if (slot.state == SlotState::Dequeued) {
            slot.state = SlotState::Free;
            slot.releasedAt = ++releaseCounter_;
        }
    }
    resetProducerSettingsLocked();
    changed_.notify_all();
    return android::NO_ERROR;
}

WindowCounters HostWindow::counters() {
    std::lock_guard<std::mutex> lock(mutex_);
    WindowCounters c = counters_;
    c.bufferCount = slots_.size();
    c.connectedApi = connectedApi_;
    return c;
}

bool HostWindow::waitForIdle(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [this] { return drainedLocked(); });
}

void HostWindow::consumerLoop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return fifoSize_ > 0 || stopping_; });
        if (fifoSize_ == 0)
            break;  // stopping with nothing left to deliver
        const int index = fifo_[fifoHead_];
        fifoHead_ = (fifoHead_ + 1) % kMaxWindowBuffers;
        --fifoSize_;
        Slot& slot = slots_[index];
        slot.state = SlotState::Acquired;
        acquired_ = true;
        const android::sp<android::GraphicBuffer> buffer = slot.buffer;
        Frame frame;
        frame.pixels = BufferStore::of(*buffer).memory;
        frame.sizeBytes = buffer->getSize();
        frame.width = buffer->getWidth();
        frame.height = buffer->getHeight();
        frame.stride = buffer->getStride();
        frame.format = buffer->getPixelFormat();
        frame.timestampNs = slot.timestampNs;
        frame.autoTimestamp = slot.autoTimestamp;
        frame.transform = slot.transform;
        frame.frameNumber = slot.frameNumber;
        lock.unlock();
        try {
            sink_->onFrame(frame);
        } catch (const std::exception& e) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "frame sink failed: %s", e.what());
        }
        lock.lock();
        // The slot cannot have been resized away: a buffer-count change waits for this.
        slots_[index].state = SlotState::Free;
        slots_[index].releasedAt = ++releaseCounter_;
        acquired_ = false;
        ++counters_.delivered;
        changed_.notify_all();
    }
}

HostWindow* hostWindow(const ANativeWindow* window) {
    LiveWindows& live = liveWindows();
    std::lock_guard<std::mutex> lock(live.mutex);
    if (window == nullptr || live.windows.count(window) == 0)
        return nullptr;
    return static_cast<HostWindow*>(const_cast<ANativeWindow*>(window));
}

}  // namespace

void MemorySink::onFrame(const Frame& frame) {
    StoredFrame stored;
    stored.pixels.assign(frame.pixels, frame.pixels + frame.sizeBytes);
    stored.width = frame.width;
    stored.height = frame.height;
    stored.stride = frame.stride;
    stored.format = frame.format;
    stored.timestampNs = frame.timestampNs;
    stored.autoTimestamp = frame.autoTimestamp;
    stored.transform = frame.transform;
    stored.frameNumber = frame.frameNumber;
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.push_back(std::move(stored));
    arrived_.notify_all();
}

std::vector<MemorySink::StoredFrame> MemorySink::frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
}

size_t MemorySink::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_.size();
}

bool MemorySink::waitForCount(size_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return arrived_.wait_for(lock, timeout, [&] { return frames_.size() >= count; });
}

android::sp<ANativeWindow> createWindow(std::shared_ptr<FrameSink> sink,
                                        const WindowConfig& config) {
    if (sink == nullptr || config.defaultWidth == 0 || config.defaultHeight == 0 ||
        config.defaultWidth > kMaxDimension || config.defaultHeight > kMaxDimension ||
        !supportedFormat(config.defaultFormat) || config.bufferCount < 1 ||
        config.bufferCount > kMaxWindowBuffers || config.dequeueTimeoutMs < 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "createWindow: bad configuration");
        return nullptr;
    }
    return android::sp<ANativeWindow>(new HostWindow(std::move(sink), config));
}

bool windowCounters(const ANativeWindow* window, WindowCounters* counters) {
    HostWindow* w = hostWindow(window);
    if (w == nullptr || counters == nullptr)
        return false;
    *counters = w->counters();
    return true;
}

bool waitForIdle(const ANativeWindow* window, std::chrono::milliseconds timeout) {
    HostWindow* w = hostWindow(window);
    return w != nullptr && w->waitForIdle(timeout);
}

}  // namespace host

extern "C" void ANativeWindow_acquire(ANativeWindow* window) {
    window->common.incRef(&window->common);
}

extern "C" void ANativeWindow_release(ANativeWindow* window) {
    window->common.decRef(&window->common);
}

namespace {

int32_t queryOr(ANativeWindow* window, int what) {
    int value = 0;
    const int status = window->query(window, what, &value);
    return status == android::NO_ERROR ? value : status;
}

}  // namespace

extern "C" int32_t ANativeWindow_getWidth(ANativeWindow* window) {
    return queryOr(window, NATIVE_WINDOW_WIDTH);
}

extern "C" int32_t ANativeWindow_getHeight(ANativeWindow* window) {
    return queryOr(window, NATIVE_WINDOW_HEIGHT);
}

extern "C" int32_t ANativeWindow_getFormat(ANativeWindow* window) {
    return queryOr(window, NATIVE_WINDOW_FORMAT);
}
