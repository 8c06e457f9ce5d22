// libFuzzer target of the phone converter's input: a phone recording folder (framestamp.txt,
// gyro.txt, frames/frame-N.jpg), loaded and, when it loads, converted into a replay recording
// folder that must load in turn.
//
// Input: sections split at separator lines (FuzzFiles.h): framestamp.txt, gyro.txt, then the
// bytes of frame-1.jpg and frame-2.jpg (an empty section writes no file). Every fault of the
// input must come out as a ReplayError of the loader or of the conversion; a converted folder
// that the replay tool refuses, another exception or a crash is a finding.
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "../FuzzFiles.h"
#include "common/ReplayError.h"
#include "input/PhoneRecording.h"
#include "input/Recording.h"
#include "measure/GyroAlignment.h"

using namespace qlmr::replay;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static qlmr_fuzz::ScratchDir dir;
    dir.clear();
    const std::vector<std::string> files = qlmr_fuzz::splitSections(data, size, 4);
    mkdir(dir.file("in").c_str(), 0755);
    mkdir(dir.file("in/frames").c_str(), 0755);
    dir.write("in/framestamp.txt", files[0]);
    dir.write("in/gyro.txt", files[1]);
    for (int i = 0; i < 2; ++i) {
        if (!files[2 + i].empty())
            dir.write("in/frames/frame-" + std::to_string(i + 1) + ".jpg", files[2 + i]);
    }
    PhoneRecording phone;
    try {
        phone = loadPhoneRecording(dir.file("in"));
    } catch (const ReplayError&) {
        return 0;
    }
    if (phone.framePaths.empty() || phone.framePaths.size() != phone.frameTimestampsNs.size() ||
        phone.gyro.empty())
        std::abort();
    try {
        writePhoneRecording(phone, PhoneCamera(), AxisMap::parse("-y,-x,-z"), 0.2, dir.file("out"));
    } catch (const ReplayError&) {
        return 0;
    }
    try {
        loadRecording(dir.file("out"));
    } catch (const ReplayError& e) {
        std::fprintf(stderr, "the converted recording does not load: %s\n", e.what());
        std::abort();
    }
    return 0;
}
