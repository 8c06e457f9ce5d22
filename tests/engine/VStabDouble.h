// The stabilization library's stand-in: statuses on demand, every call recorded (under `mutex`).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "zef_gyro_vstab.h"

struct VStabDouble {
    // Configuration record values handed out by vStabConfig.
    uint32_t gridColumns = 4;
    uint32_t gridRows = 3;
    int64_t windowNs = 200000000;
    int64_t latencyNs = 100000000;
    int32_t debugFrameIndex = 0;
    int32_t clockIdGyro = 7;
    int32_t clockIdFrame = 7;

    // Results of the non-warp calls.
    int createStatus = 0;
    bool configNull = false;
    int addStatus = 0;
    int destroyStatus = 0;

    // Warp statuses: scripted ones first, one per call, then `defaultStatus`. On status 0 the
    // grid written is the unwarped ±1.25 grid scaled by `gridScale`, moved right by `gridOffsetX`.
    std::atomic<int> defaultStatus{0};
    float gridScale = 1.0f;
    float gridOffsetX = 0.0f;
    // While set, every warp call returns `holdStatus` (the frame stays queued).
    std::atomic<bool> hold{false};
    int holdStatus = ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN;
    // Time every warp call takes, µs: a slow library or a slow device.
    std::atomic<int> warpDelayUs{0};

    std::atomic<int> createCalls{0};
    std::atomic<int> addCalls{0};
    std::atomic<int> warpCalls{0};
    std::atomic<int> destroyCalls{0};
    std::atomic<int> liveHandles{0};
    std::atomic<int> warpedOk{0};  // warp calls that returned 0 (the frame leaves the queue)

    std::mutex mutex;
    std::deque<int> scriptedStatuses;
    std::vector<int64_t> gyroTimestamps;          // every sample's timestamp, in arrival order
    std::vector<std::array<float, 3>> gyroRates;  // every sample's x, y, z, in arrival order
    std::vector<int64_t> warpTimestamps;          // every warp call's frame timestamp
    std::vector<VStabFrameInfo> warpInfos;        // every warp call's frame record
    std::string lastConfigText;

    void script(std::initializer_list<int> statuses) {
        std::lock_guard<std::mutex> lock(mutex);
        scriptedStatuses.insert(scriptedStatuses.end(), statuses);
    }
    // Forgets the per-call records (long runs keep memory flat this way); counters stay.
    void clearRecords() {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<int64_t>().swap(gyroTimestamps);
        std::vector<std::array<float, 3>>().swap(gyroRates);
        std::vector<int64_t>().swap(warpTimestamps);
        std::vector<VStabFrameInfo>().swap(warpInfos);
    }
};

// Restores every setting and clears the records. Call at the start of each test.
void resetVStabDouble();
VStabDouble& vstabDouble();

// A copy of one of the double's records, taken under its mutex.
template <typename T>
std::vector<T> snapshot(const std::vector<T>& records) {
    std::lock_guard<std::mutex> lock(vstabDouble().mutex);
    return records;
}
