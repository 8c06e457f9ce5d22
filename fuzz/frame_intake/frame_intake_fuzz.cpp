// libFuzzer target of the engine's frame intake: a recording started at a video size the input
// chooses, then a run of camera frames with arbitrary timestamps, data sizes (metadata-only
// buffers included), message types and image metadata (exposure and zoom words), delivered
// while the engine's processing thread consumes them, then stop.
//
// Frames come from one heap of the camera's full frame layout (pitch × rows padded to 32, then
// the chroma rows), as the camera's recording buffers do; the data size only says how much of
// it the camera claims to have written. Every frame must be handed back to the camera exactly
// once (counted by the host camera as an unknown release, since the fuzzer made it), and the
// engine must neither throw nor trip a sanitizer.
//
// Input: byte 0 picks the video size, byte 1 the frame queue length; then 14-byte frames:
//   op (timestamp mode in bits 0-1, debug logging in bit 2, message type in bits 3-7),
//   int64 timestamp word, uint16 exposure (µs), uint16 zoom (x100), data-size byte.
#include <android/log.h>
#include <binder/MemoryBase.h>
#include <binder/MemoryHeapBase.h>
#include <camera/CameraParameters.h>
#include <host/HostCamera.h>
#include <host/HostSensors.h>
#include <host/Properties.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Context.h"

namespace {

struct VideoSize {
    int width;
    int height;
};
// Sizes (widths a multiple of 16, as the engine's buffers need) with a pitch equal to the
// width (one-block copy) and with padded rows (row copy).
constexpr VideoSize kSizes[] = {{128, 96}, {144, 80}, {64, 48}, {176, 144}};
constexpr size_t kFrameBytes = 14;
constexpr size_t kMaxFrames = 96;

uint32_t roundUp(uint32_t value, uint32_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

void discardLog(const __android_logger_data*, const char*) {}

struct Camera {
    std::shared_ptr<host::CameraDevice> device;
    android::sp<android::Camera> camera;
    android::sp<android::MemoryHeapBase> heap;
    size_t heapBytes = 0;
};

// One camera per video size, made on first use and kept for the process.
Camera& cameraFor(size_t index) {
    static Camera cameras[sizeof kSizes / sizeof kSizes[0]];
    Camera& c = cameras[index];
    if (c.device == nullptr) {
        const VideoSize s = kSizes[index];
        host::CameraSetup setup;
        setup.cameraId = static_cast<int>(index);
        setup.videoSizes = {{s.width, s.height}};
        setup.videoSize = {s.width, s.height};
        setup.pacing = host::Pacing::AsFastAsConsumed;
        // The fuzzer delivers the frames itself: the camera's own capture makes none.
        setup.source = std::make_shared<host::CallbackFrameSource>(
            [](uint64_t, host::FrameInfo&) { return false; },
            [](uint64_t, const host::FrameInfo&, const host::FrameImage&) { return false; });
        c.device = host::CameraDevice::create(std::move(setup));
        host::addCamera(c.device);
        c.camera = c.device->connect();
        const uint32_t pitch = roundUp(static_cast<uint32_t>(s.width), 128);
        c.heapBytes = static_cast<size_t>(pitch) * roundUp(static_cast<uint32_t>(s.height), 32) +
                      static_cast<size_t>(pitch) * static_cast<uint32_t>(s.height) / 2;
        c.heap = new android::MemoryHeapBase(c.heapBytes, 0, "fuzz-frame");
        if (c.heap->getBase() == nullptr)
            std::abort();
    }
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_logger(discardLog);
    host::clearProperties();
    // Verbose diagnostics on: every debug-only line of intake formats its arguments too.
    host::setProperty("debug.camera.qlmr.EIS.log", "1");
    host::GyroSetup gyro;
    gyro.source = std::make_shared<host::SyntheticGyroSource>();
    if (!host::installGyro(gyro))
        std::abort();
    ctx.onResume();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    const size_t sizeIndex = data[0] % (sizeof kSizes / sizeof kSizes[0]);
    const VideoSize video = kSizes[sizeIndex];
    Camera& cam = cameraFor(sizeIndex);
    // 0: the queue length the engine works out; otherwise 1..63 (below its minimum it is
    // raised again).
    const std::string config = "vstab.clockIdFrame=7\nvstab.clockIdGyro=7\n"
                               "native.bufferFrameCount=" +
                               std::to_string(data[1] % 64 == 0 ? -1 : data[1] % 64) + "\n";
    ctx.start(cam.camera, video.width, video.height, config.c_str());

    const uint64_t releaseErrorsBefore = cam.device->counters().releaseErrors;
    auto* image = static_cast<uint8_t*>(cam.heap->getBase());
    int64_t previous = nowNs(CLOCK_BOOTTIME);
    uint64_t frames = 0;
    for (const uint8_t* p = data + 2; p + kFrameBytes <= data + size && frames < kMaxFrames;
         p += kFrameBytes, ++frames) {
        const uint8_t op = p[0];
        int64_t word = 0;
        std::memcpy(&word, p + 1, sizeof word);
        int64_t timestamp = 0;
        switch (op & 3) {
            case 0:  // the next frame, up to 65 ms later
                timestamp = previous + static_cast<int64_t>(static_cast<uint16_t>(word)) * 1000;
                break;
            case 1:  // anything at all
                timestamp = word;
                break;
            case 2:  // the same timestamp again
                timestamp = previous;
                break;
            default:  // back in time, up to 65 ms
                timestamp = previous - static_cast<int64_t>(static_cast<uint16_t>(word)) * 1000;
                break;
        }
        previous = timestamp;
        // The camera writes exposure and zoom as the first two little-endian 16-bit words.
        std::memcpy(image, p + 9, 4);
        const uint8_t sizeByte = p[13];
        const size_t dataBytes =
            sizeByte == 255 ? cam.heapBytes : static_cast<size_t>(sizeByte) * 4;
        android::sp<android::IMemory> memory = new android::MemoryBase(cam.heap, 0, dataBytes);
        ctx.dataCallbackTimestamp(timestamp, op >> 3, memory);
    }

    // Stop once the gyro thread has begun, as a real recording lasts longer than its start.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (ctx.sensorManager.data != nullptr &&
           ctx.sensorManager->state.load() == ThreadState::Created &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ctx.stop();
    // Every frame went back to the camera once.
    if (cam.device->counters().releaseErrors - releaseErrorsBefore != frames)
        std::abort();
    return 0;
}
