// Memory that the host driver (Mesa llvmpipe) can take as the storage of a texture through
// GL_EXT_memory_object_fd, so that the CPU and GL read and write the same bytes with no copy
// between them. Internal to the host platform.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host {

// An anonymous file (memfd) mapped into the process: one header page that the driver reads when
// it imports a descriptor of the file, then the data. llvmpipe maps the file again on import and
// uses the data in place as the texture's pixels (linear rows); a texture of width w and height
// h needs a row pitch of w rounded up to 16 pixels (4 bytes each) and h rounded up to 4 rows.
class SharedBlock {
  public:
    SharedBlock() = default;
    ~SharedBlock();
    SharedBlock(const SharedBlock&) = delete;
    SharedBlock& operator=(const SharedBlock&) = delete;

    // `bytes` zeroed data bytes, 4096-byte aligned. False (and empty) when the file or the
    // mapping cannot be made.
    bool allocate(size_t bytes);
    void release();

    uint8_t* data() const { return data_; }
    size_t bytes() const { return bytes_; }
    bool empty() const { return data_ == nullptr; }

    // A new descriptor of the file, for glImportMemoryFdEXT (which takes ownership of it), or -1.
    int duplicateDescriptor() const;
    // The size to import: the whole file, header page included.
    uint64_t importSize() const { return fileBytes_; }

    // Bytes a driver texture of `width` x `height` RGBA pixels occupies (see above).
    static size_t textureBytes(uint32_t width, uint32_t height);
    // Row pitch of such a texture, in pixels.
    static uint32_t texturePitch(uint32_t width) { return (width + 15u) & ~15u; }

  private:
    int fd_ = -1;
    uint8_t* mapping_ = nullptr;  // the whole file
    size_t fileBytes_ = 0;
    uint8_t* data_ = nullptr;  // mapping_ + the header page
    size_t bytes_ = 0;
};

}  // namespace host
