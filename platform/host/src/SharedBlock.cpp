#include "SharedBlock.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace host {
namespace {

// The data starts one page into the file; the header page holds what the driver checks.
constexpr size_t kHeaderBytes = 4096;

// The driver's import header (Mesa's anonymous-file memory, util/os_memory_fd): the file's size,
// the data offset, then the first 16 bytes of the SHA-1 of the driver's id, which llvmpipe
// compares to its own ("llvmpipe" in the distribution's build) before it accepts the file. The
// driver also reads the data offset from the 8 bytes just before the data when it unmaps its
// own mapping.
struct ImportHeader {
    size_t fileBytes;
    size_t dataOffset;
    uint8_t driverIdHash[16];
};

// SHA-1("llvmpipe"), first 16 bytes. A driver built with another id refuses the import, which
// the bridge's first use detects (the texture then gets no storage) before sharing anything.
constexpr uint8_t kLlvmpipeIdHash[16] = {0x6c, 0xb9, 0xee, 0x07, 0x4a, 0x0b, 0xad, 0x7b,
                                         0x01, 0x2e, 0x1b, 0xe9, 0x69, 0x7e, 0x53, 0x0f};

}  // namespace

SharedBlock::~SharedBlock() {
    release();
}

bool SharedBlock::allocate(size_t bytes) {
    release();
    const size_t page = kHeaderBytes;
    const size_t fileBytes = kHeaderBytes + (bytes + page - 1) / page * page;
    const int fd = memfd_create("qlmr-graphic-buffer", MFD_CLOEXEC);
    if (fd < 0)
        return false;
    if (ftruncate(fd, static_cast<off_t>(fileBytes)) != 0) {
        close(fd);
        return false;
    }
    void* mapping = mmap(nullptr, fileBytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (mapping == MAP_FAILED) {
        close(fd);
        return false;
    }
    fd_ = fd;
    mapping_ = static_cast<uint8_t*>(mapping);
    fileBytes_ = fileBytes;
    data_ = mapping_ + kHeaderBytes;
    bytes_ = bytes;
    ImportHeader header{fileBytes, kHeaderBytes, {}};
    std::memcpy(header.driverIdHash, kLlvmpipeIdHash, sizeof(kLlvmpipeIdHash));
    std::memcpy(mapping_, &header, sizeof(header));
    const size_t dataOffset = kHeaderBytes;
    std::memcpy(data_ - sizeof(dataOffset), &dataOffset, sizeof(dataOffset));
    return true;
}

void SharedBlock::release() {
    if (mapping_ != nullptr)
        munmap(mapping_, fileBytes_);
    if (fd_ >= 0)
        close(fd_);
    fd_ = -1;
    mapping_ = nullptr;
    fileBytes_ = 0;
    data_ = nullptr;
    bytes_ = 0;
}

int SharedBlock::duplicateDescriptor() const {
    return fd_ < 0 ? -1 : fcntl(fd_, F_DUPFD_CLOEXEC, 0);
}

size_t SharedBlock::textureBytes(uint32_t width, uint32_t height) {
    return static_cast<size_t>(texturePitch(width)) * 4 * ((height + 3u) & ~3u);
}

}  // namespace host
