// libFuzzer target of the stabilization library: arbitrary configuration texts and message
// buffer sizes, then an arbitrary sequence of gyro samples and warp calls on the handle.
//
// Input layout: byte 0 = message capacity; then the configuration text up to the first 0x01
// byte; after it, 21-byte operations (see below). Any violation of the interface contract
// traps, so the fuzzer (and the corpus replay test) reports it.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "zef_gyro_vstab.h"

namespace {

void require(bool ok) {
    if (!ok) {
        __builtin_trap();
    }
}

template <typename T>
T take(const uint8_t*& p, const uint8_t* end) {
    T v{};
    const size_t n =
        static_cast<size_t>(end - p) < sizeof v ? static_cast<size_t>(end - p) : sizeof v;
    std::memcpy(&v, p, n);
    p += n;
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int capacity = data[0];
    const uint8_t* text = data + 1;
    const uint8_t* end = data + size;
    const uint8_t* sep = static_cast<const uint8_t*>(std::memchr(text, 0x01, end - text));
    const uint8_t* textEnd = sep != nullptr ? sep : end;

    // The message buffer with a guard area after its capacity.
    std::vector<char> message(capacity + 64, '\x7f');
    unsigned int messageSize = capacity;
    void* handle = nullptr;
    const int status =
        vStabCreateUseCharCnfgBuff(&handle, reinterpret_cast<const char*>(text),
                                   static_cast<int>(textEnd - text), message.data(), &messageSize);
    for (size_t i = capacity; i < message.size(); ++i) {
        require(message[i] == '\x7f');
    }
    require(capacity == 0 ? messageSize == 0 : messageSize < capacity);
    if (capacity > 0) {
        require(std::strlen(message.data()) == messageSize);
    }
    if (status != 0) {
        require(handle == nullptr);
        return 0;
    }
    const VStabConfigRecord* cfg = vStabConfig(handle);
    require(cfg != nullptr);
    require(cfg->gridColumns >= 2 && cfg->gridRows >= 2);
    require((cfg->gridColumns + 2ull) * (cfg->gridRows + 2ull) <= 65536ull);
    require(cfg->latencyNs >= 0 && cfg->windowNs > 0);
    // Exactly the engine's allocation: any write past it is a sanitizer report.
    std::vector<float> vertices(static_cast<size_t>(cfg->gridColumns) * cfg->gridRows * 3);
    VStabOutput out{0, 0, vertices.data()};

    // Operations: op byte, int64, three 32-bit words.
    int64_t clock = 1000000000000;
    const uint8_t* p = sep != nullptr ? sep + 1 : end;
    while (end - p >= 1) {
        const uint8_t op = take<uint8_t>(p, end);
        const int64_t raw = take<int64_t>(p, end);
        const uint32_t w[3] = {take<uint32_t>(p, end), take<uint32_t>(p, end),
                               take<uint32_t>(p, end)};
        if ((op & 3) == 0) {
            // A plausible sample: a step of up to 65 ms and rates up to +-32 rad/s.
            clock += static_cast<uint16_t>(raw);
            clock += static_cast<int64_t>(static_cast<uint16_t>(raw >> 16)) * 1000;
            float r[3];
            for (int i = 0; i < 3; ++i) {
                r[i] = static_cast<float>(static_cast<int16_t>(w[i])) / 1024.0f;
            }
            require(vStabAddAngularVelocity(handle, clock, r) == 0);
        } else if ((op & 3) == 1) {
            // Anything at all: the call must still succeed (bad samples are dropped).
            float r[3];
            std::memcpy(r, w, sizeof r);
            require(vStabAddAngularVelocity(handle, raw, r) == 0);
        } else {
            VStabFrameInfo info{40, 2, 0, 0, 1.0f, 1.0f, 0, 0};
            if ((op & 3) == 2) {
                // A frame somewhat before the newest sample, plausible exposure and zoom.
                info.timestampNs =
                    clock - static_cast<int64_t>(static_cast<uint32_t>(raw) % 3000000000u);
                info.exposureNs = w[0] % 300000000u;
                info.zoom = 1.0f + static_cast<float>(w[1] % 4000u) / 1000.0f;
            } else {
                info.timestampNs = raw;
                std::memcpy(&info.exposureNs, w, sizeof info.exposureNs);
                std::memcpy(&info.zoom, &w[2], sizeof info.zoom);
            }
            const int s = vStabWarpGrid(handle, &info, &out);
            require(s == 0 || s == 1 || s == 2);
            if (s == 0) {
                for (float v : vertices) {
                    require(std::isfinite(v));
                }
            }
        }
    }
    require(vStabDestroy(handle) == 0);
    return 0;
}
