// The stabilization engine: the one object that owns the camera connection, the stabilization
// library handle, the frame queue with its graphic buffers, the gyro sensor thread, the GL
// objects and the output surface registry, and runs the processing thread.
//
// Threads that enter it:
//   - Java caller threads: start/stop (under stateMutex), onResume/onPause, lock/unlock;
//   - the camera callback thread: dataCallbackTimestamp (frame intake, queue producer);
//   - the gyro sensor thread: gyroCallbackTimestamp;
//   - the processing thread: Run/triggerVStab/Render (queue consumer, all rendering).
// Lock order where they nest: stateMutex, vstabMutex, registry lock then a window lock,
// queue lock then a slot lock.
#pragma once

#include <EGL/egl.h>
#include <GLES2/gl2.h>
#include <binder/IMemory.h>
#include <camera/Camera.h>
#include <camera/CameraParameters.h>
#include <camera/ICameraRecordingProxyListener.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "CircularQueueThreadSafe.h"
#include "GLContext.h"
#include "GLGraphicBuffer.h"
#include "GbMapper.h"
#include "GLTexture.h"
#include "JavaSurfaceManager.h"
#include "SensorManager.h"
#include "cTGLProgram.h"
#include "cTGLShader.h"
#include "PwarpShaders.h"
#include "cTGridMesh.h"
#include "cTGridMeshIndices.h"
#include "cTMutex.h"
#include "cTThread.h"
#include "shared_ptr.h"
#include "zef_gyro_vstab.h"

class Context;

// Recording-proxy listener handed to the camera by start(). Only dataCallbackTimestamp carries
// frames; every other callback only logs. Called on the camera service's callback thread.
class MyCameraListener : public android::CameraListener,
                         public android::ICameraRecordingProxyListener {
  public:
    explicit MyCameraListener(Context* context) : context(context) {}

    void notify(int32_t msgType, int32_t ext1, int32_t ext2) override;
    void postData(int32_t msgType, const android::sp<android::IMemory>& dataPtr,
                  camera_frame_metadata_t* metadata) override;
    void postDataTimestamp(nsecs_t timestamp, int32_t msgType,
                           const android::sp<android::IMemory>& dataPtr) override;
    void postRecordingFrameHandleTimestamp(nsecs_t timestamp, native_handle_t* handle) override;
    void postRecordingFrameHandleTimestampBatch(
        const std::vector<nsecs_t>& timestamps,
        const std::vector<native_handle_t*>& handles) override;

    void dataCallbackTimestamp(nsecs_t timestamp, int32_t msgType,
                               const android::sp<android::IMemory>& data) override;
    void recordingFrameHandleCallbackTimestamp(nsecs_t timestamp, native_handle_t* handle) override;
    void recordingFrameHandleCallbackTimestampBatch(
        const std::vector<nsecs_t>& timestamps,
        const std::vector<native_handle_t*>& handles) override;

    android::IBinder* onAsBinder() override { return nullptr; }

  private:
    Context* context;
};

class Context : public cTThread {
  public:
    // One queue slot: the slot's own NV21 graphic buffer (allocated once per recording), the
    // frame description handed to the library, and the slot lock used by the queue.
    struct VStabFrame {
        shared_ptr<GLGraphicBuffer> buffer;
        VStabFrameInfo info{};
        cTMutex mutex;
    };

    Context();
    ~Context() override;

    // Lifecycle (Java caller thread).
    void start(android::sp<android::Camera> camera, int width, int height, const char* configText);
    int stop();
    void getCamConfig(android::sp<android::Camera> camera, int& width, int& height, int& fps,
                      int& cameraField);

    // GL session (Java caller thread).
    void onResume();
    void onPause();
    void lock();
    void unlock();

    // Frame intake (camera callback thread).
    void dataCallbackTimestamp(long long timestamp, int msgType,
                               const android::sp<android::IMemory>& data);
    [[noreturn]] void metaCallbackTimestamp(long long timestamp, float value,
                                            VStabGridRotation rotation, long long duration);

    // Gyro intake (gyro sensor thread).
    void gyroCallbackTimestamp(long long timestamp, float* xyz, float* next);

    // Processing loop (processing thread).
    void Run() override;
    int triggerVStab();

    // Rendering (processing thread, or any thread that may take the GL context).
    void Render(const VStabFrame* frame, const VStabOutput& output, long long timestamp);
    void vertBorder(std::vector<float>& positions, float* grid);
    void RenderEmpty();

    // Members in declaration order. The only instance is a static object, so members that
    // the constructor does not touch start at zero.
    int32_t bufferFrameCount = -1;
    int32_t cameraUvOffset = -1;
    int32_t cameraHeight = -1;
    JavaSurfaceManager jsm;
    shared_ptr<GbMapper> gbMapper;
    shared_ptr<GLContext> glContext;
    shared_ptr<GLContext::Guard> glGuard;
    shared_ptr<GLTexture> cameraTexture;
    GLuint framebuffer = 0;
    cTGridMesh mesh;
    cTGridMeshIndices meshIndices;
    cTGLShader* vertexShader = nullptr;
    cTGLShader* fragmentShader = nullptr;
    cTGLProgram<PwarpVS, PwarpFS>* program = nullptr;
    MyCameraListener* listener = nullptr;
    android::sp<android::Camera> mCamera;
    shared_ptr<SensorManager> sensorManager;
    shared_ptr<CircularQueueThreadSafe<VStabFrame>> frameQueue;
    int32_t clockIdFrame = 0;
    int32_t clockIdGyro = 0;
    int64_t firstFrameTimestamp = 0;
    int64_t lastFrameTimestamp = 0;
    int64_t startRecordTimestamp = 0;
    std::atomic<int32_t> forceRecordStop{0};
    cTMutex stateMutex;
    cTMutex vstabMutex;
    void* vstabHandle = nullptr;
    VStabConfigRecord* vstabConfig = nullptr;
    VStabOutput vstabOutput{};
    int32_t outputFrameCount = 0;
    float* uniform_vrtxArr = nullptr;
    uint32_t vstabMessageSize = 0;
    char vstabMessage[512] = {};
    std::atomic<int32_t> threadState{ThreadState::Created};
};

// The engine. Constructed when the library is loaded; destroyed at process exit.
extern Context ctx;
// The Java binding's GL guard slot (glLock/glUnlock).
extern GLContext::Guard* grd;
// 1 while verbose diagnostics are on (system property, read by onResume).
extern int32_t eis_debug;
// CLOCK_BOOTTIME minus CLOCK_MONOTONIC in ns, measured once per resume by frame intake.
extern int32_t Boottime_Monotonic_timerDiff_got;
extern int64_t Boottime_Monotonic_timerDiff;
// Frames stamped earlier than start + this many µs are skipped (system property).
extern int32_t StartTimeOffsetUs;

// Configuration text lookup: the value is the text strictly between the first "=" that follows
// the first occurrence of `key` anywhere in `text` and the next line feed (or the end), without
// trimming. Plain substring search on purpose: a key that is part of another key, or sits on a
// commented-out line, matches too. Returns false, leaving `raw` alone, when there is no value.
bool findConfigValue(const std::string& text, const char* key, std::string& raw);

// String form: `value` is the found text up to any embedded NUL, else `defaultValue`.
void readConfigParam(std::string text, const char* key, std::string& value,
                     std::string defaultValue);

// Numeric form: `value` is atof() of the found text truncated toward zero (12.9 gives 12, a
// non-number 0), else `defaultValue`. A number beyond T's range gives T's nearest limit and NaN
// gives 0, as the 32-bit ARM conversion instruction does (a plain cast would be undefined).
template <typename T>
void readConfigParam(std::string text, const char* key, T& value, T defaultValue) {
    value = defaultValue;
    std::string raw;
    if (!findConfigValue(text, key, raw))
        return;
    const double number = atof(raw.c_str());
    if (std::isnan(number))
        value = 0;
    else if (number <= static_cast<double>(std::numeric_limits<T>::min()))
        value = std::numeric_limits<T>::min();
    else if (number >= static_cast<double>(std::numeric_limits<T>::max()))
        value = std::numeric_limits<T>::max();
    else
        value = static_cast<T>(number);
}

// Copies `rows` rows of `width` bytes between buffers of different row strides; one block copy
// when all three are equal. Returns `dst`.
unsigned char* memcpy_stride(unsigned char* dst, const unsigned char* src, unsigned int width,
                             unsigned int rows, unsigned int dstStride, unsigned int srcStride);

// Clock helpers (any thread).
bool getDeltaTime(int clockA, int clockB, long long* delta);
const char* getClockName(int id);
int findClosestClock(long long timestamp);
