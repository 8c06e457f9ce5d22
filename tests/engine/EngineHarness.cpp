#include "EngineHarness.h"

#include <host/Properties.h>

#include <atomic>
#include <ctime>
#include <stdexcept>
#include <thread>

std::string engineConfig(const std::string& extraLines) {
    return "# test configuration\n"
           "testdouble.note=ignored by the double\n" +
           extraLines;
}

EngineHarness::EngineHarness(const Properties& properties) {
    resetVStabDouble();
    host::clearProperties();
    for (const auto& property : properties)
        host::setProperty(property.first, property.second);
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
    android::sp<ANativeWindow> window = connectedWindow(sink, width, height);
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
    // The gyro thread's start overwrites a stop requested before it: wait for it to begin.
    if (engine->sensorManager.data != nullptr) {
        waitFor([&] { return engine->sensorManager->state.load() != ThreadState::Created; },
                std::chrono::seconds(10));
    }
    engine->stop();
}

host::CameraSetup syntheticCamera(int width, int height, uint64_t frames, Feed feed, int fps) {
    host::SyntheticFrameOptions options;
    options.frameLimit = frames;
    options.framesPerSecond = fps;
    host::CameraSetup setup =
        sourceCamera(width, height, std::make_shared<host::SyntheticFrameSource>(options), fps);
    if (feed == Feed::Live)
        setup.pacing = host::Pacing::RealTime;
    if (feed == Feed::Paced) {
        // Frame `index` may come once all but 8 of the frames before it have been warped.
        setup.gate = [](uint64_t index, int64_t) {
            return index < static_cast<uint64_t>(vstabDouble().warpCalls.load()) + 8;
        };
    }
    return setup;
}

android::sp<ANativeWindow> connectedWindow(std::shared_ptr<host::FrameSink> sink, uint32_t width,
                                           uint32_t height) {
    host::WindowConfig config;
    config.defaultWidth = width;
    config.defaultHeight = height;
    android::sp<ANativeWindow> window = host::createWindow(std::move(sink), config);
    native_window_api_connect(window.get(), NATIVE_WINDOW_API_CPU);
    return window;
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

host::CameraSetup sourceCamera(int width, int height, std::shared_ptr<host::FrameSource> source,
                               int fps) {
    host::CameraSetup setup;
    setup.videoSizes = {{width, height}};
    for (android::Size size : {android::Size(1920, 1080), android::Size(640, 480)}) {
        if (size.width != width || size.height != height)
            setup.videoSizes.push_back(size);
    }
    setup.videoSize = {width, height};
    setup.frameRate = fps;
    setup.source = std::move(source);
    setup.pacing = host::Pacing::AsFastAsConsumed;
    return setup;
}

std::shared_ptr<host::FrameSource> scriptedSource(DescribeFrame describe, PaintFrame paint) {
    struct Recording {
        uint64_t firstIndex = 0;
        int64_t startMonotonicNs = 0;
    };
    // Written by onRecordingStart before the capture thread starts, read by that thread.
    auto recording = std::make_shared<Recording>();
    return std::make_shared<host::CallbackFrameSource>(
        [recording, describe](uint64_t index, host::FrameInfo& info) {
            return describe(index - recording->firstIndex, recording->startMonotonicNs, info);
        },
        [recording, paint](uint64_t index, const host::FrameInfo&, const host::FrameImage& image) {
            if (paint)
                paint(index - recording->firstIndex, image);
            return true;
        },
        [recording](const host::RecordingFormat& format) {
            recording->firstIndex = format.firstIndex;
            recording->startMonotonicNs = format.startMonotonicNs;
        });
}

std::shared_ptr<host::FrameSource> periodicSource(uint64_t frames, int64_t offsetNs, FrameMeta meta,
                                                  PaintFrame paint) {
    return scriptedSource(
        [frames, offsetNs, meta](uint64_t n, int64_t start, host::FrameInfo& info) {
            if (n >= frames)
                return false;
            info.timestampNs = start + offsetNs + static_cast<int64_t>(n) * 33333333;
            info.exposureUs = 10000;
            info.zoomX100 = 100;
            if (meta)
                meta(n, info);
            return true;
        },
        std::move(paint));
}

void paceByWarps(host::CameraSetup& setup, int ahead) {
    auto passed = std::make_shared<std::atomic<int>>(0);
    setup.gate = [passed, ahead](uint64_t, int64_t) {
        if (passed->load() - vstabDouble().warpedOk.load() >= ahead)
            return false;
        passed->fetch_add(1);
        return true;
    };
}

host::CameraSetup idleCamera(int width, int height, int fps) {
    auto source = std::make_shared<host::CallbackFrameSource>(
        [](uint64_t, host::FrameInfo&) { return false; },
        [](uint64_t, const host::FrameInfo&, const host::FrameImage&) { return false; });
    return sourceCamera(width, height, source, fps);
}

int64_t clockNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

ScopedGyro::ScopedGyro(std::shared_ptr<host::GyroSource> source, int minDelayUs,
                       host::Pacing pacing) {
    host::GyroSetup setup;
    setup.source = std::move(source);
    setup.minDelayUs = minDelayUs;
    setup.pacing = pacing;
    if (!(setup.source == nullptr ? host::removeGyro() : host::installGyro(setup)))
        throw std::runtime_error("the gyroscope is still enabled by an earlier engine");
}

ScopedGyro::~ScopedGyro() {
    host::removeGyro();
}
