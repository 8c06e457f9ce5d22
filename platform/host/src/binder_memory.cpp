// Host binder interface base and shared memory: memfd heaps mapped in this process.
#include <binder/IInterface.h>
#include <binder/IMemory.h>
#include <binder/MemoryBase.h>
#include <binder/MemoryHeapBase.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host_log.h"

namespace android {

IInterface::IInterface() = default;
IInterface::~IInterface() = default;

sp<IBinder> IInterface::asBinder(const IInterface* iface) {
    if (iface == nullptr)
        return nullptr;
    return const_cast<IInterface*>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface>& iface) {
    if (iface == nullptr)
        return nullptr;
    return iface->onAsBinder();
}

IMPLEMENT_META_INTERFACE(MemoryHeap, "android.utils.IMemoryHeap")
IMPLEMENT_META_INTERFACE(Memory, "android.utils.IMemory")

void* IMemory::pointer() const {
    ssize_t offset = 0;
    sp<IMemoryHeap> heap = getMemory(&offset);
    if (heap == nullptr)
        return nullptr;
    void* base = heap->getBase();
    if (base == nullptr)
        return nullptr;
    return static_cast<char*>(base) + offset;
}

size_t IMemory::size() const {
    size_t size = 0;
    getMemory(nullptr, &size);
    return size;
}

ssize_t IMemory::offset() const {
    ssize_t offset = 0;
    getMemory(&offset);
    return offset;
}

MemoryHeapBase::MemoryHeapBase(size_t size, uint32_t flags, char const* name) : mFlags(flags) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t rounded = (size + page - 1) / page * page;
    if (rounded == 0)
        rounded = page;
    int fd = memfd_create(name != nullptr ? name : "MemoryHeapBase", MFD_CLOEXEC);
    if (fd < 0) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "memfd_create for a %zu-byte heap failed: %s", size,
                        std::strerror(errno));
        return;
    }
    if (ftruncate(fd, static_cast<off_t>(rounded)) != 0) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "sizing a %zu-byte heap failed: %s", rounded,
                        std::strerror(errno));
        close(fd);
        return;
    }
    int prot = PROT_READ | ((flags & READ_ONLY) != 0 ? 0 : PROT_WRITE);
    void* base = mmap(nullptr, rounded, prot, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "mapping a %zu-byte heap failed: %s", rounded,
                        std::strerror(errno));
        close(fd);
        return;
    }
    mFd = fd;
    mBase = base;
    mSize = rounded;
}

MemoryHeapBase::~MemoryHeapBase() {
    if (mBase != nullptr)
        munmap(mBase, mSize);
    if (mFd >= 0)
        close(mFd);
}

int MemoryHeapBase::getHeapID() const {
    return mFd;
}
void* MemoryHeapBase::getBase() const {
    return mBase;
}
size_t MemoryHeapBase::getSize() const {
    return mSize;
}
uint32_t MemoryHeapBase::getFlags() const {
    return mFlags;
}
off_t MemoryHeapBase::getOffset() const {
    return 0;
}

MemoryBase::MemoryBase(const sp<IMemoryHeap>& heap, ssize_t offset, size_t size)
    : mSize(size), mOffset(offset), mHeap(heap) {}

MemoryBase::~MemoryBase() = default;

sp<IMemoryHeap> MemoryBase::getMemory(ssize_t* offset, size_t* size) const {
    if (offset != nullptr)
        *offset = mOffset;
    if (size != nullptr)
        *size = mSize;
    return mHeap;
}

}  // namespace android
