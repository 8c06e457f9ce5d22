// The gyro sensor thread: reads the device gyroscope through the platform sensor service and
// hands every sample, synchronously on this thread, to the engine's gyro intake. Without a
// gyroscope it feeds zero rotation at 250 Hz so that the engine runs unchanged.
//
// Lifetime equals the thread's: the constructor starts it, the destructor stops and joins it.
#pragma once

#include <android/looper.h>
#include <android/sensor.h>

#include <atomic>
#include <cstdint>

#include "cTThread.h"

class Context;

class SensorManager : public cTThread {
  public:
    explicit SensorManager(Context* engine);
    // Requests the stop, joins the thread (after its current poll returns or times out).
    ~SensorManager() override;

    void Run() override;

    ASensorManager* sensorManager = nullptr;
    const ASensor* sensor = nullptr;
    ASensorEventQueue* eventQueue = nullptr;
    std::atomic<int32_t> state{ThreadState::Created};
    Context* engine;

  private:
    void runFakeGyro();
    void runGyro();
};
