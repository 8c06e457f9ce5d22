// Event queues and sample lists shared by the host sensor tests.
#pragma once

#include <android/looper.h>
#include <android/sensor.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "FinishesWithin.h"
#include "host/HostSensors.h"

namespace sensortest {

constexpr int kIdent = 5565;

// An event queue on the calling thread's looper; destroyed with the object.
struct Queue {
    explicit Queue(const ASensor* s = nullptr) {
        looper = ALooper_prepare(ALOOPER_PREPARE_ALLOW_NON_CALLBACKS);
        // The test thread's looper outlives each test: take a wake left by an earlier
        // replay's end, so that it does not end this test's first poll.
        while (ALooper_pollAll(0, nullptr, nullptr, nullptr) == ALOOPER_POLL_WAKE) {
        }
        manager = ASensorManager_getInstance();
        sensor =
            s != nullptr ? s : ASensorManager_getDefaultSensor(manager, ASENSOR_TYPE_GYROSCOPE);
        queue = ASensorManager_createEventQueue(manager, looper, kIdent, nullptr, nullptr);
    }
    ~Queue() {
        if (queue != nullptr)
            ASensorManager_destroyEventQueue(manager, queue);
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Polls and reads events one at a time until `count` have arrived or a poll returns a
    // negative result (stored in lastPoll).
    std::vector<ASensorEvent> read(size_t count, int timeoutMs = 5000) {
        std::vector<ASensorEvent> events;
        while (events.size() < count) {
            lastPoll = ALooper_pollAll(timeoutMs, nullptr, nullptr, nullptr);
            if (lastPoll < 0)
                break;
            if (lastPoll != kIdent)
                continue;
            ASensorEvent e;
            while (events.size() < count && ASensorEventQueue_getEvents(queue, &e, 1) > 0) {
                events.push_back(e);
            }
        }
        return events;
    }

    ALooper* looper = nullptr;
    ASensorManager* manager = nullptr;
    const ASensor* sensor = nullptr;
    ASensorEventQueue* queue = nullptr;
    int lastPoll = 0;
};

// `count` samples 1 ms apart from `firstNs`, with rates that identify each sample.
inline std::vector<host::GyroSample> samples(size_t count, int64_t firstNs = 1000000000) {
    std::vector<host::GyroSample> list(count);
    for (size_t i = 0; i < count; ++i) {
        list[i].timestampNs = firstNs + static_cast<int64_t>(i) * 1000000;
        list[i].x = static_cast<float>(i);
        list[i].y = -static_cast<float>(i);
        list[i].z = 0.5f;
    }
    return list;
}

inline host::GyroSetup replaySetup(size_t count, host::Pacing pacing, size_t capacity) {
    host::GyroSetup setup;
    setup.source = std::make_shared<host::ReplayGyroSource>(samples(count));
    setup.pacing = pacing;
    setup.queueCapacity = capacity;
    return setup;
}

}  // namespace sensortest
