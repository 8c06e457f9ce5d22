// libFuzzer target of the replay tool's Y4M reader: the input is the whole stream, read from
// memory frame by frame to its end. Every fault of the stream must come out as a ReplayError;
// a frame that reads must have the header's size.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/ReplayError.h"
#include "media/Y4m.h"

using namespace qlmr::replay;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    FILE* stream = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (stream == nullptr)
        std::abort();
    try {
        Y4mReader reader;
        reader.attach(stream, "fuzz.y4m");
        I420Image frame;
        while (reader.read(frame)) {
            if (frame.width != reader.width() || frame.height != reader.height())
                std::abort();
        }
    } catch (const ReplayError&) {
    }
    std::fclose(stream);
    return 0;
}
