// libFuzzer target of the replay tool's recording folder loader.
//
// Input: the files of one recording folder, split at separator lines (FuzzFiles.h), in this
// order: frames.csv, gyro.csv, config.txt, a.png, b.jpg, video.y4m (an empty section writes no
// file). The folder is loaded with every image checked; a recording that loads has its first
// frames decoded. Every fault of the input must come out as a ReplayError: anything else
// (another exception, a crash, a sanitizer report) is a finding.
#include <cstdint>
#include <cstdlib>

#include "../FuzzFiles.h"
#include "common/ReplayError.h"
#include "input/Recording.h"

using namespace qlmr::replay;

namespace {

// Frames larger than this are not decoded: a picture may legitimately be huge, and decoding it
// would only measure the fuzzer's memory limit.
constexpr int64_t kMaxDecodedPixels = 1 << 20;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static qlmr_fuzz::ScratchDir dir;
    static const char* const kNames[] = {"frames.csv", "gyro.csv", "config.txt",
                                         "a.png",      "b.jpg",    "video.y4m"};
    constexpr size_t kFiles = sizeof kNames / sizeof kNames[0];
    dir.clear();
    const std::vector<std::string> files = qlmr_fuzz::splitSections(data, size, kFiles);
    for (size_t i = 0; i < kFiles; ++i) {
        // The three text files always exist (an empty one is its own error); the pictures and
        // the video only when given.
        if (i < 3 || !files[i].empty())
            dir.write(kNames[i], files[i]);
    }
    try {
        const Recording rec = loadRecording(dir.path());
        if (rec.width <= 0 || rec.height <= 0 || rec.frames.empty() || rec.gyro.empty())
            std::abort();  // a recording that loads is complete
        if (static_cast<int64_t>(rec.width) * rec.height > kMaxDecodedPixels)
            return 0;
        auto frames = openRecordingFrames(rec);
        Nv21Image image;
        image.resize(frames->width(), frames->height());
        for (int i = 0; i < frames->count() && i < 3; ++i)
            frames->read(i, image);
    } catch (const ReplayError&) {
    }
    return 0;
}
