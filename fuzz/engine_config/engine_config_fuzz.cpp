// libFuzzer target of the engine's own reading of the configuration text (the "native.*" keys,
// looked up by plain substring search): every key the engine reads, in its numeric and its
// string form, with the lookup's contract checked on the result.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "Context.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The Java side hands the text over as a C string: it ends at the first NUL.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::char_traits<char>::length(text.c_str()));

    for (const char* key :
         {"native.cameraUvOffset", "native.cameraHeight", "native.bufferFrameCount"}) {
        std::string raw;
        if (findConfigValue(text, key, raw)) {
            // The value is what follows the first '=' after the key, up to the line's end.
            const size_t keyPos = text.find(key);
            const size_t eq = text.find('=', keyPos);
            if (keyPos == std::string::npos || eq == std::string::npos ||
                text.compare(eq + 1, raw.size(), raw) != 0 ||
                raw.find('\n') != std::string::npos ||
                (eq + 1 + raw.size() < text.size() && text[eq + 1 + raw.size()] != '\n'))
                std::abort();
        }
        int number = 0;
        readConfigParam<int>(text, key, number, -1);
        std::string value;
        readConfigParam(text, key, value, std::string("default"));
        if (raw.empty() && value != "default" && !value.empty())
            std::abort();
    }
    return 0;
}
