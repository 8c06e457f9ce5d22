#include "media/PngDecode.h"

#include <libdeflate.h>

#include <cstdlib>
#include <cstring>
#include <new>

namespace qlmr::replay {

namespace {

constexpr uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr uint32_t kMaxSide = 1u << 15;  // larger pictures go to libpng

uint32_t bigEndian32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

uint8_t paeth(int a, int b, int c) {
    const int p = a + b - c;
    const int pa = std::abs(p - a), pb = std::abs(p - b), pc = std::abs(p - c);
    if (pa <= pb && pa <= pc)
        return static_cast<uint8_t>(a);
    return static_cast<uint8_t>(pb <= pc ? b : c);
}

// Undoes one row's filter in place: `row` holds `bytes` filtered bytes of `bpp`-byte pixels,
// `prev` the row above, unfiltered (null for the first row, which sees zeros above it). False
// for an unknown filter type.
template <int bpp>
bool unfilterRow(uint8_t filter, uint8_t* row, const uint8_t* prev, size_t bytes) {
    // With zeros above (the first row), Paeth always picks the left pixel: it is Sub there.
    if (filter == 4 && prev == nullptr)
        filter = 1;
    switch (filter) {
        case 0:
            return true;
        case 1:
            for (size_t i = bpp; i < bytes; ++i)
                row[i] = static_cast<uint8_t>(row[i] + row[i - bpp]);
            return true;
        case 2:
            if (prev != nullptr) {
                for (size_t i = 0; i < bytes; ++i)
                    row[i] = static_cast<uint8_t>(row[i] + prev[i]);
            }
            return true;
        case 3:
            for (size_t i = 0; i < bytes; ++i) {
                const int left = i >= bpp ? row[i - bpp] : 0;
                const int up = prev != nullptr ? prev[i] : 0;
                row[i] = static_cast<uint8_t>(row[i] + ((left + up) >> 1));
            }
            return true;
        case 4:
            for (size_t i = 0; i < bpp; ++i)
                row[i] = static_cast<uint8_t>(row[i] + prev[i]);
            for (size_t i = bpp; i < bytes; ++i)
                row[i] = static_cast<uint8_t>(row[i] + paeth(row[i - bpp], prev[i], prev[i - bpp]));
            return true;
        default:
            return false;
    }
}

}  // namespace

PngFastDecoder::PngFastDecoder() : inflater_(libdeflate_alloc_decompressor()) {
    if (inflater_ == nullptr)
        throw std::bad_alloc();
}

PngFastDecoder::~PngFastDecoder() {
    libdeflate_free_decompressor(inflater_);
}

bool PngFastDecoder::decode(const uint8_t* data, size_t size, RgbImage& out) {
    if (size < 8 + 25 || std::memcmp(data, kSignature, 8) != 0)
        return false;
    // IHDR first: 8-bit RGB (2) or RGBA (6), deflate, filter method 0, not interlaced.
    const uint8_t* ihdr = data + 8;
    if (bigEndian32(ihdr) != 13 || std::memcmp(ihdr + 4, "IHDR", 4) != 0 ||
        libdeflate_crc32(0, ihdr + 4, 17) != bigEndian32(ihdr + 21)) {
        return false;
    }
    const uint32_t width = bigEndian32(ihdr + 8);
    const uint32_t height = bigEndian32(ihdr + 12);
    const uint8_t depth = ihdr[16], colour = ihdr[17];
    if (width == 0 || height == 0 || width > kMaxSide || height > kMaxSide || depth != 8 ||
        (colour != 2 && colour != 6) || ihdr[18] != 0 || ihdr[19] != 0 || ihdr[20] != 0) {
        return false;
    }
    const int bpp = colour == 2 ? 3 : 4;

    // The IDAT chunks, joined; unknown critical chunks (upper-case first letter) are left to
    // libpng, ancillary ones change nothing in an RGB picture whose alpha is dropped.
    compressed_.clear();
    bool ended = false;
    for (size_t at = 8 + 25; !ended;) {
        if (size - at < 12)
            return false;
        const uint32_t length = bigEndian32(data + at);
        const uint8_t* type = data + at + 4;
        if (length > size - at - 12)
            return false;
        // Every chunk's CRC (type and data) is checked, as libpng checks them.
        if (libdeflate_crc32(0, type, 4 + static_cast<size_t>(length)) !=
            bigEndian32(type + 4 + length)) {
            return false;
        }
        if (std::memcmp(type, "IDAT", 4) == 0) {
            compressed_.insert(compressed_.end(), data + at + 8, data + at + 8 + length);
        } else if (std::memcmp(type, "IEND", 4) == 0) {
            ended = true;
        } else if ((type[0] & 0x20) == 0 && std::memcmp(type, "PLTE", 4) != 0) {
            return false;
        }
        at += 12 + static_cast<size_t>(length);
    }

    // Inflated (the zlib checksum is verified): each row is its filter type and its bytes.
    const size_t rowBytes = static_cast<size_t>(width) * bpp;
    const size_t total = static_cast<size_t>(height) * (rowBytes + 1);
    filtered_.resize(total);
    size_t produced = 0;
    if (libdeflate_zlib_decompress(inflater_, compressed_.data(), compressed_.size(),
                                   filtered_.data(), total, &produced) != LIBDEFLATE_SUCCESS ||
        produced != total) {
        return false;
    }

    out.resize(static_cast<int>(width), static_cast<int>(height));
    const uint8_t* prev = nullptr;
    for (uint32_t y = 0; y < height; ++y) {
        uint8_t* line = filtered_.data() + static_cast<size_t>(y) * (rowBytes + 1);
        uint8_t* row = line + 1;
        const bool ok = bpp == 3 ? unfilterRow<3>(line[0], row, prev, rowBytes)
                                 : unfilterRow<4>(line[0], row, prev, rowBytes);
        if (!ok)
            return false;
        uint8_t* dst = out.row(static_cast<int>(y));
        if (bpp == 3) {
            std::memcpy(dst, row, rowBytes);
        } else {
            for (uint32_t x = 0; x < width; ++x) {
                dst[3 * x] = row[4 * x];
                dst[3 * x + 1] = row[4 * x + 1];
                dst[3 * x + 2] = row[4 * x + 2];
            }
        }
        prev = row;
    }
    return true;
}

}  // namespace qlmr::replay
