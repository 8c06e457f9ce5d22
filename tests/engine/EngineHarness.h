// Test harness around one engine instance: a GL session, a host camera, a host gyroscope (or
// none), host output windows with in-memory sinks, and the library test double.
#pragma once

#include <host/HostCamera.h>
#include <host/HostSensors.h>
#include <host/Window.h>

#include <chrono>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "Context.h"
#include "VStabDouble.h"

// Configuration text in the engine's key=value form. The test double ignores it; the engine
// reads its "native.*" keys.
std::string engineConfig(const std::string& extraLines = "");

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

    // Resets the double and the properties, builds the engine and resumes its GL session.
    EngineHarness();
    // Stops (if recording), removes the outputs and pauses.
    ~EngineHarness();

    // A camera device with `setup` registered and connected.
    void makeCamera(host::CameraSetup setup);
    // An output window of `width` x `height` registered under `id`.
    Output& addOutput(int id, uint32_t width, uint32_t height);
    // start() at the camera's current video size.
    void start(const std::string& config = engineConfig());
    void stop();
    bool recording = false;
};

// A camera that delivers `frames` synthetic frames of `width` x `height` at 30 fps, as fast as
// the engine takes them (no drop), holding the camera back while the engine's queue is full.
host::CameraSetup pacedCamera(Context& engine, int width, int height, uint64_t frames);

// Waits until `predicate` holds, polling every millisecond; false after `timeout`.
bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);
