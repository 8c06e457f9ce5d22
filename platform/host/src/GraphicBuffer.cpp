// android::GraphicBuffer over process memory; GPU access goes through the EGL image bridge.
#include <ui/GraphicBuffer.h>

#include <android/log.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

#include "BufferStore.h"
#include "EglImageBridge.h"

namespace host {
namespace {

constexpr const char* kTag = "host-graphics";

// Largest width or height accepted, in pixels (the GL texture limit of the host driver).
constexpr uint32_t kMaxDimension = 16384;

// Memory of at least this many bytes is mapped instead of allocated and cleared (a 720p NV21
// buffer is 1.4 MB).
constexpr size_t kMappedMinBytes = size_t(1) << 20;

// Row pitch rule of this platform, in pixels: the width rounded up to a multiple of 16. Widths
// that are multiples of 16 (the engine refuses any other for its camera buffers) get a pitch
// equal to the width, so a plane is one contiguous block.
uint32_t strideFor(uint32_t width) {
    return (width + 15u) & ~15u;
}

bool isRgb32(int format) {
    return format == HAL_PIXEL_FORMAT_RGBA_8888 || format == HAL_PIXEL_FORMAT_RGBX_8888 ||
           format == HAL_PIXEL_FORMAT_BGRA_8888;
}

// Bytes of memory for a buffer of this format, 0 for an unsupported format.
size_t bytesFor(int format, uint32_t stride, uint32_t height) {
    if (isRgb32(format))
        return static_cast<size_t>(stride) * height * 4;
    if (format == HAL_PIXEL_FORMAT_YCrCb_420_SP) {
        return static_cast<size_t>(stride) * height + static_cast<size_t>(stride) * (height / 2);
    }
    return 0;
}

struct LiveBuffers {
    std::mutex mutex;
    std::unordered_set<const ANativeWindowBuffer*> records;
};

LiveBuffers& liveBuffers() {
    static LiveBuffers* live = new LiveBuffers;  // never destroyed: buffers may die at exit
    return *live;
}

void incRefHook(android_native_base_t* base) {
    auto* record = reinterpret_cast<ANativeWindowBuffer*>(base);
    static_cast<android::GraphicBuffer*>(record)->incStrong(record);
}

void decRefHook(android_native_base_t* base) {
    auto* record = reinterpret_cast<ANativeWindowBuffer*>(base);
    static_cast<android::GraphicBuffer*>(record)->decStrong(record);
}

}  // namespace

BufferStore::~BufferStore() {
    freeMemory();
}

void BufferStore::freeMemory() {
    if (mappedBytes > 0)
        munmap(memory, mappedBytes);
    else if (block.empty())
        std::free(memory);
    mappedBytes = 0;
    written = false;
    block.release();
    sharedPicture.release();
    memory = nullptr;
    size = 0;
    std::vector<uint8_t>().swap(staging);
}

bool BufferStore::allocateMemory(size_t bytes, size_t textureBytes) {
    if (textureBytes > 0 && block.allocate(std::max(bytes, textureBytes))) {
        memory = block.data();  // zeroed, page aligned
        size = bytes;
        return true;
    }
    if (bytes >= kMappedMinBytes) {
        void* pages =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED)
            return false;
        memory = static_cast<uint8_t*>(pages);
        size = bytes;
        mappedBytes = bytes;
        return true;
    }
    void* pages = nullptr;
    if (posix_memalign(&pages, 64, bytes) != 0)
        return false;
    std::memset(pages, 0, bytes);
    memory = static_cast<uint8_t*>(pages);
    size = bytes;
    return true;
}

bool isLiveBuffer(const ANativeWindowBuffer* record) {
    LiveBuffers& live = liveBuffers();
    std::lock_guard<std::mutex> lock(live.mutex);
    return live.records.count(record) != 0;
}

}  // namespace host

namespace android {

sp<GraphicBuffer> GraphicBuffer::from(ANativeWindowBuffer* buffer) {
    if (buffer == nullptr ||
        buffer->common.magic != static_cast<int>(ANDROID_NATIVE_BUFFER_MAGIC) ||
        !host::isLiveBuffer(buffer)) {
        return nullptr;
    }
    return sp<GraphicBuffer>(static_cast<GraphicBuffer*>(buffer));
}

void GraphicBuffer::initCommon() {
    common.incRef = host::incRefHook;
    common.decRef = host::decRefHook;
    host::LiveBuffers& live = host::liveBuffers();
    std::lock_guard<std::mutex> lock(live.mutex);
    live.records.insert(this);
}

GraphicBuffer::GraphicBuffer()
    : mStore(new host::BufferStore), mUsage(0), mLayerCount(0), mInitCheck(NO_INIT) {
    initCommon();
}

GraphicBuffer::GraphicBuffer(uint32_t w, uint32_t h, PixelFormat f, uint32_t u) : GraphicBuffer() {
    mInitCheck = allocate(w, h, f, 1, u);
}

GraphicBuffer::GraphicBuffer(uint32_t w, uint32_t h, PixelFormat f, uint32_t layers, uint64_t u)
    : GraphicBuffer() {
    mInitCheck = allocate(w, h, f, layers, u);
}

GraphicBuffer::~GraphicBuffer() {
    {
        host::LiveBuffers& live = host::liveBuffers();
        std::lock_guard<std::mutex> lock(live.mutex);
        live.records.erase(this);
    }
    // Every EGL image holds a strong reference, so none is left here.
    delete mStore;
}

status_t GraphicBuffer::initCheck() const {
    return mInitCheck;
}

size_t GraphicBuffer::getSize() const {
    return mStore->size;
}

status_t GraphicBuffer::allocate(uint32_t w, uint32_t h, PixelFormat f, uint32_t layers,
                                 uint64_t u) {
    host::BufferStore& store = *mStore;
    store.freeMemory();
    width = height = stride = 0;
    if (w == 0 || h == 0 || w > host::kMaxDimension || h > host::kMaxDimension || layers > 1) {
        __android_log_print(ANDROID_LOG_WARN, host::kTag,
                            "GraphicBuffer: refused %ux%u format %d layers %u", w, h, f, layers);
        return BAD_VALUE;
    }
    const bool nv21 = f == HAL_PIXEL_FORMAT_YCrCb_420_SP;
    if ((!nv21 && !host::isRgb32(f)) || (nv21 && ((w | h) & 1u) != 0)) {
        __android_log_print(ANDROID_LOG_WARN, host::kTag,
                            "GraphicBuffer: unsupported format %d for %ux%u", f, w, h);
        return BAD_VALUE;
    }
    const uint32_t s = host::strideFor(w);
    // RGBA memory is laid out as the driver's texture of the buffer (same row pitch), so its
    // EGL images can use it in place.
    const size_t textureBytes =
        f == HAL_PIXEL_FORMAT_RGBA_8888 ? host::SharedBlock::textureBytes(w, h) : 0;
    if (!store.allocateMemory(host::bytesFor(f, s, h), textureBytes))
        return NO_MEMORY;
    width = static_cast<int>(w);
    height = static_cast<int>(h);
    stride = static_cast<int>(s);
    format = f;
    usage = static_cast<int>(u);
    mUsage = u;
    mLayerCount = 1;
    return NO_ERROR;
}

status_t GraphicBuffer::reallocate(uint32_t w, uint32_t h, PixelFormat f, uint32_t layers,
                                   uint64_t u) {
    host::BufferStore& store = *mStore;
    std::lock_guard<std::mutex> lock(store.mutex);
    if (store.locked || !store.imports.empty())
        return INVALID_OPERATION;
    mInitCheck = allocate(w, h, f, layers, u);
    return mInitCheck;
}

status_t GraphicBuffer::lock(uint32_t lockUsage, void** vaddr) {
    if (vaddr == nullptr)
        return BAD_VALUE;
    *vaddr = nullptr;
    if ((lockUsage & USAGE_SOFTWARE_MASK) == 0)
        return BAD_VALUE;
    host::BufferStore& store = *mStore;
    std::lock_guard<std::mutex> lock(store.mutex);
    if (mInitCheck != NO_ERROR)
        return NO_INIT;
    if (store.locked)
        return INVALID_OPERATION;
    if (!store.imports.empty()) {
        status_t status = host::readBackFromImages(*this, store);
        if (status != NO_ERROR)
            return status;
    }
    store.locked = true;
    store.lockUsage = lockUsage;
    if ((lockUsage & USAGE_SW_WRITE_MASK) != 0)
        store.written = true;
    *vaddr = store.memory;
    return NO_ERROR;
}

status_t GraphicBuffer::unlock() {
    host::BufferStore& store = *mStore;
    std::lock_guard<std::mutex> lock(store.mutex);
    if (!store.locked)
        return INVALID_OPERATION;
    status_t status = NO_ERROR;
    if ((store.lockUsage & USAGE_SW_WRITE_MASK) != 0 && !store.imports.empty()) {
        status = host::uploadToImages(*this, store);
    }
    store.locked = false;
    store.lockUsage = 0;
    return status;
}

ANativeWindowBuffer* GraphicBuffer::getNativeBuffer() const {
    return static_cast<ANativeWindowBuffer*>(const_cast<GraphicBuffer*>(this));
}

}  // namespace android
