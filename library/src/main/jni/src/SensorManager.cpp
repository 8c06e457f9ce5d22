#include "SensorManager.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>

#include "Context.h"
#include "Log.h"

namespace {

constexpr int kGyroscopeType = 4;           // ASENSOR_TYPE_GYROSCOPE
constexpr int kLooperIdent = 5565;          // ident of the sensor event queue on the looper
constexpr useconds_t kFakePeriodUs = 4000;  // 250 Hz stand-by stream
constexpr int kMinTimeout = 10000;

// Newest real gyro timestamp delivered, ns; guards the order of sensor events for the whole
// process (never reset). Touched only by the sensor thread.
int64_t lastGyroTimestamp = 0;

[[noreturn]] void fail(const char* message) {
    QLOGW("%s", message);
    throw std::runtime_error(message);
}

}  // namespace

SensorManager::SensorManager(Context* engineIn) : engine(engineIn) {
    state.store(ThreadState::Created, std::memory_order_relaxed);
    startThread();
}

SensorManager::~SensorManager() {
    stopThread(state);
}

void SensorManager::Run() {
    state.store(ThreadState::Running, std::memory_order_relaxed);
    sensorManager = ASensorManager_getInstance();
    sensor = ASensorManager_getDefaultSensor(sensorManager, kGyroscopeType);
    if (sensor == nullptr) {
        runFakeGyro();
    } else {
        runGyro();
    }
    state.store(ThreadState::Exited, std::memory_order_relaxed);
}

void SensorManager::runFakeGyro() {
    QLOGW("Gyro Sensor Not Available");
    QLOGW("use fake gyro sensor, [0, 0, 0]");
    while (state.load(std::memory_order_relaxed) == ThreadState::Running) {
        timespec ts{};
        clock_gettime(CLOCK_BOOTTIME, &ts);
        long long nowNs = static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
        float zero[3] = {0.0f, 0.0f, 0.0f};
        engine->gyroCallbackTimestamp(nowNs, zero, nullptr);
        usleep(kFakePeriodUs);
    }
    QLOGW("[JJJ] Fake SensorManager Thread Exit");
}

void SensorManager::runGyro() {
    QLOGW("[SensorManager] Using gyroscope sensor: %s - %d", ASensor_getName(sensor),
          ASensor_getType(sensor));
    ALooper* looper = ALooper_prepare(ALOOPER_PREPARE_ALLOW_NON_CALLBACKS);
    if (looper == nullptr)
        fail("Could not create looper, fatal error");
    ALooper_acquire(looper);

    eventQueue =
        ASensorManager_createEventQueue(sensorManager, looper, kLooperIdent, nullptr, nullptr);
    if (eventQueue == nullptr)
        fail("Could not create Event Queue");

    int minDelayUs = ASensor_getMinDelay(sensor);
    if (ASensorEventQueue_enableSensor(eventQueue, sensor) < 0) {
        fail("ASensorEventQueue_enableSensor Error");
    }
    QLOGW("ASensor_getMinDelay = %d us", minDelayUs);
    if (ASensorEventQueue_setEventRate(eventQueue, sensor, minDelayUs) < 0) {
        fail("ASensorEventQueue_setEventRate Error");
    }

    // Computed as µs but handed to the looper as ms: a generous wait, not a tight one.
    int timeout = static_cast<int>(std::max(minDelayUs, kMinTimeout) * 1.5);
    QLOGW("SensorManager timeout = %d us", timeout);

    while (state.load(std::memory_order_relaxed) == ThreadState::Running) {
        int ident = ALooper_pollAll(timeout, nullptr, nullptr, nullptr);
        if (ident < 0)
            break;
        if (ident != kLooperIdent)
            continue;
        ASensorEvent event;
        while (state.load(std::memory_order_relaxed) == ThreadState::Running &&
               ASensorEventQueue_getEvents(eventQueue, &event, 1) > 0) {
            if (event.timestamp >= lastGyroTimestamp) {
                lastGyroTimestamp = event.timestamp;
                engine->gyroCallbackTimestamp(event.timestamp, &event.data[0], &event.data[3]);
            } else {
                QLOGW("[VSTAB] SensorManager gyro timestamp go past,ignore it[%lld][%lld]",
                      static_cast<long long>(event.timestamp),
                      static_cast<long long>(lastGyroTimestamp));
            }
        }
    }

    QLOGW("[JJJ] SensorManager Thread Clean up");
    if (ASensorEventQueue_disableSensor(eventQueue, sensor) < 0) {
        fail("ASensorEventQueue_disableSensor Error");
    }
    if (ASensorManager_destroyEventQueue(sensorManager, eventQueue) < 0) {
        fail("ASensorManager_destroyEventQueue Error");
    }
    ALooper_release(looper);
    QLOGW("[JJJ] SensorManager Thread Exit");
}
