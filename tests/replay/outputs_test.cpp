// Output recorder, pass-through session, decoding ahead, text tables, ffmpeg and progress line.
#include "FinishesWithin.h"
#include "TestUtil.h"
#include "input/Csv.h"
#include "input/PrefetchFrames.h"
#include "input/Recording.h"
#include "media/ColorConvert.h"
#include "media/Ffmpeg.h"
#include "output/OutputRecorder.h"
#include "output/Progress.h"
#include "session/ReplaySession.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace qlmr::replay;
using replay_test::countFrames;
using replay_test::FlatFrames;
using replay_test::TempDir;
using namespace std::chrono_literals;

namespace {

RecorderOptions recorderOptions(const TempDir& dir, int frames) {
    RecorderOptions o;
    o.videoPath = dir.file("v.y4m");
    o.sideBySidePath = dir.file("sbs.y4m");
    o.expectedFrames = frames;
    o.inputWidth = o.outputWidth = 32;
    o.inputHeight = o.outputHeight = 16;
    o.pairCount = 1;
    o.thumbnailWidth = 16;
    return o;
}

std::vector<uint8_t> flatRgba(int w, int h, uint8_t v) {
    std::vector<uint8_t> px(static_cast<size_t>(w) * h * 4, v);
    for (size_t i = 3; i < px.size(); i += 4)
        px[i] = 255;
    return px;
}

// The outputs' times, surface and width (surface * 100000 + width), and the first pixel.
struct Collect : replay_test::NullObserver {
    std::vector<int64_t> output;
    std::vector<int> sizes;
    int firstPixel = -1;
    void onFrameOutput(int surface, int64_t t, const RgbaView& v) override {
        output.push_back(t);
        sizes.push_back(surface * 100000 + v.width);
        if (firstPixel < 0)
            firstPixel = v.data[0];
    }
};

}  // namespace

TEST(OutputRecorder, MatchesOutputsToInputsAndRecyclesFramesThePassThroughSessionPaces) {
    TempDir dir;
    OutputRecorder rec(recorderOptions(dir, 4));
    FlatFrames frames(4, 32, 16);
    Nv21Image nv;
    nv.resize(32, 16);
    for (int i = 0; i < 4; ++i) {
        frames.read(i, nv);
        rec.onFrameDelivered(i, frames.timestampNs(i), nv);
    }
    const auto px = flatRgba(32, 16, 200);
    const RgbaView view{32, 16, 32, px.data()};
    // Frame 1 dropped, frame 2 out, an output of no camera frame, frame 3 on surface 1 only.
    rec.onFrameOutput(0, frames.timestampNs(0), view);
    rec.onFrameOutput(0, frames.timestampNs(2), view);
    rec.onFrameOutput(0, frames.timestampNs(2) + 1, view);
    rec.onFrameOutput(1, frames.timestampNs(3), view);
    const auto small = flatRgba(16, 16, 0);
    rec.onFrameOutput(0, frames.timestampNs(3), RgbaView{16, 16, 16, small.data()});
    rec.finish();

    ASSERT_EQ(rec.outputs().size(), 3u);
    EXPECT_EQ(rec.outputs()[0].inputIndex, 0);
    EXPECT_EQ(rec.outputs()[1].inputIndex, 2);
    EXPECT_EQ(rec.outputs()[2].inputIndex, -1);
    EXPECT_EQ(rec.unmatchedOutputs(), 1);
    EXPECT_EQ(rec.sizeMismatches(), 1);
    EXPECT_EQ(rec.framesPerSurface(), (std::vector<int>{4, 1}));
    // Luma copies: the input's level, and the output's (RGB 200 grey -> Y 188).
    EXPECT_EQ(rec.inputs()[2].luma.at(3, 3), 40);
    EXPECT_EQ(rec.outputs()[1].luma.at(3, 3), rgbToY(200, 200, 200));
    EXPECT_EQ(countFrames(dir.file("v.y4m")), 3);
    // Side by side only where an input matched: frames 0 and 2.
    EXPECT_EQ(countFrames(dir.file("sbs.y4m")), 2);
    // The pair for the middle frame (index 2 of 4) was kept.
    ASSERT_EQ(rec.pairs().size(), 1u);
    EXPECT_EQ(rec.pairs()[0].inputIndex, 2);
    EXPECT_EQ(rec.pairs()[0].before.width, 16);

    // More frames in flight than buffers: the last one still finds its input.
    TempDir more;
    const int n = 120;
    OutputRecorder many(recorderOptions(more, n));
    FlatFrames manyFrames(n, 32, 16);
    for (int i = 0; i < n; ++i) {
        manyFrames.read(i, nv);
        many.onFrameDelivered(i, manyFrames.timestampNs(i), nv);
    }
    many.onFrameOutput(0, manyFrames.timestampNs(n - 1), view);
    many.finish();
    EXPECT_EQ(many.outputs().size(), 1u);
    EXPECT_EQ(many.outputs()[0].inputIndex, n - 1);
    EXPECT_EQ(countFrames(more.file("sbs.y4m")), 1);
    // The pass-through session paces every frame to every surface by its timestamp.
    FlatFrames paced(6, 32, 16);  // 200 ms from first to last
    SessionConfig config;
    config.surfaces = {{32, 16, 1, 3}, {16, 8, 1, 3}};
    config.realtime = true;
    Collect c;
    auto session = makePassThroughSession();
    SessionResult r;
    ASSERT_TRUE(finishesWithin(20s, [&] { r = session->run(paced, {}, config, c); }));
    EXPECT_EQ(r.framesDelivered, 6);
    EXPECT_GE(r.wallSec, 0.19);
    EXPECT_EQ(r.framesLate, 0);
    ASSERT_EQ(c.output.size(), 12u);
    EXPECT_EQ(c.output[0], c.output[1]);
    EXPECT_EQ(c.sizes[0], 32);
    EXPECT_EQ(c.sizes[1], 100000 + 16);
    uint8_t rgb[3];
    yuvToRgb(20, 128, 128, rgb);
    EXPECT_EQ(c.firstPixel, rgb[0]);
    config.surfaces.clear();
    EXPECT_THROW(session->run(paced, {}, config, c), ReplayError);
}

TEST(CsvReader, SkipsCommentsTrimsAndCountsLinesAndTheProgressLineShowsCountsAndBar) {
    TempDir dir;
    replay_test::writeText(dir.file("t.csv"), "# head\r\n a , b \r\n\r\n  # note\n1,2.5e3,-7\n");
    CsvReader csv(dir.file("t.csv"));
    std::vector<std::string> f;
    ASSERT_TRUE(csv.next(f));
    EXPECT_EQ(f, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(csv.line(), 2);
    ASSERT_TRUE(csv.next(f));
    EXPECT_EQ(csv.line(), 5);
    EXPECT_EQ(csv.toInt64(f[0], "n"), 1);
    EXPECT_DOUBLE_EQ(csv.toDouble(f[1], "v"), 2500.0);
    EXPECT_THROW(csv.toInt64(f[1], "n"), ReplayError);
    EXPECT_THROW(csv.toInt64("99999999999999999999", "n"), ReplayError);
    EXPECT_THROW(csv.toDouble("", "v"), ReplayError);
    EXPECT_FALSE(csv.next(f));
    replay_test::writeText(dir.file("bin.csv"), std::string("a,b\n1,\0", 7));
    CsvReader bin(dir.file("bin.csv"));
    ASSERT_TRUE(bin.next(f));
    try {
        bin.next(f);
        FAIL() << "NUL byte accepted";
    } catch (const ReplayError& e) {
        EXPECT_EQ(e.line(), 2);
    }
    // The progress line.
    EXPECT_EQ(progressLine(150, 300, 140, 35.25),
              "[###############...............]   150/300 frames   140 out   35.2 fps");
    EXPECT_EQ(progressLine(0, 0, 0, 0).substr(0, 32), "[..............................]");
    EXPECT_EQ(progressLine(300, 300, 300, 1).substr(0, 32), "[" + std::string(30, '#') + "]");
}

TEST(Ffmpeg, FindsProgramsAndHonoursTheOverride) {
    EXPECT_NE(findProgram("sh"), "");
    EXPECT_EQ(findProgram("no-such-program-qlmr"), "");
    setenv("QLMR_FFMPEG", "none", 1);
    EXPECT_EQ(ffmpegProgram(), "");
    unsetenv("QLMR_FFMPEG");
    EXPECT_THROW(runProgram({"/nonexistent/program"}), ReplayError);
    std::string err;
    EXPECT_EQ(runProgram({findProgram("sh"), "-c", "echo oops >&2; exit 3"}, &err), 3);
    EXPECT_EQ(err, "oops\n");
}

TEST(Ffmpeg, EncodesWhileFedAndDecodesVideoRecordings) {
    const std::string ffmpeg = findProgram("ffmpeg");
    if (ffmpeg.empty())
        GTEST_SKIP() << "the ffmpeg program is not installed (Debian package ffmpeg)";
    TempDir dir;
    std::string csv = "timestamp_ns\n";
    {
        // More frames than queue slots: the writer must wait for the encoder, not drop frames.
        VideoEncoder enc;
        enc.open(ffmpeg, dir.file("video.mp4"), 320, 240, 30, 1, "veryfast", 2);
        I420Image f;
        f.resize(320, 240);
        std::fill(f.data.begin(), f.data.end(), 128);
        for (int k = 0; k < 30; ++k) {
            std::fill(f.y(), f.y() + 320 * 240, static_cast<uint8_t>(40 + 40 * (k % 5)));
            enc.write(f);
            csv += std::to_string(1000000000LL + k * 33333333LL) + "\n";
        }
        I420Image wrong;
        wrong.resize(32, 48);
        EXPECT_THROW(enc.write(wrong), ReplayError);
        enc.finish();
        EXPECT_EQ(enc.frames(), 30);
    }
    replay_test::writeRecording(dir, csv, "timestamp_ns,x,y,z\n1,0,0,0\n", "vstab.gridRows=9\n");
    const Recording rec = loadRecording(dir.path());
    auto frames = openRecordingFrames(rec);
    Nv21Image nv;
    nv.resize(320, 240);
    for (int k = 0; k < 5; ++k) {
        frames->read(k, nv);
        EXPECT_NEAR(nv.y()[320 * 120 + 160], 40 + 40 * k, 4) << "frame " << k;
    }
    // A replay that reads the video in part stops ffmpeg without a word on the console.
    TempDir out;
    std::string err;
    EXPECT_EQ(replay_test::runCommand("--dry-run --quiet --no-mp4 --max-frames 3 --input " +
                                          dir.path() + " --out " + out.path(),
                                      err),
              0);
    EXPECT_EQ(err, "");
    // An encoder that cannot write its file fails with ffmpeg's message, while fed or at the end.
    VideoEncoder bad;
    bad.open(ffmpeg, dir.file("missing/folder/bad.mp4"), 640, 480, 30, 1, kDefaultH264Preset, 2);
    I420Image big;
    big.resize(640, 480);
    err = replay_test::errorOf([&] {
        for (int k = 0; k < 200; ++k)
            bad.write(big);
        bad.finish();
    });
    EXPECT_THAT(err, HasSubstr("ffmpeg failed"));
    EXPECT_THAT(err, HasSubstr("missing/folder"));
}

namespace {

class MarkedFrames : public FrameSource {
  public:
    int width() const override { return 8; }
    int height() const override { return 4; }
    int count() const override { return 12; }
    int64_t timestampNs(int i) const override { return 1000 + i; }
    int exposureUs(int) const override { return 100; }
    void read(int index, Nv21Image& out) override {
        if (index >= consumed.load() + depth)
            ++tooFarAhead;
        if (std::this_thread::get_id() != reader)
            ++offThread;
        if (index == failAt)
            throw ReplayError("frame.png", index, "bad picture");
        out.resize(8, 4);
        for (uint8_t& b : out.data)
            b = static_cast<uint8_t>(index);
    }
    std::string describe() const override { return "marked"; }

    std::thread::id reader = std::this_thread::get_id();

    std::atomic<int> consumed{0};  // where the reader stands once its current read returns
    int depth = 3;
    int failAt = -1;
    std::atomic<int> tooFarAhead{0};
    std::atomic<int> offThread{0};
};

bool holds(const Nv21Image& p, int index) {
    for (uint8_t b : p.data) {
        if (b != index)
            return false;
    }
    return p.width == 8 && p.height == 4;
}

}  // namespace

// Image files: clones read on threads of their own.
class ClonableFrames : public MarkedFrames {
  public:
    struct Shared {
        std::mutex mutex;
        std::set<std::thread::id> threads;
    };
    explicit ClonableFrames(std::shared_ptr<Shared> s) : shared(std::move(s)) {}
    void read(int index, Nv21Image& out) override {
        std::this_thread::sleep_for(2ms);  // long enough for the decoders to overlap
        MarkedFrames::read(index, out);
        std::lock_guard<std::mutex> lock(shared->mutex);
        shared->threads.insert(std::this_thread::get_id());
    }
    std::unique_ptr<FrameSource> clone() const override {
        return std::make_unique<ClonableFrames>(shared);
    }
    std::shared_ptr<Shared> shared;
};

// Reads in order come ahead from every decoder, others directly; a fault stays with its frame.
TEST(PrefetchFrames, InOrderReadsComeAheadFromEveryDecoderOthersDirectly) {
    MarkedFrames source, faulty, single;
    faulty.depth = 100;  // bound not checked here
    faulty.failAt = 5;
    auto shared = std::make_shared<ClonableFrames::Shared>();
    ClonableFrames clonable(shared);
    ASSERT_TRUE(finishesWithin(10s, [&] {
        Nv21Image picture;
        picture.resize(8, 4);
        {
            PrefetchFrames prefetch(source, source.depth);
            for (int i = 0; i < source.count(); ++i) {
                // read(i) lets the decoding thread go on to i + depth before it returns.
                source.consumed = i + 1;
                prefetch.read(i, picture);
                EXPECT_TRUE(holds(picture, i)) << i;
            }
            EXPECT_EQ(prefetch.prefetchedReads(), source.count());
        }
        PrefetchFrames prefetch(faulty, 2);
        for (int i : {0, 1, 7, 8, 9, 3, 4, 5, 6}) {
            if (i == 5) {
                EXPECT_THROW(prefetch.read(i, picture), ReplayError);
                continue;
            }
            prefetch.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
        PrefetchFrames stopped(faulty, 2);  // destroyed with its ring full
        stopped.read(0, picture);
        PrefetchFrames two(clonable, 4, 2);
        EXPECT_EQ(two.decoders(), 2);
        // In order, then a jump back while both decoders may be busy.
        for (int i : {0, 1, 2, 3, 4, 5, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}) {
            two.read(i, picture);
            EXPECT_TRUE(holds(picture, i)) << i;
        }
        EXPECT_EQ(PrefetchFrames(single, 4, 2).decoders(), 1);  // a source that cannot be cloned
    }));
    EXPECT_EQ(source.offThread.load(), 12);
    EXPECT_EQ(source.tooFarAhead.load(), 0);
    EXPECT_EQ(shared->threads.size(), 3u);  // both decoders, and the reader for the jump back
}
