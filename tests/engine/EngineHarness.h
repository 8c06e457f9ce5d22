// One engine on the host: GL session, camera, gyroscope, windows with in-memory sinks, double.
#pragma once

#include <host/HostCamera.h>
#include <host/HostSensors.h>
#include <host/Window.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Context.h"
#include "VStabDouble.h"

// Configuration text in the engine's key=value form (the double ignores it).
std::string engineConfig(const std::string& extraLines = "");

// System properties by key.
using Properties = std::map<std::string, std::string>;

struct EngineHarness {
    std::unique_ptr<Context> engine;
    std::shared_ptr<host::CameraDevice> cameraDevice;
    android::sp<android::Camera> camera;
    struct Output {
        int id;
        std::shared_ptr<host::MemorySink> sink;
        android::sp<ANativeWindow> window;
    };
    std::deque<Output> outputs;  // deque: references to outputs stay valid

    // Resets the double and the properties (then sets `properties`), builds and resumes.
    explicit EngineHarness(const Properties& properties = {});
    // Stops (if recording), removes the outputs and pauses.
    ~EngineHarness();

    // A camera device with `setup` registered and connected.
    void makeCamera(host::CameraSetup setup);
    // An output window of `width` x `height` registered under `id`.
    Output& addOutput(int id, uint32_t width, uint32_t height);
    // start() at the camera's current video size.
    void start(const std::string& config = engineConfig());
    // stop(), once the engine's gyro thread has begun (see EngineHarness.cpp).
    void stop();
    bool recording = false;
};

// How a synthetic camera feeds the engine.
enum class Feed {
    Free,   // as fast as the engine takes frames: they pile up while the library keeps them
    Paced,  // held back while 8 frames wait for the library: none is dropped
    Live,   // on the camera's own clock: frames that find the queue full are dropped
};
// A camera of `frames` synthetic frames (0: endless) of `width` x `height` at `fps`.
host::CameraSetup syntheticCamera(int width, int height, uint64_t frames, Feed feed, int fps = 30);

// A host window of `width` x `height` feeding `sink`, connected as a CPU producer.
android::sp<ANativeWindow> connectedWindow(std::shared_ptr<host::FrameSink> sink, uint32_t width,
                                           uint32_t height);

// Waits until `predicate` holds, polling every millisecond; false after `timeout`.
bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

// A camera recording `width` x `height` at `fps` from `source`, as fast as frames are released.
host::CameraSetup sourceCamera(int width, int height, std::shared_ptr<host::FrameSource> source,
                               int fps = 30);
// Per recording: `describe` fills frame n's info (false: the end), `paint` writes its picture.
using DescribeFrame = std::function<bool(uint64_t n, int64_t startMonotonicNs, host::FrameInfo&)>;
using PaintFrame = std::function<void(uint64_t n, const host::FrameImage&)>;
std::shared_ptr<host::FrameSource> scriptedSource(DescribeFrame describe,
                                                  PaintFrame paint = nullptr);
// `frames` frames at `offsetNs` + n / 30 s into each recording (10 ms, zoom 1), then `meta`.
using FrameMeta = std::function<void(uint64_t n, host::FrameInfo&)>;
std::shared_ptr<host::FrameSource> periodicSource(uint64_t frames, int64_t offsetNs = 50000000,
                                                  FrameMeta meta = nullptr,
                                                  PaintFrame paint = nullptr);

// Holds the camera back while `ahead` frames it let through are not yet warped with status 0.
void paceByWarps(host::CameraSetup& setup, int ahead = 8);

// A camera whose recording delivers no frame at all.
host::CameraSetup idleCamera(int width = 640, int height = 480, int fps = 30);

// Current reading of a POSIX clock in nanoseconds.
int64_t clockNs(clockid_t clock);

// A host gyroscope (none for a null source) while it lives: declare it before the harness.
class ScopedGyro {
  public:
    explicit ScopedGyro(std::shared_ptr<host::GyroSource> source, int minDelayUs = 2500,
                        host::Pacing pacing = host::Pacing::AsFastAsConsumed);
    ~ScopedGyro();
    ScopedGyro(const ScopedGyro&) = delete;
    ScopedGyro& operator=(const ScopedGyro&) = delete;
};
