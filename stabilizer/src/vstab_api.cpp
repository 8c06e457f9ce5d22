// The five exported functions of libzef_gyro_vstab.so. Each converts between the C records and
// the Stabilizer and lets no exception out. The engine serialises all calls on one handle.
#include <cstdio>
#include <cstring>
#include <new>

#include "Config.h"
#include "Stabilizer.h"
#include "zef_gyro_vstab.h"

namespace {

constexpr uint32_t kHandleMagic = 0x5a475653u;  // "ZGVS"
constexpr int kErrorNoMemory = -12;
// Tag of the library's own lines in the Android log (the engine's log on the host).
constexpr const char* kLogTag = "ZefVStab";
constexpr int kLogInfo = 4;  // android_LogPriority
constexpr int kLogWarn = 5;

}  // namespace

// liblog's print function, bound weakly: the library does not link liblog itself (it needs
// nothing but libc), but the process it is loaded into (the engine, the tools, the tests)
// does, and then the lines go to the same log as the engine's. Without liblog nothing is
// logged.
extern "C" int __android_log_print(int priority, const char* tag, const char* format, ...)
    __attribute__((weak, format(printf, 3, 4)));

namespace {

template <typename... Args>
void logLine(int priority, const char* format, Args... args) {
    if (__android_log_print != nullptr) {
        __android_log_print(priority, kLogTag, format, args...);
    }
}

struct Handle {
    explicit Handle(const vstab::StabConfig& c) : stabilizer(c) {}
    uint32_t magic = kHandleMagic;
    VStabConfigRecord record{};
    vstab::Stabilizer stabilizer;
};

Handle* toHandle(void* handle) {
    Handle* h = static_cast<Handle*>(handle);
    return (h != nullptr && h->magic == kHandleMagic) ? h : nullptr;
}

// Copies `text` into the caller's buffer without passing its capacity and reports the number
// of characters written (the terminating NUL not counted).
void writeMessage(char* message, unsigned int* messageSize, const char* text) {
    if (messageSize == nullptr) {
        return;
    }
    if (message == nullptr || *messageSize == 0) {
        *messageSize = 0;
        return;
    }
    size_t n = std::strlen(text);
    if (n > *messageSize - 1u) {
        n = *messageSize - 1u;
    }
    std::memcpy(message, text, n);
    message[n] = '\0';
    *messageSize = static_cast<unsigned int>(n);
}

}  // namespace

extern "C" {

VSTAB_API int vStabCreateUseCharCnfgBuff(void** handle, const char* configText, int configLength,
                                         char* message, unsigned int* messageSize) {
    char text[400];
    if (handle == nullptr || configLength < 0 || (configText == nullptr && configLength > 0)) {
        writeMessage(message, messageSize,
                     "Invalid arguments: a handle pointer and a configuration text of "
                     "non-negative length are required.");
        return vstab::kStatusInvalidArgument;
    }
    *handle = nullptr;
    vstab::StabConfig config;
    vstab::ConfigWarnings warnings;
    if (!vstab::parseConfig(configText, static_cast<size_t>(configLength), config, text,
                            sizeof text, &warnings)) {
        logLine(kLogWarn, "Configuration refused: %s", text);
        writeMessage(message, messageSize, text);
        return vstab::kStatusInvalidArgument;
    }
    // Every warning once in the log, one line each.
    for (const char* line = warnings.text; *line != '\0';) {
        const char* nl = std::strchr(line, '\n');
        const int n =
            nl != nullptr ? static_cast<int>(nl - line) : static_cast<int>(std::strlen(line));
        logLine(kLogWarn, "Configuration warning: %.*s", n, line);
        line = nl != nullptr ? nl + 1 : line + n;
    }
    if (warnings.count > 0 && warnings.text[0] == '\0') {
        logLine(kLogWarn, "Configuration warnings: %d", warnings.count);
    }
    Handle* h = nullptr;
    try {
        h = new Handle(config);
    } catch (const std::bad_alloc&) {
        writeMessage(message, messageSize, "Out of memory while creating the stabilizer.");
        return kErrorNoMemory;
    } catch (...) {
        writeMessage(message, messageSize, "Creating the stabilizer failed.");
        return kErrorNoMemory;
    }
    VStabConfigRecord& r = h->record;
    r.gridColumns = config.gridColumns;
    r.gridRows = config.gridRows;
    r.windowNs = config.windowNs;
    r.latencyNs = config.latencyNs;
    r.debugFrameIndex = config.debugFrameIndex;
    r.clockIdGyro = config.clockIdGyro;
    r.clockIdFrame = config.clockIdFrame;
    std::snprintf(text, sizeof text,
                  "Gyro stabilizer ready: grid %ux%u, look-ahead %lld ms, readout %lld us, "
                  "overscan %.3g.",
                  config.gridColumns, config.gridRows,
                  static_cast<long long>(config.latencyNs / 1000000),
                  static_cast<long long>(config.readoutNs / 1000), config.overscan);
    logLine(kLogInfo, "%s", text);
    if (warnings.count > 0) {
        // The warnings come first, so that a short buffer keeps them rather than the summary.
        char full[vstab::ConfigWarnings::kCapacity + sizeof text + 64];
        std::snprintf(full, sizeof full, "%d configuration warning%s: %s\n%s", warnings.count,
                      warnings.count == 1 ? "" : "s", warnings.text, text);
        writeMessage(message, messageSize, full);
    } else {
        writeMessage(message, messageSize, text);
    }
    *handle = h;
    return 0;
}

VSTAB_API VStabConfigRecord* vStabConfig(void* handle) {
    Handle* h = toHandle(handle);
    return h != nullptr ? &h->record : nullptr;
}

VSTAB_API int vStabAddAngularVelocity(void* handle, long long timestampNs,
                                      const float* angularVelocity) {
    Handle* h = toHandle(handle);
    if (h == nullptr) {
        return vstab::kStatusInvalidArgument;
    }
    // Unusable samples are counted and dropped inside: refusing one would end the engine's
    // sensor thread.
    h->stabilizer.addAngularVelocity(timestampNs, angularVelocity);
    return 0;
}

VSTAB_API int vStabWarpGrid(void* handle, const void* frameInfo, VStabOutput* output) {
    Handle* h = toHandle(handle);
    if (h == nullptr || frameInfo == nullptr || output == nullptr ||
        output->warpVertices == nullptr) {
        return vstab::kStatusInvalidArgument;
    }
    VStabFrameInfo info;
    std::memcpy(&info, frameInfo, sizeof info);
    return h->stabilizer.warp(info, output->warpVertices);
}

VSTAB_API int vStabDestroy(void* handle) {
    Handle* h = toHandle(handle);
    if (h == nullptr) {
        return vstab::kStatusInvalidArgument;
    }
    h->magic = 0;
    delete h;
    return 0;
}

}  // extern "C"
