// Colour conversion, picture files (the PNG fast path decodes every byte back), Y4M, composition.
#include "TestUtil.h"
#include "media/ColorConvert.h"
#include "media/ImageIo.h"
#include "media/PngDecode.h"
#include "output/Compose.h"

#include <fcntl.h>
#include <png.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

using namespace qlmr::replay;
using replay_test::TempDir;

TEST(ColorConvert, Bt601ReferenceColoursRoundTripsAndLumaBlockMeans) {
    struct Case {
        uint8_t r, g, b, y, u, v;
    } cases[] = {{255, 255, 255, 235, 128, 128},
                 {0, 0, 0, 16, 128, 128},
                 {255, 0, 0, 82, 90, 240},
                 {0, 255, 0, 144, 54, 34},
                 {0, 0, 255, 41, 240, 110}};
    for (const Case& c : cases) {
        // The per-pixel reference is exact; the picture conversion (libyuv) within 1.
        EXPECT_EQ(rgbToY(c.r, c.g, c.b), c.y);
        EXPECT_EQ(rgbToU(c.r, c.g, c.b), c.u);
        EXPECT_EQ(rgbToV(c.r, c.g, c.b), c.v);
        const uint8_t rgb[3] = {c.r, c.g, c.b};
        RgbImage solid;
        solid.resize(2, 2);
        for (size_t i = 0; i < solid.data.size(); i += 3)
            std::copy(rgb, rgb + 3, &solid.data[i]);
        Nv21Image nv;
        nv.resize(2, 2);
        rgbToNv21(solid, nv);
        EXPECT_NEAR(nv.y()[0], c.y, 1) << int(c.r) << "," << int(c.g) << "," << int(c.b);
        // NV21 stores V first, then U.
        EXPECT_NEAR(nv.vu()[0], c.v, 1);
        EXPECT_NEAR(nv.vu()[1], c.u, 1);
    }
    const RgbImage src = replay_test::gradient(64, 32);
    Nv21Image nv;
    nv.resize(64, 32);
    rgbToNv21(src, nv);
    // NV21 -> RGBA (a window's) -> I420 gives back NV21; RGB from either within 3 grey levels.
    std::vector<uint8_t> rgba(64 * 32 * 4);
    nv21ToRgba(nv, rgba.data(), 64);
    EXPECT_EQ(rgba[3], 255);
    I420Image direct, viaRgba;
    direct.resize(64, 32);
    viaRgba.resize(64, 32);
    nv21ToI420(nv, direct);
    rgbaToI420(RgbaView{64, 32, 64, rgba.data()}, viaRgba);
    RgbImage back[2];
    back[0].resize(64, 32);
    back[1].resize(64, 32);
    nv21ToRgb(nv, back[0]);
    i420ToRgb(viaRgba, back[1]);
    int worst = 0;
    for (const RgbImage& b : back) {
        for (size_t i = 0; i < src.data.size(); i += 3) {
            worst = std::max(worst, std::abs(rgbToY(src.data[i], src.data[i + 1], src.data[i + 2]) -
                                             rgbToY(b.data[i], b.data[i + 1], b.data[i + 2])));
        }
    }
    EXPECT_LE(worst, 3);
    int worstPlane = 0;
    for (size_t i = 0; i < direct.data.size(); ++i) {
        worstPlane = std::max(worstPlane, std::abs(int(direct.data[i]) - int(viaRgba.data[i])));
    }
    EXPECT_LE(worstPlane, 3);
    // Chroma planes keep U and V apart (a swap would move blue into red).
    EXPECT_EQ(direct.v()[0], nv.vu()[0]);
    EXPECT_EQ(direct.u()[0], nv.vu()[1]);
    // Luma reduced by 2 (4x2, stride 4) and by 3 (7x4: a remainder column and row left out).
    std::vector<uint8_t> y = {0, 10, 20, 30, 40, 50, 60, 70};
    GrayImage out;
    out.resize(2, 1);
    downsampleLuma(y.data(), 4, 2, 4, 2, out);
    EXPECT_EQ(out.at(0, 0), 25);  // (0+10+40+50)/4
    EXPECT_EQ(out.at(1, 0), 45);  // (20+30+60+70)/4
    std::vector<uint8_t> z(7 * 4);
    for (size_t i = 0; i < z.size(); ++i)
        z[i] = static_cast<uint8_t>(i % 7 * 30 + i / 7 * 3);
    out.resize(2, 1);
    downsampleLuma(z.data(), 7, 4, 7, 3, out);
    EXPECT_NEAR(out.at(0, 0), 33, 1);   // columns 0..2 (0, 30, 60) + rows 0..2 (0, 3, 6)
    EXPECT_NEAR(out.at(1, 0), 123, 1);  // columns 3..5 (90, 120, 150) + 3
}

TEST(ImageIo, JfifPlanesToLimitedRangeNv21AsCloseToThePictureAsTheRgbRoute) {
    // Every level in each plane, padded rows, whole vector blocks and remainders on every row.
    constexpr int kWidth = 72, kHeight = 16, kYStride = 80, kCStride = 40;
    std::vector<uint8_t> y(kYStride * kHeight), cb(kCStride * kHeight / 2), cr(cb.size());
    for (size_t i = 0; i < y.size(); ++i)
        y[i] = static_cast<uint8_t>(i * 7);
    for (size_t i = 0; i < cb.size(); ++i) {
        cb[i] = static_cast<uint8_t>(i);
        cr[i] = static_cast<uint8_t>(255 - i * 3);
    }
    Nv21Image portable, vector;
    portable.resize(kWidth, kHeight);
    vector.resize(kWidth, kHeight);
    jfifToNv21(y.data(), kYStride, cb.data(), cr.data(), kCStride, portable, false);
    jfifToNv21(y.data(), kYStride, cb.data(), cr.data(), kCStride, vector, true);
    EXPECT_EQ(vector.data, portable.data);
    // Exact levels: 16 + round(219 v / 255); 128 +- round(224 |v - 128| / 255), V before U.
    for (int x = 0; x < kWidth; ++x) {
        const int v = (x * 7) & 0xFF;
        ASSERT_EQ(portable.y()[x], 16 + (v * 219 + 127) / 255) << x;
    }
    EXPECT_EQ(portable.y()[kWidth + 1], 16 + ((kYStride + 1) * 7 % 256 * 219 + 127) / 255);
    auto chroma = [](int v) {
        return v >= 128 ? 128 + ((v - 128) * 224 + 127) / 255 : 128 - ((128 - v) * 224 + 127) / 255;
    };
    for (int x = 0; x < kWidth / 2; ++x) {
        ASSERT_EQ(portable.vu()[2 * x], chroma(cr[x])) << x;
        ASSERT_EQ(portable.vu()[2 * x + 1], chroma(cb[x])) << x;
    }
    EXPECT_EQ(portable.vu()[kWidth + 1], chroma(cb[kCStride]));  // second chroma row
    // JPEG 4:2:0 planes taken straight, against the RGB route, at a size of partial MCUs.
    TempDir dir;
    const RgbImage src = replay_test::gradient(70, 38);
    writeJpeg(dir.file("a.jpg"), src, 95);
    writePng(dir.file("a.png"), src);
    Nv21Image truth, direct, viaRgb;
    truth.resize(70, 38);
    viaRgb.resize(70, 38);
    rgbToNv21(src, truth);
    ImageReader reader;
    reader.readNv21(dir.file("a.jpg"), direct);
    rgbToNv21(readImage(dir.file("a.jpg")), viaRgb);
    ASSERT_EQ(direct.width, 70);
    ASSERT_EQ(direct.height, 38);
    EXPECT_EQ(readImageSize(dir.file("a.jpg")).width, 70);
    EXPECT_EQ(readImageSize(dir.file("a.png")).height, 38);
    const size_t luma = 70 * 38;
    const size_t chromaBytes = direct.data.size() - luma;
    double err[2][2] = {{0, 0}, {0, 0}};  // [direct, via RGB][luma, chromaBytes]
    for (size_t i = 0; i < truth.data.size(); ++i) {
        err[0][i >= luma] += std::abs(int(direct.data[i]) - int(truth.data[i]));
        err[1][i >= luma] += std::abs(int(viaRgb.data[i]) - int(truth.data[i]));
    }
    EXPECT_LT(err[0][0] / luma, 1.0);
    EXPECT_LE(err[0][0], err[1][0] * 1.1);
    EXPECT_LT(err[0][1] / chromaBytes, 3.0);
    EXPECT_LE(err[0][1], err[1][1] * 1.1);
    Nv21Image png;
    reader.readNv21(dir.file("a.png"), png);
    EXPECT_EQ(png.data, truth.data);
    const std::vector<uint8_t> jpg = encodeJpeg(src, 90);
    writeFile(dir.file("cut.jpg"), jpg.data(), jpg.size() / 3);
    EXPECT_THROW(reader.readNv21(dir.file("cut.jpg"), direct), ReplayError);
}

TEST(Y4m, WritesReadsAndSkipsFramesAndRejectsTruncatedAndUnsupportedStreams) {
    TempDir dir;
    const std::string path = dir.file("v.y4m");
    I420Image f;
    f.resize(8, 4);
    {
        Y4mWriter w;
        w.open(path, 8, 4, 30000, 1001);
        for (int k = 0; k < 3; ++k) {
            for (size_t i = 0; i < f.data.size(); ++i)
                f.data[i] = static_cast<uint8_t>(i * 7 + k);
            w.write(f);
        }
        I420Image wrong;
        wrong.resize(6, 4);
        EXPECT_THROW(w.write(wrong), ReplayError);
        EXPECT_EQ(w.frames(), 3);
    }
    EXPECT_EQ(replay_test::readText(path).substr(0, 27), "YUV4MPEG2 W8 H4 F30000:1001");
    Y4mReader r;
    r.open(path);
    EXPECT_EQ(r.fpsDen(), 1001);
    I420Image g;
    for (int k = 0; k < 3; ++k) {
        ASSERT_TRUE(r.read(g));
        EXPECT_EQ(g.data[5], static_cast<uint8_t>(5 * 7 + k));
    }
    EXPECT_FALSE(r.read(g));

    const std::string text = "YUV4MPEG2 W4 H2 F25:1 C420jpeg\nFRAME\n" + std::string(12, 'a') +
                             "FRAME\n" + std::string(5, 'b');
    replay_test::writeText(dir.file("cut.y4m"), text);
    Y4mReader cut;
    cut.open(dir.file("cut.y4m"));
    EXPECT_TRUE(cut.read(g));
    EXPECT_THAT(replay_test::errorOf([&] { cut.read(g); }), HasSubstr("truncated"));
    replay_test::writeText(dir.file("444.y4m"), "YUV4MPEG2 W4 H2 F25:1 C444\n");
    EXPECT_THROW(Y4mReader().open(dir.file("444.y4m")), ReplayError);
    replay_test::writeText(dir.file("odd.y4m"), "YUV4MPEG2 W5 H2 F25:1\n");
    EXPECT_THROW(Y4mReader().open(dir.file("odd.y4m")), ReplayError);
    // Past 2 GiB (where a 32-bit ARM long file offset ends), frames are still skipped.
    const std::string large = dir.file("large.y4m");  // sparse: headers only
    const std::string header = "YUV4MPEG2 W16384 H16384 F30:1 C420jpeg\n";
    const off_t frameBytes = off_t{16384} * 16384 * 3 / 2;
    const int frames = 6;  // 2.4 GB
    const int fd = ::open(large.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    off_t at = 0;
    ASSERT_EQ(pwrite(fd, header.data(), header.size(), at), static_cast<ssize_t>(header.size()));
    at += static_cast<off_t>(header.size());
    for (int k = 0; k < frames; ++k, at += 6 + frameBytes)
        ASSERT_EQ(pwrite(fd, "FRAME\n", 6, at), 6);
    ASSERT_EQ(ftruncate(fd, at), 0);
    ::close(fd);
    ASSERT_GT(at, off_t{1} << 31);
    Y4mReader reader;
    reader.open(large);
    for (int k = 0; k < frames; ++k)
        ASSERT_TRUE(reader.skip()) << "frame " << k;
    EXPECT_FALSE(reader.skip());
}

TEST(Compose, SideBySidePlacesBothPicturesWithAGap) {
    I420Image left, right, out;
    left.resize(8, 4);
    right.resize(16, 8);  // scaled to the left's height: 8 wide
    std::fill(left.data.begin(), left.data.end(), 50);
    std::fill(right.data.begin(), right.data.end(), 200);
    int w = 0, h = 0;
    sideBySideSize(8, 4, 16, 8, w, h);
    EXPECT_EQ(w, 8 + kSideBySideGap + 8);
    EXPECT_EQ(h, 4);
    out.resize(w, h);
    composeSideBySide(left, right, out);
    EXPECT_EQ(out.y()[0], 50);
    EXPECT_EQ(out.y()[8], 16);  // gap: black
    EXPECT_EQ(out.y()[w - 1], 200);
    EXPECT_EQ(out.y()[3 * w + 7], 50);
    EXPECT_EQ(out.u()[w / 2 - 1], 200);
    EXPECT_EQ(out.u()[4], 128);
}

namespace {

// An RGB picture with noise: each filter leaves residuals.
RgbImage noisy(int w, int h) {
    RgbImage img = replay_test::gradient(w, h);
    uint32_t state = 12345;
    for (uint8_t& v : img.data) {
        state = state * 1664525u + 1013904223u;
        v = static_cast<uint8_t>(v + (state >> 28));
    }
    return img;
}

// `image` as a PNG (RGB, RGBA with alpha 200, or grey from red), rows through `filters`.
std::vector<uint8_t> encode(const RgbImage& image, int colour, int filters, bool interlaced) {
    std::vector<uint8_t> out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &out,
        [](png_structp p, png_bytep data, png_size_t n) {
            auto* bytes = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(p));
            bytes->insert(bytes->end(), data, data + n);
        },
        [](png_structp) {});
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

namespace {

// CRC-32 of PNG chunks (ISO 3309): damage behind a valid CRC reaches the check beyond it.
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

// Interlaced and grey files go to libpng; damage fails on both paths; the fast path stays good.
TEST(PngFastDecoder, EveryFilterDecodesToTheOriginalBytesOtherKindsAndDamageGoToLibpng) {
    PngFastDecoder decoder;
    RgbImage out;
    const RgbImage odd = noisy(37, 11);  // no row is a whole number of vectors
    for (const int colour : {PNG_COLOR_TYPE_RGB, PNG_COLOR_TYPE_RGB_ALPHA}) {
        for (const int filters : {PNG_FILTER_NONE, PNG_FILTER_SUB, PNG_FILTER_UP, PNG_FILTER_AVG,
                                  PNG_FILTER_PAETH, PNG_ALL_FILTERS}) {
            const std::vector<uint8_t> file = encode(odd, colour, filters, false);
            ASSERT_TRUE(decoder.decode(file.data(), file.size(), out))
                << "colour " << colour << " filters " << filters;
            EXPECT_EQ(out.width, odd.width);
            EXPECT_EQ(out.height, odd.height);
            EXPECT_EQ(out.data, odd.data) << "colour " << colour << " filters " << filters;
        }
    }
    const RgbImage src = noisy(24, 10);
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
