// Engine lifecycle and configuration: construction, start, stop, camera configuration and the
// configuration-text reader. start/stop run on the Java caller's thread under stateMutex.
#include "Context.h"

#include <camera/CameraParameters.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>

#include "BuildBanner.h"
#include "Log.h"

Context ctx;
GLContext::Guard* grd = nullptr;
int32_t eis_debug = 0;
int32_t Boottime_Monotonic_timerDiff_got = 0;
int64_t Boottime_Monotonic_timerDiff = 0;
int32_t StartTimeOffsetUs = 0;

namespace {

// HAL pixel format of the queue's buffers: YCrCb 4:2:0 semi-planar (NV21).
constexpr int kQueueBufferFormat = 17;
// GRALLOC_USAGE_HW_TEXTURE | GRALLOC_USAGE_SW_WRITE_OFTEN.
constexpr uint32_t kQueueBufferUsage = 0x130;
// Frames added to the library's latency span when sizing the queue.
constexpr int kQueueMarginFrames = 13;
// Drain of stop(): poll interval and how long to wait before forcing unstabilized output.
constexpr useconds_t kDrainPollUs = 33000;
constexpr int64_t kDrainForceAfterUs = 1000000;

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

// Releases a cTMutex when the scope unwinds. Used only where the engine must hand both its
// locks back while an exception leaves start/stop; the normal path unlocks explicitly.
class UnlockOnUnwind {
  public:
    explicit UnlockOnUnwind(cTMutex& m) : mutex(m) {}
    ~UnlockOnUnwind() {
        if (armed)
            mutex.unlock();
    }
    void disarm() { armed = false; }

  private:
    cTMutex& mutex;
    bool armed = true;
};

}  // namespace

bool findConfigValue(const std::string& text, const char* key, std::string& raw) {
    size_t keyPos = text.find(key);
    if (keyPos == std::string::npos)
        return false;
    size_t eq = text.find('=', keyPos);
    if (eq == std::string::npos)
        return false;
    size_t lineEnd = text.find('\n', eq);
    if (lineEnd == std::string::npos)
        lineEnd = text.size();
    raw = text.substr(eq + 1, lineEnd - eq - 1);
    return true;
}

void readConfigParam(std::string text, const char* key, std::string& value,
                     std::string defaultValue) {
    value = defaultValue;
    std::string raw;
    if (findConfigValue(text, key, raw))
        value = raw.c_str();
}

Context::Context() {
    qlmr::logBuildBanner();
}

// Members go in reverse declaration order: the two mutexes, the frame queue, the sensor
// thread, the camera, the mesh, the GL objects and last the surface registry.
Context::~Context() = default;

void Context::start(android::sp<android::Camera> camera, int width, int height,
                    const char* configText) {
    stateMutex.lock();
    UnlockOnUnwind stateGuard(stateMutex);

    mCamera = camera;
    outputFrameCount = 0;
    forceRecordStop = 0;
    firstFrameTimestamp = 0;
    lastFrameTimestamp = 0;

    startRecordTimestamp = nowNs(CLOCK_BOOTTIME);
    QLOGW("[VStab] startrecordtimestamp timestamp %lld",
          static_cast<long long>(startRecordTimestamp));

    if (!ThreadState::canStart(threadState.load(std::memory_order_relaxed))) {
        qlmr::throwLogged("Logical Error in Context Thread state on initialization");
    }

    QLOGW("Context::start, width=%d, height=%d", width, height);

    if (configText == nullptr) {
        QLOGW("VStabConfig configuration in java assets was not found ... aborting");
        throw std::runtime_error("VStabConfig missing");
    }
    std::string vsConfig(configText);
    QLOGW("VStabConfig using Java Asset Config");

    if (eis_debug) {
        // Each line is logged without its last character (meant for CR-LF text); the search
        // for each line feed starts one character after the previous one.
        QLOGW("vsConfig ---- BEGIN ----");
        size_t lineStart = 0;
        size_t lineFeed = vsConfig.find('\n', 1);
        while (lineFeed != std::string::npos) {
            size_t length = lineFeed > lineStart ? lineFeed - lineStart - 1 : 0;
            QLOGW("%s ", vsConfig.substr(lineStart, length).c_str());
            lineStart = lineFeed + 1;
            lineFeed = vsConfig.find('\n', lineFeed + 1);
        }
        QLOGW("vsConfig ---- END ----");
    }

    readConfigParam<int>(vsConfig, "native.cameraUvOffset", cameraUvOffset, -1);
    readConfigParam<int>(vsConfig, "native.cameraHeight", cameraHeight, -1);
    readConfigParam<int>(vsConfig, "native.bufferFrameCount", bufferFrameCount, -1);

    uint32_t columns = 0;
    uint32_t rows = 0;
    {
        vstabMutex.lock();
        UnlockOnUnwind vstabGuard(vstabMutex);
        vstabMessageSize = sizeof(vstabMessage);
        if (vStabCreateUseCharCnfgBuff(&vstabHandle, vsConfig.c_str(),
                                       static_cast<int>(vsConfig.size()), vstabMessage,
                                       &vstabMessageSize) != 0) {
            qlmr::throwLogged("Could not create VStab with given configuration");
        }
        vstabConfig = vStabConfig(vstabHandle);
        if (vstabConfig == nullptr)
            qlmr::throwLogged("VStab config is not valid");

        clockIdFrame = vstabConfig->clockIdFrame;
        clockIdGyro = vstabConfig->clockIdGyro;
        columns = vstabConfig->gridColumns;
        rows = vstabConfig->gridRows;

        // A byte count that does not fit 32 bits asks for the largest size, so new[] fails.
        uint64_t floats = static_cast<uint64_t>(columns) * rows * 3;
        size_t count = floats * sizeof(float) > UINT32_MAX ? SIZE_MAX / sizeof(float) : floats;
        vstabOutput.warpVertices = new float[count]();
        uniform_vrtxArr = new float[count];
        if (columns != 0 && rows != 0) {
            float* v = uniform_vrtxArr;
            for (uint32_t j = 0; j < rows; ++j) {
                for (uint32_t i = 0; i < columns; ++i) {
                    *v++ = (2.0f * static_cast<float>(i) / static_cast<float>(columns - 1) - 1.0f) *
                           1.25f;
                    *v++ = (2.0f * static_cast<float>(j) / static_cast<float>(rows - 1) - 1.0f) *
                           1.25f;
                    *v++ = 0.0f;
                }
            }
        }
        vstabGuard.disarm();
        vstabMutex.unlock();
    }

    mesh.resize(static_cast<unsigned short>(columns + 2), static_cast<unsigned short>(rows + 2));
    mesh.uniformBorder(0.0f, 1.0f, 1.0f, 0.0f);
    meshIndices.resize(static_cast<unsigned short>(columns + 2),
                       static_cast<unsigned short>(rows + 2));

    {
        android::CameraParameters params(mCamera->getParameters());
        android::Vector<android::Size> sizes;
        params.getSupportedVideoSizes(sizes);
        for (size_t i = 0; i < sizes.size(); ++i) {
            QLOGW("[VSTAB][Camera Supported Video Resolutions] %dx%d", sizes[i].width,
                  sizes[i].height);
        }
        sizes.clear();
        params.getSupportedPreviewSizes(sizes);
        for (size_t i = 0; i < sizes.size(); ++i) {
            QLOGW("[VSTAB][Camera Supported Preview Resolutions] %dx%d", sizes[i].width,
                  sizes[i].height);
        }
        int w = 0;
        int h = 0;
        params.getPreviewSize(&w, &h);
        QLOGI("Get current camera preview stream size: %dx%d", w, h);
        params.getVideoSize(&w, &h);
        QLOGI("Get current camera video stream size: %dx%d", w, h);
        QLOGI("Setting camera video stream size to: %dx%d", width, height);
        params.setVideoSize(width, height);
        mCamera->setParameters(params.flatten());
    }

    int fps = 0;
    {
        android::CameraParameters params(mCamera->getParameters());
        fps = params.getPreviewFrameRate();
        QLOGW("getPreviewFrameRate, fps: %d", fps);
    }

    int64_t latencyNs = vstabConfig->latencyNs;
    int64_t windowNs = vstabConfig->windowNs;
    float span = static_cast<float>(std::max(latencyNs, windowNs / 2));
    int frameCountMin =
        static_cast<int>(static_cast<float>(fps) * 1e-9f * span + kQueueMarginFrames);
    QLOGW("frameCountMin : %d", frameCountMin);

    int frameCount = frameCountMin;
    if (bufferFrameCount != -1) {
        if (bufferFrameCount < frameCountMin) {
            QLOGW("Internal Buffer size set in config is too small: %d < %d, using minimum count",
                  bufferFrameCount, frameCountMin);
        } else {
            frameCount = bufferFrameCount;
        }
    }
    QLOGW("VStab Using Buffer with FrameCount: %d", frameCount);

    {
        shared_ptr<CircularQueueThreadSafe<VStabFrame>> queue;
        queue.acquire(new CircularQueueThreadSafe<VStabFrame>(frameCount), nullptr);
        frameQueue = queue;
    }

    int bufferWidth = 0;
    int bufferHeight = 0;
    {
        android::CameraParameters params(mCamera->getParameters());
        int pw = 0, ph = 0, vw = 0, vh = 0, cw = 0, ch = 0;
        params.getPictureSize(&cw, &ch);
        params.getPreviewSize(&pw, &ph);
        params.getVideoSize(&vw, &vh);
        const char* pictureFormat = params.getPictureFormat();
        const char* previewFormat = params.getPreviewFormat();
        QLOGI("========= Sizes: %s | %s | %dx%d | %dx%d | %dx%d",
              pictureFormat ? pictureFormat : "(null)", previewFormat ? previewFormat : "(null)",
              cw, ch, pw, ph, vw, vh);
        bufferWidth = vw;
        bufferHeight = cameraHeight != -1 ? cameraHeight : vh;
    }

    int capacity = frameQueue->getCapacity();
    for (int i = 0; i < capacity; ++i) {
        VStabFrame* slot = nullptr;
        frameQueue->pushLock(slot);
        if (bufferWidth % 16 != 0) {
            qlmr::throwLogged("[CPGL] allocateGB buffer width is not a multiple of 16");
        }
        android::sp<android::GraphicBuffer> gb = new android::GraphicBuffer();
        gb->reallocate(bufferWidth, bufferHeight, kQueueBufferFormat, 0, kQueueBufferUsage);
        if (gb->initCheck() != 0)
            qlmr::throwLogged("[CPGL] Could not initialize GraphicBuffer");
        shared_ptr<GLGraphicBuffer> binding;
        binding.acquire(new GLGraphicBuffer(glContext, gb, 1), nullptr);
        slot->buffer = binding;
        frameQueue->unlock(slot);
        frameQueue->pop(slot);
    }

    {
        shared_ptr<SensorManager> sensors;
        sensors.acquire(new SensorManager(this), nullptr);
        sensorManager = sensors;
    }

    {
        android::CameraParameters params(mCamera->getParameters());
        params.set("recording-hint", "true");
        mCamera->setParameters(params.flatten());
    }

    listener = new MyCameraListener(this);
    mCamera->setRecordingProxyListener(listener);
    mCamera->setVideoBufferMode(0);
    int status = mCamera->startRecording();
    QLOGI("startRecording Status: %d", status);
    QLOGI("previewEnabled: %d", mCamera->previewEnabled() ? 1 : 0);

    startThread();

    stateGuard.disarm();
    stateMutex.unlock();
}

int Context::stop() {
    stateMutex.lock();
    UnlockOnUnwind stateGuard(stateMutex);

    QLOGW("stopRecording ++++");
    mCamera->stopRecording();
    QLOGW("stopRecording ----");
    mCamera->setRecordingProxyListener(nullptr);

    QLOGW("Frame Queue Length ++++: %d", frameQueue->size());
    int64_t sleptUs = 0;
    while (frameQueue->size() >= 1) {
        usleep(kDrainPollUs);
        sleptUs += kDrainPollUs;
        if (sleptUs > kDrainForceAfterUs) {
            if (forceRecordStop.exchange(1) == 0)
                QLOGW("forceRecordStop = 1");
        }
    }
    QLOGW("Frame Queue Length = 0, exit");
    stopThread(threadState);

    QLOGW("Frame Queue Length ----: %d", frameQueue->size());
    QLOGW("mCamera.clear ++++");
    mCamera.clear();
    QLOGW("mCamera.clear ----");

    sensorManager.release();
    frameQueue.release();

    if (uniform_vrtxArr != nullptr)
        delete[] uniform_vrtxArr;
    if (vstabOutput.warpVertices != nullptr)
        delete[] vstabOutput.warpVertices;

    vstabMutex.lock();
    {
        UnlockOnUnwind vstabGuard(vstabMutex);
        if (vStabDestroy(vstabHandle) != 0)
            qlmr::throwLogged("Could not destroy VStab");
        vstabGuard.disarm();
    }
    vstabMutex.unlock();

    QLOGW("Native stopped recording");
    stateGuard.disarm();
    stateMutex.unlock();
    return 0;
}

void Context::getCamConfig(android::sp<android::Camera> camera, int& width, int& height, int& fps,
                           int& cameraField) {
    // The sixth 32-bit word of the platform camera object, passed to Java unchanged.
    int32_t field = 0;
    std::memcpy(&field, reinterpret_cast<const unsigned char*>(camera.get()) + 5 * sizeof(int32_t),
                sizeof(field));
    cameraField = field;
    android::CameraParameters params(camera->getParameters());
    params.getVideoSize(&width, &height);
    fps = params.getPreviewFrameRate();
    QLOGI("getCamConfig, getVideoSize: %dx%d", width, height);
    QLOGI("getCamConfig, getPreviewFrameRate: %d", fps);
}
