#include "VStabDouble.h"

#include <cstring>
#include <new>
#include <string>
#include <thread>

namespace {

VStabDouble* gDouble = new VStabDouble;  // lives for the process; reset between tests

struct Handle {
    VStabConfigRecord record{};
};

}  // namespace

VStabDouble& vstabDouble() {
    return *gDouble;
}

void resetVStabDouble() {
    delete gDouble;
    gDouble = new VStabDouble;
}

extern "C" {

int vStabCreateUseCharCnfgBuff(void** handle, const char* configText, int configLength,
                               char* message, unsigned int* messageSize) {
    VStabDouble& d = vstabDouble();
    d.createCalls++;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.lastConfigText.assign(configText, static_cast<size_t>(configLength));
    }
    if (d.createStatus != 0) {
        const char text[] = "test double refused the configuration";
        unsigned int n = std::min<unsigned int>(*messageSize, sizeof(text));
        std::memcpy(message, text, n);
        *messageSize = n;
        return d.createStatus;
    }
    auto* h = new Handle;
    h->record.gridColumns = d.gridColumns;
    h->record.gridRows = d.gridRows;
    h->record.windowNs = d.windowNs;
    h->record.latencyNs = d.latencyNs;
    h->record.debugFrameIndex = d.debugFrameIndex;
    h->record.clockIdGyro = d.clockIdGyro;
    h->record.clockIdFrame = d.clockIdFrame;
    *handle = h;
    d.liveHandles++;
    *messageSize = 0;
    return 0;
}

VStabConfigRecord* vStabConfig(void* handle) {
    if (vstabDouble().configNull || handle == nullptr)
        return nullptr;
    return &static_cast<Handle*>(handle)->record;
}

int vStabAddAngularVelocity(void*, long long timestampNs, const float* angularVelocity) {
    VStabDouble& d = vstabDouble();
    d.addCalls++;
    std::lock_guard<std::mutex> lock(d.mutex);
    d.gyroTimestamps.push_back(timestampNs);
    d.gyroRates.push_back({angularVelocity[0], angularVelocity[1], angularVelocity[2]});
    return d.addStatus;
}

int vStabWarpGrid(void* handle, const void* frameInfo, VStabOutput* output) {
    VStabDouble& d = vstabDouble();
    d.warpCalls++;
    if (int delayUs = d.warpDelayUs.load())
        std::this_thread::sleep_for(std::chrono::microseconds(delayUs));
    const auto* info = static_cast<const VStabFrameInfo*>(frameInfo);
    int status = d.defaultStatus;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.warpTimestamps.push_back(info->timestampNs);
        d.warpInfos.push_back(*info);
        if (d.hold.load()) {
            status = d.holdStatus;
        } else if (!d.scriptedStatuses.empty()) {
            status = d.scriptedStatuses.front();
            d.scriptedStatuses.pop_front();
        }
    }
    if (status == 0) {
        d.warpedOk++;
        const VStabConfigRecord& r = static_cast<Handle*>(handle)->record;
        float* v = output->warpVertices;
        for (uint32_t j = 0; j < r.gridRows; ++j) {
            for (uint32_t i = 0; i < r.gridColumns; ++i) {
                *v++ =
                    (2.0f * i / (r.gridColumns - 1) - 1.0f) * 1.25f * d.gridScale + d.gridOffsetX;
                *v++ = (2.0f * j / (r.gridRows - 1) - 1.0f) * 1.25f * d.gridScale;
                *v++ = 0.0f;
            }
        }
    }
    return status;
}

int vStabDestroy(void* handle) {
    VStabDouble& d = vstabDouble();
    d.destroyCalls++;
    if (d.destroyStatus != 0)
        return d.destroyStatus;
    delete static_cast<Handle*>(handle);
    d.liveHandles--;
    return 0;
}

}  // extern "C"
