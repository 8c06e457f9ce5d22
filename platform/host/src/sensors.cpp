// Host sensor service: the NDK sensor manager, sensors and event queues, and the service thread
// that feeds the gyroscope's samples into the queues.
//
// Objects: one ASensorManager (a singleton). One ASensor and one GyroService per installation
// of a gyroscope; both are kept for the life of the process so that an ASensor* handed out
// stays valid after the gyroscope is replaced (a replaced service refuses new queues and lets
// its source go). Event queues are made and destroyed by the client.
//
// Locks, in the order they nest: the registry lock; a service's control lock (serialises
// enable/disable and the start and join of the service thread); the service lock (its state,
// enabled queues and counters); a queue's lock (its ring and flags). getEvents takes only the
// queue lock, and tells the service about freed room after letting it go.
#undef __ANDROID_API__
#define __ANDROID_API__ 29  // declare every function this file defines

#include <android/sensor.h>

#include <cstddef>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

#include <utils/Looper.h>

#include "host/HostSensors.h"
#include "host_log.h"

// The event record is the platform's, the same on every ABI (the sensor service writes it
// across processes): 104 bytes, the 64-bit timestamp at byte 16 (8-aligned on 32-bit ARM as on
// x86-64), the values from byte 24.
static_assert(sizeof(ASensorEvent) == 104, "ASensorEvent is 104 bytes on every ABI");
static_assert(offsetof(ASensorEvent, timestamp) == 16, "ASensorEvent timestamp at byte 16");
static_assert(offsetof(ASensorEvent, vector) == 24, "ASensorEvent values at byte 24");

namespace host {
class GyroService;
}

struct ASensor {
    int type = 0;
    int handle = 0;
    std::string name;
    std::string vendor;
    int minDelayUs = 0;
    float resolution = 0.0f;
    host::GyroService* service = nullptr;  // never destroyed
};

struct ASensorManager {};

struct ASensorEventQueue {
    android::sp<android::Looper> looper;
    int fd = -1;  // eventfd: readable while the ring holds events
    int ident = 0;

    std::mutex mutex;
    std::vector<ASensorEvent> ring;  // fixed capacity
    size_t head = 0;                 // oldest event
    size_t count = 0;
    host::GyroService* feeder = nullptr;  // the service this queue is enabled on, if any
    bool endOfStream = false;             // wake the looper once the ring is empty
};

namespace host {
namespace {

constexpr int64_t kDefaultPeriodNs = 200000000;  // enableSensor's rate: 200 ms
constexpr size_t kDefaultQueueCapacity = 256;

int64_t boottimeNowNs() {
    timespec ts{};
    clock_gettime(CLOCK_BOOTTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Called with the queue's lock held: marks the ring empty on its eventfd.
void drainEventFd(ASensorEventQueue* q) {
    uint64_t value = 0;
    ssize_t n = read(q->fd, &value, sizeof(value));
    (void)n;  // EAGAIN when it was already clear
}

// Called with the queue's lock held.
void signalEventFd(ASensorEventQueue* q) {
    uint64_t one = 1;
    ssize_t n = write(q->fd, &one, sizeof(one));
    (void)n;  // cannot overflow: the counter is cleared whenever the ring empties
}

}  // namespace

class GyroService {
  public:
    GyroService(GyroSetup setup, ASensor* sensor) : mSetup(std::move(setup)), mSensor(sensor) {}

    // 0, or -EINVAL once the service has been replaced.
    int enable(ASensorEventQueue* q, int64_t periodNs) {
        std::lock_guard<std::mutex> control(mControl);
        std::unique_lock<std::mutex> lock(mMutex);
        if (mRetired)
            return -EINVAL;
        auto it = mEnabled.find(q);
        if (it != mEnabled.end())
            return 0;  // already enabled: keeps its rate
        mEnabled[q] = periodNs;
        {
            std::lock_guard<std::mutex> ql(q->mutex);
            q->feeder = this;
            q->endOfStream = false;
            if (q->ring.size() != mSetup.queueCapacity && q->count == 0) {
                q->ring.assign(mSetup.queueCapacity, ASensorEvent{});
                q->head = 0;
            }
        }
        mChanged.notify_all();
        if (!mThread.joinable()) {
            mStop = false;
            mThread = std::thread([this] { run(); });
        }
        return 0;
    }

    // 0, or -EINVAL when the sensor is not enabled on the queue.
    int disable(ASensorEventQueue* q) {
        std::lock_guard<std::mutex> control(mControl);
        std::unique_lock<std::mutex> lock(mMutex);
        if (mEnabled.erase(q) == 0)
            return -EINVAL;
        {
            std::lock_guard<std::mutex> ql(q->mutex);
            q->feeder = nullptr;
        }
        mChanged.notify_all();
        if (!mEnabled.empty())
            return 0;
        mStop = true;
        mChanged.notify_all();
        lock.unlock();
        mThread.join();
        return 0;
    }

    int setPeriod(ASensorEventQueue* q, int64_t periodNs) {
        std::lock_guard<std::mutex> lock(mMutex);
        auto it = mEnabled.find(q);
        if (it == mEnabled.end())
            return -EINVAL;
        it->second = periodNs;
        mChanged.notify_all();
        return 0;
    }

    bool isEnabled(ASensorEventQueue* q) {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEnabled.count(q) != 0;
    }

    // After getEvents took `n` events out of a queue this service feeds.
    void delivered(size_t n) {
        std::lock_guard<std::mutex> lock(mMutex);
        mCounters.eventsDelivered += n;
        mChanged.notify_all();
    }

    // Replaced by another installation: refuses queues from now on and lets the source go.
    // False while a queue has the sensor enabled.
    bool retire() {
        std::lock_guard<std::mutex> control(mControl);
        std::lock_guard<std::mutex> lock(mMutex);
        if (!mEnabled.empty())
            return false;
        mRetired = true;
        mSetup.source.reset();
        mSetup.gate = nullptr;
        return true;
    }

    SensorCounters counters() {
        std::lock_guard<std::mutex> lock(mMutex);
        SensorCounters c = mCounters;
        c.enabledQueues = static_cast<int>(mEnabled.size());
        c.periodNs = mEnabled.empty() ? 0 : fastestPeriodLocked();
        return c;
    }

    const GyroSetup& setup() const { return mSetup; }

  private:
    int64_t fastestPeriodLocked() const {
        int64_t fastest = INT64_MAX;
        for (const auto& e : mEnabled)
            fastest = std::min(fastest, e.second);
        return fastest == INT64_MAX ? kDefaultPeriodNs : fastest;
    }

    bool roomEverywhereLocked() const {
        for (const auto& e : mEnabled) {
            ASensorEventQueue* q = e.first;
            std::lock_guard<std::mutex> ql(q->mutex);
            if (q->count >= q->ring.size())
                return false;
        }
        return true;
    }

    void pushLocked(const GyroSample& s) {
        for (const auto& e : mEnabled) {
            ASensorEventQueue* q = e.first;
            std::lock_guard<std::mutex> ql(q->mutex);
            if (q->count >= q->ring.size()) {
                ++mCounters.eventsDropped;
                continue;
            }
            ASensorEvent& ev = q->ring[(q->head + q->count) % q->ring.size()];
            std::memset(&ev, 0, sizeof(ev));
            ev.version = sizeof(ASensorEvent);
            ev.sensor = mSensor->handle;
            ev.type = ASENSOR_TYPE_GYROSCOPE;
            ev.timestamp = s.timestampNs;
            ev.data[0] = s.x;
            ev.data[1] = s.y;
            ev.data[2] = s.z;
            if (q->count++ == 0)
                signalEventFd(q);
            ++mCounters.eventsQueued;
        }
        mCounters.lastTimestampNs = s.timestampNs;
    }

    // Tells every enabled queue that no more events will come; a queue that is already empty
    // has its looper woken now, the others when getEvents empties them.
    void endOfStreamLocked() {
        for (const auto& e : mEnabled) {
            ASensorEventQueue* q = e.first;
            std::lock_guard<std::mutex> ql(q->mutex);
            q->endOfStream = true;
            if (q->count == 0)
                q->looper->wake();
        }
    }

    // The service thread. A live source is sampled in real time at the period in force
    // (re-read while waiting, so a rate set just after enabling takes effect at once) and a
    // full queue drops its event; a replayed source is paced by its timestamps (RealTime) or
    // by the consumers (AsFastAsConsumed: waits for the gate and for room in every queue).
    void run() {
        GyroSource& source = *mSetup.source;
        const bool live = source.live();
        const bool backPressure = !live && mSetup.pacing == Pacing::AsFastAsConsumed;
        std::unique_lock<std::mutex> lock(mMutex);
        auto stopping = [&] { return mStop; };
        bool haveOrigin = false;
        std::chrono::steady_clock::time_point origin;
        int64_t originTimestampNs = 0;
        auto lastEmit = std::chrono::steady_clock::now() - std::chrono::hours(1);
        while (!mStop) {
            if (!mHavePending) {
                GyroTick tick;
                if (live) {
                    while (!mStop) {
                        const auto period = std::chrono::nanoseconds(fastestPeriodLocked());
                        const auto due = lastEmit + period;
                        const auto now = std::chrono::steady_clock::now();
                        if (now >= due) {
                            // Keep a regular grid, but do not catch up after a long stall.
                            lastEmit = now - due > period ? now : due;
                            break;
                        }
                        mChanged.wait_until(lock, due);
                    }
                    if (mStop)
                        break;
                    tick.timestampNs = boottimeNowNs();
                }
                tick.periodNs = fastestPeriodLocked();
                lock.unlock();
                GyroSample sample;
                const bool more = source.next(tick, sample);
                lock.lock();
                if (!more) {
                    if (!mCounters.sourceEnded) {
                        HOST_SENSORS_LOG(ANDROID_LOG_INFO,
                                         "gyroscope source ended after %llu samples",
                                         static_cast<unsigned long long>(mCounters.samplesRead));
                    }
                    mCounters.sourceEnded = true;
                    endOfStreamLocked();
                    mChanged.wait(lock, stopping);
                    break;
                }
                ++mCounters.samplesRead;
                mPending = sample;
                mHavePending = true;
            }
            if (!live && !backPressure) {
                if (!haveOrigin) {
                    haveOrigin = true;
                    origin = std::chrono::steady_clock::now();
                    originTimestampNs = mPending.timestampNs;
                }
                const auto due =
                    origin + std::chrono::nanoseconds(mPending.timestampNs - originTimestampNs);
                if (mChanged.wait_until(lock, due, stopping))
                    break;
            }
            if (backPressure) {
                if (mSetup.gate) {
                    bool open = false;
                    while (!mStop) {
                        lock.unlock();
                        open = mSetup.gate(mPending.timestampNs);
                        lock.lock();
                        if (open)
                            break;
                        mChanged.wait_for(lock, std::chrono::milliseconds(1), stopping);
                    }
                    if (!open)
                        break;
                }
                mChanged.wait(lock, [&] { return mStop || roomEverywhereLocked(); });
                if (mStop)
                    break;
            }
            pushLocked(mPending);
            mHavePending = false;
        }
    }

    GyroSetup mSetup;
    ASensor* const mSensor;

    std::mutex mControl;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::map<ASensorEventQueue*, int64_t> mEnabled;  // queue -> requested period (ns)
    std::thread mThread;
    bool mStop = false;
    bool mRetired = false;
    bool mHavePending = false;  // a sample taken from the source and not yet queued
    GyroSample mPending;
    SensorCounters mCounters;
};

namespace {

struct Registry {
    std::mutex mutex;
    ASensor* gyro = nullptr;  // the installed gyroscope, or null
    ASensorRef list[1] = {nullptr};
    int nextHandle = 1;
    std::vector<std::unique_ptr<ASensor>> sensors;       // every installation, kept
    std::vector<std::unique_ptr<GyroService>> services;  // idem
    std::set<ASensorEventQueue*> queues;                 // live event queues
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: sensors may be used during exit
    return *r;
}

}  // namespace

bool installGyro(GyroSetup setup) {
    if (!setup.source)
        throw std::invalid_argument("installGyro: the setup has no source");
    if (setup.minDelayUs < 1) {
        throw std::invalid_argument("installGyro: minimum delay " +
                                    std::to_string(setup.minDelayUs) + " us is below 1 us");
    }
    if (setup.queueCapacity == 0) {
        throw std::invalid_argument("installGyro: the event queue capacity is 0");
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.gyro != nullptr && !r.gyro->service->retire()) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR,
                         "installGyro refused: the gyroscope is enabled on an event queue");
        return false;
    }
    auto sensor = std::make_unique<ASensor>();
    sensor->type = ASENSOR_TYPE_GYROSCOPE;
    sensor->handle = r.nextHandle++;
    sensor->name = setup.name;
    sensor->vendor = setup.vendor;
    sensor->minDelayUs = setup.minDelayUs;
    sensor->resolution = setup.resolution;
    auto service = std::make_unique<GyroService>(std::move(setup), sensor.get());
    sensor->service = service.get();
    r.gyro = sensor.get();
    r.list[0] = r.gyro;
    r.sensors.push_back(std::move(sensor));
    r.services.push_back(std::move(service));
    return true;
}

bool removeGyro() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.gyro == nullptr)
        return true;
    if (!r.gyro->service->retire()) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR,
                         "removeGyro refused: the gyroscope is enabled on an event queue");
        return false;
    }
    r.gyro = nullptr;
    r.list[0] = nullptr;
    return true;
}

namespace {
std::atomic<SensorFault> injectedFault{SensorFault::None};
}  // namespace

void injectSensorFault(SensorFault fault) {
    injectedFault.store(fault);
}

bool takeSensorFault(SensorFault call) {
    SensorFault expected = call;
    return call != SensorFault::None &&
           injectedFault.compare_exchange_strong(expected, SensorFault::None);
}

SensorCounters sensorCounters() {
    Registry& r = registry();
    GyroService* service = nullptr;
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.gyro == nullptr)
            return SensorCounters{};
        service = r.gyro->service;
    }
    return service->counters();
}

}  // namespace host

// ---- NDK sensor API ----

using host::registry;

namespace {

int64_t requestedPeriodNs(const ASensor* sensor, int64_t periodUs) {
    return std::max<int64_t>(periodUs, sensor->minDelayUs) * 1000;
}

bool knownQueue(ASensorEventQueue* queue) {
    auto& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.queues.count(queue) != 0;
}

}  // namespace

namespace {
ASensorManager gManager;  // the one sensor manager; it holds no state of its own
}  // namespace

ASensorManager* ASensorManager_getInstance() {
    return &gManager;
}

ASensorManager* ASensorManager_getInstanceForPackage(const char* packageName) {
    (void)packageName;
    return &gManager;
}

int ASensorManager_getSensorList(ASensorManager* manager, ASensorList* list) {
    if (manager == nullptr || list == nullptr)
        return -EINVAL;
    auto& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    *list = r.list;
    return r.gyro != nullptr ? 1 : 0;
}

ASensor const* ASensorManager_getDefaultSensor(ASensorManager* manager, int type) {
    if (manager == nullptr || type != ASENSOR_TYPE_GYROSCOPE)
        return nullptr;
    auto& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.gyro;
}

ASensor const* ASensorManager_getDefaultSensorEx(ASensorManager* manager, int type, bool wakeUp) {
    return wakeUp ? nullptr : ASensorManager_getDefaultSensor(manager, type);
}

ASensorEventQueue* ASensorManager_createEventQueue(ASensorManager* manager, ALooper* looper,
                                                   int ident, ALooper_callbackFunc callback,
                                                   void* data) {
    if (host::takeSensorFault(host::SensorFault::CreateEventQueue))
        return nullptr;
    if (manager == nullptr || looper == nullptr) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR, "createEventQueue: null %s",
                         manager == nullptr ? "manager" : "looper");
        return nullptr;
    }
    auto queue = std::make_unique<ASensorEventQueue>();
    queue->fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (queue->fd < 0) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR, "createEventQueue: eventfd failed: %s",
                         std::strerror(errno));
        return nullptr;
    }
    queue->looper = reinterpret_cast<android::Looper*>(looper);
    queue->ident = ident;
    queue->ring.assign(host::kDefaultQueueCapacity, ASensorEvent{});
    if (queue->looper->addFd(queue->fd, ident, ALOOPER_EVENT_INPUT, callback, data) != 1) {
        HOST_SENSORS_LOG(ANDROID_LOG_ERROR, "createEventQueue: the looper refused the queue");
        close(queue->fd);
        return nullptr;
    }
    auto& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.queues.insert(queue.get());
    return queue.release();
}

int ASensorManager_destroyEventQueue(ASensorManager* manager, ASensorEventQueue* queue) {
    if (host::takeSensorFault(host::SensorFault::DestroyEventQueue))
        return -EIO;
    if (manager == nullptr || queue == nullptr)
        return -EINVAL;
    auto& r = registry();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.queues.erase(queue) == 0)
            return -EINVAL;
    }
    host::GyroService* feeder = nullptr;
    {
        std::lock_guard<std::mutex> ql(queue->mutex);
        feeder = queue->feeder;
    }
    if (feeder != nullptr)
        feeder->disable(queue);
    queue->looper->removeFd(queue->fd);
    close(queue->fd);
    delete queue;
    return 0;
}

int ASensorEventQueue_registerSensor(ASensorEventQueue* queue, ASensor const* sensor,
                                     int32_t samplingPeriodUs, int64_t maxBatchReportLatencyUs) {
    if (queue == nullptr || sensor == nullptr || samplingPeriodUs < 0 ||
        maxBatchReportLatencyUs < 0 || !knownQueue(queue)) {
        return -EINVAL;
    }
    int result = sensor->service->enable(queue, requestedPeriodNs(sensor, samplingPeriodUs));
    if (result == 0) {
        result = sensor->service->setPeriod(queue, requestedPeriodNs(sensor, samplingPeriodUs));
    }
    return result;
}

int ASensorEventQueue_enableSensor(ASensorEventQueue* queue, ASensor const* sensor) {
    if (host::takeSensorFault(host::SensorFault::EnableSensor))
        return -EIO;
    if (queue == nullptr || sensor == nullptr || !knownQueue(queue))
        return -EINVAL;
    return sensor->service->enable(queue, host::kDefaultPeriodNs);
}

int ASensorEventQueue_disableSensor(ASensorEventQueue* queue, ASensor const* sensor) {
    if (host::takeSensorFault(host::SensorFault::DisableSensor))
        return -EIO;
    if (queue == nullptr || sensor == nullptr || !knownQueue(queue))
        return -EINVAL;
    return sensor->service->disable(queue);
}

int ASensorEventQueue_setEventRate(ASensorEventQueue* queue, ASensor const* sensor, int32_t usec) {
    if (host::takeSensorFault(host::SensorFault::SetEventRate))
        return -EIO;
    if (queue == nullptr || sensor == nullptr || usec < 0 || !knownQueue(queue))
        return -EINVAL;
    return sensor->service->setPeriod(queue, requestedPeriodNs(sensor, usec));
}

int ASensorEventQueue_hasEvents(ASensorEventQueue* queue) {
    if (queue == nullptr)
        return -EINVAL;
    std::lock_guard<std::mutex> ql(queue->mutex);
    return queue->count > 0 ? 1 : 0;
}

ssize_t ASensorEventQueue_getEvents(ASensorEventQueue* queue, ASensorEvent* events, size_t count) {
    if (queue == nullptr || events == nullptr)
        return -EINVAL;
    size_t n = 0;
    host::GyroService* feeder = nullptr;
    {
        std::lock_guard<std::mutex> ql(queue->mutex);
        const size_t capacity = queue->ring.size();
        while (n < count && queue->count > 0) {
            events[n++] = queue->ring[queue->head];
            queue->head = (queue->head + 1) % capacity;
            --queue->count;
        }
        if (n > 0 && queue->count == 0) {
            host::drainEventFd(queue);
            if (queue->endOfStream)
                queue->looper->wake();
        }
        feeder = queue->feeder;
    }
    if (n > 0 && feeder != nullptr)
        feeder->delivered(n);
    return static_cast<ssize_t>(n);
}

const char* ASensor_getName(ASensor const* sensor) {
    return sensor != nullptr ? sensor->name.c_str() : nullptr;
}

const char* ASensor_getVendor(ASensor const* sensor) {
    return sensor != nullptr ? sensor->vendor.c_str() : nullptr;
}

int ASensor_getType(ASensor const* sensor) {
    return sensor != nullptr ? sensor->type : -EINVAL;
}

float ASensor_getResolution(ASensor const* sensor) {
    return sensor != nullptr ? sensor->resolution : ASENSOR_RESOLUTION_INVALID;
}

int ASensor_getMinDelay(ASensor const* sensor) {
    return sensor != nullptr ? sensor->minDelayUs : ASENSOR_DELAY_INVALID;
}

int ASensor_getFifoMaxEventCount(ASensor const* sensor) {
    return sensor != nullptr ? 0 : -EINVAL;
}

int ASensor_getFifoReservedEventCount(ASensor const* sensor) {
    return sensor != nullptr ? 0 : -EINVAL;
}

const char* ASensor_getStringType(ASensor const* sensor) {
    return sensor != nullptr ? "android.sensor.gyroscope" : nullptr;
}

int ASensor_getReportingMode(ASensor const* sensor) {
    return sensor != nullptr ? AREPORTING_MODE_CONTINUOUS : AREPORTING_MODE_INVALID;
}

bool ASensor_isWakeUpSensor(ASensor const* sensor) {
    (void)sensor;
    return false;
}

int ASensor_getHandle(ASensor const* sensor) {
    return sensor != nullptr ? sensor->handle : -EINVAL;
}
