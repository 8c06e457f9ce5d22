// The PNG fast path (libdeflate and our own unfiltering) against the pictures it was given:
// PNG is lossless, so every decoded byte must be the original one, whatever filter the writer
// chose; files of other kinds go to libpng and must decode as before.
#include "TestUtil.h"
#include "media/ImageIo.h"
#include "media/PngDecode.h"

#include <png.h>

#include <cstring>
#include <utility>
#include <vector>

using namespace qlmr::replay;

namespace {

// An RGB picture with noise, so that each filter leaves non-trivial residuals.
RgbImage noisy(int w, int h) {
    RgbImage img = replay_test::gradient(w, h);
    uint32_t state = 12345;
    for (uint8_t& v : img.data) {
        state = state * 1664525u + 1013904223u;
        v = static_cast<uint8_t>(v + (state >> 28));
    }
    return img;
}

void appendBytes(png_structp png, png_bytep data, png_size_t n) {
    auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + n);
}
void noFlush(png_structp) {}

// `image` as a PNG of colour type `colour` (RGB, RGBA with alpha 200, or grey from the red
// channel) with every row written through `filters` (PNG_FILTER_* bits), optionally interlaced.
std::vector<uint8_t> encode(const RgbImage& image, int colour, int filters, bool interlaced) {
    std::vector<uint8_t> out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(png, &out, appendBytes, noFlush);
    png_set_IHDR(png, info, image.width, image.height, 8, colour,
                 interlaced ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, filters);
    png_write_info(png, info);
    const int channels = colour == PNG_COLOR_TYPE_RGB_ALPHA ? 4
                         : colour == PNG_COLOR_TYPE_GRAY    ? 1
                                                            : 3;
    std::vector<uint8_t> rows(static_cast<size_t>(image.width) * channels * image.height);
    std::vector<png_bytep> pointers;
    for (int y = 0; y < image.height; ++y) {
        uint8_t* row = rows.data() + static_cast<size_t>(y) * image.width * channels;
        for (int x = 0; x < image.width; ++x) {
            const uint8_t* p = image.row(y) + 3 * x;
            for (int c = 0; c < channels; ++c)
                row[x * channels + c] = c < 3 ? p[c] : 200;
        }
        pointers.push_back(row);
    }
    png_write_image(png, pointers.data());
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

}  // namespace

TEST(PngFastDecoder, EveryFilterDecodesToTheOriginalBytes) {
    const RgbImage src = noisy(37, 11);  // odd width: no row is a whole number of vectors
    PngFastDecoder decoder;
    for (const int colour : {PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA}) {
        for (const int filters : {PNG_FILTER_NONE, PNG_FILTER_SUB, PNG_FILTER_UP, PNG_FILTER_AVG,
                                  PNG_FILTER_PAETH, PNG_ALL_FILTERS}) {
            const std::vector<uint8_t> file = encode(src, colour, filters, false);
            RgbImage out;
            ASSERT_TRUE(decoder.decode(file.data(), file.size(), out))
                << "colour " << colour << " filters " << filters;
            EXPECT_EQ(out.width, src.width);
            EXPECT_EQ(out.height, src.height);
            EXPECT_EQ(out.data, src.data) << "colour " << colour << " filters " << filters;
        }
    }
}

namespace {

// CRC-32 of PNG chunks (ISO 3309), bit by bit: the tests' damaged files keep valid CRCs where
// the damage must reach the check behind them.
uint32_t crc32(const uint8_t* p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k)
            c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
    }
    return ~c;
}

void putBigEndian(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

// Offset of the first chunk of `type` in a PNG file.
size_t chunkAt(const std::vector<uint8_t>& png, const char* type) {
    for (size_t at = 8; at + 12 <= png.size();) {
        if (std::memcmp(png.data() + at + 4, type, 4) == 0)
            return at;
        at += 12 + ((size_t(png[at]) << 24) | (size_t(png[at + 1]) << 16) |
                    (size_t(png[at + 2]) << 8) | png[at + 3]);
    }
    return std::string::npos;
}

}  // namespace

// Interlaced and grey files are not taken (libpng decodes them); damage fails on both paths:
// each damage for a file the fast path takes (RGB) and one it leaves to libpng (interlaced),
// and the fast path stays good for the next frame.
TEST(PngFastDecoder, OtherKindsAndDamageAreLeftToLibpng) {
    const RgbImage src = noisy(24, 10);
    PngFastDecoder decoder;
    RgbImage out;
    replay_test::TempDir dir;
    const std::vector<uint8_t> grey = encode(src, PNG_COLOR_TYPE_GRAY, PNG_ALL_FILTERS, false);
    EXPECT_FALSE(decoder.decode(grey.data(), grey.size(), out));
    for (const bool interlaced : {false, true}) {
        const std::vector<uint8_t> good =
            encode(src, PNG_COLOR_TYPE_RGB, PNG_ALL_FILTERS, interlaced);
        EXPECT_EQ(decoder.decode(good.data(), good.size(), out), !interlaced);
        writeFile(dir.file("i.png"), good.data(), good.size());
        EXPECT_EQ(readImage(dir.file("i.png")).data, src.data);
        // One flipped byte inside the image data: the chunk's CRC no longer matches.
        std::vector<uint8_t> flipped = encode(src, PNG_COLOR_TYPE_RGB, PNG_ALL_FILTERS, interlaced);
        flipped[flipped.size() - 20] ^= 0x40;
        // An ancillary chunk whose CRC is wrong (libpng's default drops it with a warning).
        std::vector<uint8_t> ancillary = good;
        const uint8_t text[] = {0, 0, 0, 4, 't', 'E', 'X', 't', 'a', 0, 'b', 'c', 1, 2, 3, 4};
        ancillary.insert(ancillary.begin() + static_cast<long>(chunkAt(good, "IDAT")), text,
                         text + sizeof text);
        // The image data's zlib checksum (its last 4 bytes) wrong, the chunk's CRC made right.
        std::vector<uint8_t> adler = good;
        const size_t idat = chunkAt(adler, "IDAT");
        const size_t length = chunkAt(adler, "IEND") - idat - 12;
        adler[idat + 8 + length - 1] ^= 0x01;
        putBigEndian(&adler[idat + 8 + length], crc32(&adler[idat + 4], length + 4));
        // Cut short inside the image data, and without IEND.
        const std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<long>(idat + 30));
        const std::vector<uint8_t> noEnd(good.begin(), good.end() - 12);
        const std::pair<const char*, const std::vector<uint8_t>*> cases[] = {
            {"flipped byte", &flipped},
            {"ancillary chunk CRC", &ancillary},
            {"zlib checksum", &adler},
            {"cut short", &cut},
            {"no IEND", &noEnd}};
        for (const auto& [what, damaged] : cases) {
            EXPECT_FALSE(decoder.decode(damaged->data(), damaged->size(), out)) << what;
            writeFile(dir.file("d.png"), damaged->data(), damaged->size());
            EXPECT_THROW(readImage(dir.file("d.png")), ReplayError)
                << what << (interlaced ? ", interlaced" : "");
        }
    }
    const std::vector<uint8_t> whole = encode(src, PNG_COLOR_TYPE_RGB, PNG_ALL_FILTERS, false);
    ASSERT_TRUE(decoder.decode(whole.data(), whole.size(), out));
    EXPECT_EQ(out.data, src.data);
}
