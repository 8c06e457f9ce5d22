// Host sensor service: what stands behind the NDK sensor API (android/sensor.h) on Linux.
//
// The host has at most one sensor, a gyroscope (ASENSOR_TYPE_GYROSCOPE), fed by a GyroSource
// that a test or tool installs with installGyro(). Without one, or after removeGyro(),
// ASensorManager_getDefaultSensor(..., ASENSOR_TYPE_GYROSCOPE) returns null: the device has no
// gyroscope.
//
// Event flow: while at least one event queue has the gyroscope enabled, a sensor service
// thread takes samples from the source, paces them and writes each as an ASensorEvent into
// every enabled queue. A queue is readable through its looper (the ident given to
// ASensorManager_createEventQueue) while it holds events; ASensorEventQueue_getEvents takes
// them out. A live source (the synthetic one) is a running sensor: it is sampled in real time
// at the period in force, and an event that finds a queue full is dropped for that queue
// (counted). A replayed source is paced by its setup (host/Pacing.h): RealTime keeps the
// recorded spacing and drops on a full queue like a live one; AsFastAsConsumed waits until
// every enabled queue has room, so nothing is lost. When the source ends, each enabled queue's
// looper is woken (ALooper_wake) once the queue is empty, so a thread blocked in ALooper_pollAll
// returns ALOOPER_POLL_WAKE instead of waiting out its time-out. (The wake belongs to the
// looper: if nobody polls it, a later poll of the same looper returns it.) Stopping the last
// queue keeps a sample taken from the source but not yet queued for the next start, so a
// replay does not skip it; events still in a destroyed queue go with it, as on a device.
//
// Event fields: version = sizeof(ASensorEvent), sensor = the sensor's handle, type = 4,
// timestamp = the sample's timestamp in nanoseconds, data[0..2] = x, y, z in rad/s, the other
// values 0.
//
// Rates: ASensorEventQueue_enableSensor requests a 200000 us period, as on a device;
// registerSensor and setEventRate request theirs, raised to the sensor's minimum delay. The
// service runs at the fastest period any queue requests. Live sources are sampled at that
// period; replayed samples keep their recorded spacing whatever the rate.
//
// Clocks: a live source is stamped on CLOCK_BOOTTIME, as device sensors stamp their events;
// replayed samples carry their own timestamps, or are mapped onto CLOCK_BOOTTIME through a
// ReplayClock. Real-time pacing measures the spacing on CLOCK_MONOTONIC.
//
// Install the gyroscope before the code under test creates its sensor thread. Every function
// here is thread-safe.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/Pacing.h"
#include "host/ReplayClock.h"

namespace host {

// One angular-velocity sample: rates about the sensor's x, y and z axes in rad/s.
struct GyroSample {
    int64_t timestampNs = 0;
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;
};

// What the service knows when it asks a source for the next sample.
struct GyroTick {
    // Live sources: the timestamp to give the sample, CLOCK_BOOTTIME now. 0 for other sources.
    int64_t timestampNs = 0;
    // The sampling period in force, in nanoseconds.
    int64_t periodNs = 0;
};

class GyroSource {
  public:
    virtual ~GyroSource() = default;
    // Sensor service thread. The next sample; false: the stream has ended.
    virtual bool next(const GyroTick& tick, GyroSample& sample) = 0;
    // True for a live source: the service decides when samples are taken and what they are
    // stamped (GyroTick::timestampNs); false for a source whose samples carry their own
    // timestamps (a replay).
    virtual bool live() const { return false; }
};

// Sinusoidal rotation: rate about axis i = amplitude[i] x sin(2 pi frequencyHz[i] x t), t in
// seconds since the source's first sample.
struct GyroMotion {
    float amplitude[3] = {0.2f, 0.1f, 0.05f};
    float frequencyHz[3] = {1.5f, 2.0f, 3.0f};
};

// A live gyroscope following GyroMotion (all amplitudes 0: a gyroscope at rest).
class SyntheticGyroSource : public GyroSource {
  public:
    explicit SyntheticGyroSource(GyroMotion motion = {}, uint64_t sampleLimit = 0);

    bool next(const GyroTick& tick, GyroSample& sample) override;
    bool live() const override { return true; }

    // The rate of `motion` about `axis` (0..2) at `sinceFirstNs` after the first sample.
    static float rate(const GyroMotion& motion, int axis, int64_t sinceFirstNs);

  private:
    const GyroMotion mMotion;
    const uint64_t mLimit;
    uint64_t mCount = 0;  // service thread only
    int64_t mFirstNs = 0;
};

// Replays recorded samples once, in order. With a ReplayClock the timestamps are mapped onto
// CLOCK_BOOTTIME; without one they are delivered as recorded.
class ReplayGyroSource : public GyroSource {
  public:
    explicit ReplayGyroSource(std::vector<GyroSample> samples,
                              std::shared_ptr<ReplayClock> clock = nullptr);

    bool next(const GyroTick& tick, GyroSample& sample) override;
    size_t size() const { return mSamples.size(); }

  private:
    const std::vector<GyroSample> mSamples;
    const std::shared_ptr<ReplayClock> mClock;
    size_t mNext = 0;  // service thread only
};

// A source made of one function, for tools. Runs on the sensor service thread.
class CallbackGyroSource : public GyroSource {
  public:
    using NextFn = std::function<bool(const GyroTick& tick, GyroSample& sample)>;
    explicit CallbackGyroSource(NextFn next, bool live = false);

    bool next(const GyroTick& tick, GyroSample& sample) override { return mNext(tick, sample); }
    bool live() const override { return mLive; }

  private:
    NextFn mNext;
    const bool mLive;
};

struct GyroSetup {
    std::shared_ptr<GyroSource> source;  // required
    std::string name = "Host Gyroscope";
    std::string vendor = "QLMR host";
    int minDelayUs = 2500;             // fastest period the sensor allows (400 Hz)
    float resolution = 0.001f;         // rad/s
    Pacing pacing = Pacing::RealTime;  // replayed sources only; live ones run in real time
    size_t queueCapacity = 256;        // events one event queue holds
    // Replayed sources in AsFastAsConsumed pacing: asked before each sample is queued, and again
    // every millisecond until it returns true (or the service stops). Lets a tool keep the
    // gyroscope from running far ahead of the camera, e.g. no further than 100 ms past the last
    // frame delivered. Called on the sensor service thread.
    std::function<bool(int64_t timestampNs)> gate;
};

// Installs the gyroscope (replacing an earlier one). Throws std::invalid_argument for a setup
// without a source, a minimum delay below 1 us or a queue capacity of 0. Returns false, and
// changes nothing, while the current gyroscope is enabled on an event queue.
bool installGyro(GyroSetup setup);
// No gyroscope from now on. False, and nothing changes, while the current one is enabled on
// an event queue.
bool removeGyro();

struct SensorCounters {
    uint64_t samplesRead = 0;      // samples taken from the source
    uint64_t eventsQueued = 0;     // events written into event queues
    uint64_t eventsDelivered = 0;  // events taken out with ASensorEventQueue_getEvents
    uint64_t eventsDropped = 0;    // RealTime: events lost to a full event queue
    int enabledQueues = 0;         // event queues with the gyroscope enabled
    int64_t periodNs = 0;          // sampling period in force; 0 while no queue is enabled
    bool sourceEnded = false;
    int64_t lastTimestampNs = 0;  // timestamp of the last sample queued
};

// Counters of the installed gyroscope since its installation (all zero without one).
SensorCounters sensorCounters();

// A platform call that a test makes fail, as a device's sensor service or looper can: the next
// call of that function (from any thread) returns its failure value (null, or -EIO) without
// doing anything; the calls after it work again.
enum class SensorFault {
    None,
    LooperPrepare,      // ALooper_prepare: null
    CreateEventQueue,   // ASensorManager_createEventQueue: null
    EnableSensor,       // ASensorEventQueue_enableSensor: -EIO
    SetEventRate,       // ASensorEventQueue_setEventRate: -EIO
    DisableSensor,      // ASensorEventQueue_disableSensor: -EIO
    DestroyEventQueue,  // ASensorManager_destroyEventQueue: -EIO
};
void injectSensorFault(SensorFault fault);
// True once for the injected fault when `call` is that fault (the platform's own functions ask).
bool takeSensorFault(SensorFault call);

}  // namespace host
