#include "EngineHarness.h"

#include <host/Properties.h>

#include <thread>

std::string engineConfig(const std::string& extraLines) {
    return "# test configuration\n"
           "testdouble.note=ignored by the double\n" +
           extraLines;
}

EngineHarness::EngineHarness() {
    resetVStabDouble();
    host::clearProperties();
    host::removeAllCameras();
    engine = std::make_unique<Context>();
    engine->onResume();
}

EngineHarness::~EngineHarness() {
    if (recording)
        stop();
    for (auto& output : outputs) {
        android::sp<ANativeWindow> window = engine->jsm.remSurface(output.id);
        if (window != nullptr)
            native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_CPU);
    }
    outputs.clear();
    engine->onPause();
    camera.clear();
    host::removeAllCameras();
}

void EngineHarness::makeCamera(host::CameraSetup setup) {
    cameraDevice = host::CameraDevice::create(std::move(setup));
    host::addCamera(cameraDevice);
    camera = cameraDevice->connect();
}

EngineHarness::Output& EngineHarness::addOutput(int id, uint32_t width, uint32_t height) {
    auto sink = std::make_shared<host::MemorySink>();
    host::WindowConfig config;
    config.defaultWidth = width;
    config.defaultHeight = height;
    android::sp<ANativeWindow> window = host::createWindow(sink, config);
    native_window_api_connect(window.get(), NATIVE_WINDOW_API_CPU);
    native_window_set_usage(window.get(), 0x30);
    engine->jsm.addSurface(id, window);
    outputs.push_back(Output{id, sink, window});
    return outputs.back();
}

void EngineHarness::start(const std::string& config) {
    android::CameraParameters params(camera->getParameters());
    int width = 0, height = 0;
    params.getVideoSize(&width, &height);
    engine->start(camera, width, height, config.c_str());
    recording = true;
}

void EngineHarness::stop() {
    recording = false;
    engine->stop();
}

host::CameraSetup pacedCamera(Context& engine, int width, int height, uint64_t frames) {
    host::CameraSetup setup;
    setup.videoSizes = {{width, height}, {1920, 1080}, {1280, 720}, {640, 480}};
    setup.videoSize = {width, height};
    host::SyntheticFrameOptions options;
    options.frameLimit = frames;
    setup.source = std::make_shared<host::SyntheticFrameSource>(options);
    setup.pacing = host::Pacing::AsFastAsConsumed;
    // Hold the camera while the engine's queue is nearly full, so that no frame is dropped:
    // frame `index` may come once all but a few of the frames before it have been warped.
    (void)engine;
    setup.gate = [](uint64_t index, int64_t) {
        return index < static_cast<uint64_t>(vstabDouble().warpCalls.load()) + 8;
    };
    return setup;
}

bool waitFor(const std::function<bool()>& predicate, std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
