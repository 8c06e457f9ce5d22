// Colour conversion, picture files, Y4M streams and composition.
#include "TestUtil.h"
#include "media/ColorConvert.h"
#include "media/ImageIo.h"
#include "output/Compose.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

using namespace qlmr::replay;
using replay_test::TempDir;

TEST(ColorConvert, Bt601LimitedRangeReferenceColours) {
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
}

TEST(ColorConvert, RoundTripsThroughNv21I420AndRgba) {
    const RgbImage src = replay_test::gradient(64, 32);
    Nv21Image nv;
    nv.resize(64, 32);
    rgbToNv21(src, nv);
    // NV21 -> RGBA (what a window receives) -> I420 gives back the NV21 planes.
    std::vector<uint8_t> rgba(64 * 32 * 4);
    nv21ToRgba(nv, rgba.data(), 64);
    EXPECT_EQ(rgba[3], 255);
    I420Image direct, viaRgba;
    direct.resize(64, 32);
    viaRgba.resize(64, 32);
    nv21ToI420(nv, direct);
    rgbaToI420(RgbaView{64, 32, 64, rgba.data()}, viaRgba);
    // Back to RGB from NV21 and from I420: the grey level (chroma is shared by 2x2 blocks)
    // of every pixel within 3 of the source's.
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
}

TEST(ColorConvert, DownsampleLumaAveragesBlocks) {
    std::vector<uint8_t> y = {0, 10, 20, 30, 40, 50, 60, 70};  // 4x2, stride 4
    GrayImage out;
    out.resize(2, 1);
    downsampleLuma(y.data(), 4, 2, 4, 2, out);
    EXPECT_EQ(out.at(0, 0), 25);  // (0+10+40+50)/4
    EXPECT_EQ(out.at(1, 0), 45);  // (20+30+60+70)/4
    // Factor 3 on 7x4 (a remainder column and row left out): block means within one level.
    std::vector<uint8_t> z(7 * 4);
    for (size_t i = 0; i < z.size(); ++i)
        z[i] = static_cast<uint8_t>(i % 7 * 30 + i / 7 * 3);
    out.resize(2, 1);
    downsampleLuma(z.data(), 7, 4, 7, 3, out);
    EXPECT_NEAR(out.at(0, 0), 33, 1);   // columns 0..2 (0, 30, 60) + rows 0..2 (0, 3, 6)
    EXPECT_NEAR(out.at(1, 0), 123, 1);  // columns 3..5 (90, 120, 150) + 3
}

TEST(ColorConvert, JfifPlanesToLimitedRangeNv21) {
    // 72x16 luma (every level, rows padded to 80 bytes), 36x8 chroma (every level in both
    // planes, rows of 40): whole vector blocks and remainders on every row.
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
    EXPECT_EQ(chroma(0), 16);
    EXPECT_EQ(chroma(255), 240);
    EXPECT_EQ(portable.vu()[kWidth + 1], chroma(cb[kCStride]));  // second chroma row
}

TEST(ImageIo, Nv21DecodingIsAsCloseToThePictureAsTheRgbRoute) {
    // 4:2:0 JPEG planes are taken straight (with the full- to limited-range step), measured
    // against the source picture's own NV21 beside the RGB route; a size that is not a whole
    // number of 16-pixel MCUs checks the padding. PNG goes through RGB, exactly.
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
    const size_t chroma = direct.data.size() - luma;
    double err[2][2] = {{0, 0}, {0, 0}};  // [direct, via RGB][luma, chroma]
    for (size_t i = 0; i < truth.data.size(); ++i) {
        err[0][i >= luma] += std::abs(int(direct.data[i]) - int(truth.data[i]));
        err[1][i >= luma] += std::abs(int(viaRgb.data[i]) - int(truth.data[i]));
    }
    EXPECT_LT(err[0][0] / luma, 1.0);
    EXPECT_LE(err[0][0], err[1][0] * 1.1);
    EXPECT_LT(err[0][1] / chroma, 3.0);
    EXPECT_LE(err[0][1], err[1][1] * 1.1);
    Nv21Image png;
    reader.readNv21(dir.file("a.png"), png);
    EXPECT_EQ(png.data, truth.data);
    const std::vector<uint8_t> jpg = encodeJpeg(src, 90);
    writeFile(dir.file("cut.jpg"), jpg.data(), jpg.size() / 3);
    EXPECT_THROW(reader.readNv21(dir.file("cut.jpg"), direct), ReplayError);
}

TEST(Y4m, WritesAndReadsFramesExactlyAndRejectsTruncatedAndUnsupportedStreams) {
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
}

// On 32-bit ARM a long file offset ends at 2 GiB. The file is sparse (only the headers are
// written), so it takes no room and no time.
TEST(Y4m, SkipsFramesPastTwoGibibytes) {
    TempDir dir;
    const std::string path = dir.file("large.y4m");
    const std::string header = "YUV4MPEG2 W16384 H16384 F30:1 C420jpeg\n";
    const off_t frameBytes = off_t{16384} * 16384 * 3 / 2;
    const int frames = 6;  // 2.4 GB
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
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
    reader.open(path);
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
