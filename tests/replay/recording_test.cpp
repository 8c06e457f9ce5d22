// Recording folders: loading, and one clear error (file and line) for each kind of fault.
#include "TestUtil.h"
#include "input/Recording.h"
#include "media/ColorConvert.h"
#include "media/Ffmpeg.h"
#include "media/ImageIo.h"

using namespace qlmr::replay;
using replay_test::TempDir;
using replay_test::writeText;

namespace {

// A valid three-frame recording of 32x16 PNG frames.
void makeRecording(const TempDir& dir) {
    replay_test::writeRecording(
        dir,
        "timestamp_ns,file,exposure_us\n# first frame\n1000000000,frames/0.png,5000\n"
        "1033000000,frames/1.png,5000\n1066000000,frames/2.png,5100\r\n",
        "timestamp_ns,x,y,z\n999000000,0.1,0.2,0.3\n1050000000,0,0,-1e-3\n1080000000,0,0,0\n",
        "key=value\n");
    for (int i = 0; i < 3; ++i)
        writePng(dir.file("frames/" + std::to_string(i) + ".png"), replay_test::gradient(32, 16));
}

// Loads the recording and returns the error text ("" when it loaded).
std::string loadError(const TempDir& dir) {
    return replay_test::errorOf([&] { loadRecording(dir.path()); });
}

}  // namespace

TEST(RecordingFolder, LoadsAValidRecordingSavesItBackAndVideoFramesMustMatchTheTimestampList) {
    TempDir dir;
    makeRecording(dir);
    const Recording rec = loadRecording(dir.path());
    EXPECT_EQ(rec.height, 16);
    ASSERT_EQ(rec.frames.size(), 3u);
    EXPECT_EQ(rec.frames[2].timestampNs, 1066000000);
    EXPECT_EQ(rec.frames[2].exposureUs, 5100);
    EXPECT_EQ(rec.frames[1].line, 4);  // comment lines count
    ASSERT_EQ(rec.gyro.size(), 3u);
    EXPECT_FLOAT_EQ(rec.gyro[1].z, -1e-3f);
    EXPECT_EQ(rec.configText, "key=value\n");

    auto frames = openRecordingFrames(rec);
    Nv21Image nv;
    nv.resize(32, 16);
    frames->read(1, nv);
    Nv21Image expected;
    expected.resize(32, 16);
    rgbToNv21(replay_test::gradient(32, 16), expected);
    EXPECT_EQ(nv.data, expected.data);
    // Saved as a recording folder, it loads back the same.
    TempDir dst;
    saveRecording(dst.path(), *frames, rec.gyro, rec.configText, 0);
    const Recording back = loadRecording(dst.path());
    ASSERT_EQ(back.frames.size(), 3u);
    EXPECT_EQ(back.frames[1].timestampNs, rec.frames[1].timestampNs);
    EXPECT_EQ(back.frames[2].exposureUs, 5100);
    ASSERT_EQ(back.gyro.size(), rec.gyro.size());
    EXPECT_FLOAT_EQ(back.gyro[0].y, 0.2f);
    EXPECT_EQ(back.configText, rec.configText);
    // A video instead of images: its frames must match frames.csv.
    I420Image f;
    f.resize(32, 16);
    const auto writeY4m = [&](int n) {
        Y4mWriter w;
        w.open(dir.file("video.y4m"), 32, 16, 30, 1);
        for (int i = 0; i < n; ++i)
            w.write(f);
    };
    writeText(dir.file("frames.csv"), "timestamp_ns\n1000\n2000\n3000\n");
    // Counted before the replay.
    for (const int n : {2, 4}) {
        writeY4m(n);
        EXPECT_THAT(loadError(dir), HasSubstr("video.y4m: the video has " + std::to_string(n) +
                                              " frames, frames.csv lists 3"));
    }
    writeY4m(3);
    const Recording video = loadRecording(dir.path());
    EXPECT_EQ(video.videoPath, dir.file("video.y4m"));
    // And checked again while reading (the file changed since).
    writeY4m(2);
    auto videoFrames = openRecordingFrames(video);
    videoFrames->read(0, nv);
    videoFrames->read(1, nv);
    EXPECT_THAT(replay_test::errorOf([&] { videoFrames->read(2, nv); }),
                HasSubstr("video ends after 2 frames, frames.csv lists 3"));
    // Other videos are counted by ffprobe.
    std::remove(dir.file("video.y4m").c_str());
    const std::string ffmpeg = ffmpegProgram();
    if (ffmpeg.empty() || ffprobeBeside(ffmpeg).empty())
        GTEST_SKIP() << "ffmpeg and ffprobe are not installed (Debian package ffmpeg)";
    VideoEncoder mp4;
    mp4.open(ffmpeg, dir.file("video.mp4"), 32, 16, 30, 1);
    mp4.write(f);
    mp4.write(f);
    mp4.finish();
    EXPECT_THAT(loadError(dir), HasSubstr("video.mp4: the video has 2 frames, frames.csv lists 3"));
}

TEST(RecordingFolder, EachFaultIsReportedWithFileAndLine) {
    // Each case spoils one part of a valid recording: a file's new text, or (no file) a shell
    // command run in its folder; no expected error is a recording that still loads.
    struct Fault {
        const char* file;
        std::string text;
        std::string expected;  // part of the error text
    } faults[] = {
        {"frames.csv", "timestamp_ns,file\n1000,frames/0.png\nabc,frames/1.png\n",
         "frames.csv:3: timestamp_ns 'abc' is not an integer"},
        {"frames.csv", "timestamp_ns,file\n1000,frames/0.png,7\n",
         "frames.csv:2: expected 2 fields"},
        {"frames.csv", "timestamp_ns,file\n2000,frames/0.png\n1000,frames/1.png\n",
         "frames.csv:3: timestamp 1000 is not after the previous frame's 2000 (line 2)"},
        {"frames.csv", "timestamp_ns,file\n2000,frames/0.png\n2000,frames/1.png\n",
         "frames.csv:3: timestamp 2000 is not after"},
        {"frames.csv", "timestamp_ns,file\n1000,frames/0.png\n2000,frames/9.png\n",
         "frames.csv:3: image"},
        {"frames.csv", "time,file\n", "frames.csv:1: header must start with timestamp_ns"},
        {"frames.csv", "timestamp_ns,file,exposure_us\n1000,frames/0.png,65536\n",
         "frames.csv:2: exposure_us 65536 outside 0..65535"},
        {"frames.csv", "timestamp_ns,file\n", "no frames listed"},
        {"gyro.csv", "timestamp_ns,x,y,z\n1,0,0,0\n2,0,zero,0\n",
         "gyro.csv:3: y 'zero' is not a number"},
        {"gyro.csv", "timestamp_ns,x,y,z\n5,0,0,0\n4,0,0,0\n",
         "gyro.csv:3: timestamp 4 goes back before 5 (line 2)"},
        {"gyro.csv", "timestamp_ns,x,y,z\n5,0,0\n", "gyro.csv:2: expected 4 fields"},
        {"gyro.csv", "timestamp_ns,x,y,z\n0,0,0,0\n", "gyro.csv:2: timestamp_ns must be positive"},
        {"gyro.csv", "timestamp_ns,x,y,z\n5,nan,0,0\n", "gyro.csv:2: x 'nan' is not finite"},
        {"gyro.csv", "timestamp_ns,x,y,z\n5,0,0,0\n6,0,-50,0\n",
         "gyro.csv:3: y -50 rad/s is beyond the gyroscope's range of ±35 rad/s"},
        {"gyro.csv", "timestamp_ns,x,y,z\n5,0,0,1e300\n", "gyro.csv:2: z 1e+300 rad/s is beyond"},
        {"config.txt", "", "config.txt: empty configuration text"},
        {"frames/1.png", "garbage\n", "frames.csv:4: image"},
        // A spreadsheet's byte-order mark before the header is not part of the table.
        {"gyro.csv", "\xEF\xBB\xBFtimestamp_ns,x,y,z\n999000000,0,0,0\n", ""},
        {nullptr, "rm gyro.csv", "gyro.csv: cannot open"},
        {nullptr, "rm config.txt", "config.txt: cannot open"},
        {nullptr, "rm gyro.csv && mkdir gyro.csv", "gyro.csv: not a regular file"},
        {nullptr, "rm config.txt && mkdir config.txt", "config.txt: not a regular file"},
    };
    for (const Fault& f : faults) {
        TempDir dir;
        makeRecording(dir);
        if (f.file != nullptr)
            writeText(dir.file(f.file), f.text);
        else
            ASSERT_EQ(std::system(("cd '" + dir.path() + "' && " + f.text).c_str()), 0);
        const std::string err = loadError(dir);
        EXPECT_THAT(err, HasSubstr(f.expected));
        EXPECT_EQ(err.empty(), f.expected.empty()) << err;
        EXPECT_EQ(err.find('\n'), std::string::npos) << err;
    }
}

TEST(RecordingFolder, FrameSizesMustMatchAndImagesMustBeWhole) {
    const std::vector<uint8_t> jpeg = encodeJpeg(replay_test::gradient(32, 16), 95);
    const std::vector<uint8_t> png = encodePng(replay_test::gradient(32, 16));
    const std::vector<uint8_t> cutJpeg(jpeg.begin(), jpeg.end() - 16);  // inside the scan
    std::vector<uint8_t> trailed = jpeg;  // a camera maker's trailer after the end marker loads
    for (const char c : std::string("SEFH trailer \xff\xd8 SEFT"))
        trailed.push_back(static_cast<uint8_t>(c));
    const auto sized = [](int width) { return encodePng(replay_test::gradient(width, 16)); };
    const std::string fit = "; frames need an even width and height of at most 8192";
    const struct {
        int frame;
        std::vector<uint8_t> bytes;
        std::string reason;  // after "frames.csv:<line>: image <path>"; "" when it loads
    } cases[] = {
        {2, sized(30), " is 30x16, the recording's frames are 32x16"},
        {0, sized(31), " is 31x16" + fit},
        {0, sized(8194), " is 8194x16" + fit},
        {1, {png.begin(), png.end() - 12}, ": the file does not end with the PNG IEND chunk"},
        {1, cutJpeg, ": the file does not end with the JPEG end-of-image marker (FF D9)"},
        {1, trailed, ""}};
    for (const auto& c : cases) {
        TempDir dir;
        makeRecording(dir);
        const std::string frame = dir.file("frames/" + std::to_string(c.frame) + ".png");
        writeFile(frame, c.bytes.data(), c.bytes.size());
        const std::string line = "frames.csv:" + std::to_string(c.frame + 3) + ": image ";
        const std::string err = loadError(dir);
        EXPECT_EQ(err.empty(), c.reason.empty()) << err;
        EXPECT_THAT(err, HasSubstr(c.reason.empty() ? "" : line + frame + c.reason));
    }
    EXPECT_THROW(loadRecording("/nonexistent/recording"), ReplayError);
    // While replaying, the decoder's own reason at the frame's line, on both JPEG paths.
    TempDir dir;
    makeRecording(dir);
    std::vector<uint8_t> patched = cutJpeg;
    patched.push_back(0xFF);
    patched.push_back(0xD9);
    writeFile(dir.file("frames/1.png"), patched.data(), patched.size());
    const Recording rec = loadRecording(dir.path());
    auto frames = openRecordingFrames(rec);
    Nv21Image nv;
    nv.resize(32, 16);
    EXPECT_THAT(replay_test::errorOf([&] { frames->read(1, nv); }),
                HasSubstr("frames.csv:4: image " + dir.file("frames/1.png") + ": Corrupt JPEG"));
    EXPECT_THROW(readImage(dir.file("frames/1.png")), ReplayError);
}
