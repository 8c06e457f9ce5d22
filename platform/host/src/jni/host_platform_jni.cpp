// Native side of the host's Java stand-ins (android.hardware.Camera, android.view.Surface) and
// of com.zandry.host.HostPlatform, the Java tests' control of the host platform. Loaded by the
// JVM as libqlmr_host_jni.so; every function runs on the calling Java thread.
#include <android/log.h>
#include <android/native_window.h>
#include <camera/Camera.h>
#include <system/window.h>
#include <utils/String16.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "android_hardware_Camera.h"
#include "android_view_Surface.h"
#include "com_zandry_host_HostPlatform.h"
#include "host/HostCamera.h"
#include "host/HostSensors.h"
#include "host/JavaCameraContext.h"
#include "host/Window.h"
#include "NativeHandle.h"

namespace {

void throwJava(JNIEnv* env, const char* className, const std::string& message) {
    jclass type = env->FindClass(className);
    if (type != nullptr)
        env->ThrowNew(type, message.c_str());
}

jlongArray longArray(JNIEnv* env, const std::vector<jlong>& values) {
    jlongArray array = env->NewLongArray(static_cast<jsize>(values.size()));
    if (array != nullptr)
        env->SetLongArrayRegion(array, 0, static_cast<jsize>(values.size()), values.data());
    return array;
}

jintArray intArray(JNIEnv* env, const std::vector<jint>& values) {
    jintArray array = env->NewIntArray(static_cast<jsize>(values.size()));
    if (array != nullptr)
        env->SetIntArrayRegion(array, 0, static_cast<jsize>(values.size()), values.data());
    return array;
}

// ---- Camera contexts ----

jfieldID cameraContextField(JNIEnv* env, jobject camera) {
    jclass type = env->GetObjectClass(camera);
    jfieldID field = env->GetFieldID(type, "mNativeContext", "J");
    env->DeleteLocalRef(type);
    return field;
}

// Contexts of released cameras. They are never freed: native code that read a camera's
// context address just before the release may still lock it.
std::mutex gRetiredMutex;
std::vector<std::unique_ptr<android::JNICameraContext>> gRetiredContexts;

// ---- Output windows ----

// Sinks of the windows made by createWindow, by window address. Kept after the window is gone
// so that tests can read what it received.
std::mutex gSinksMutex;
std::map<jlong, std::shared_ptr<host::MemorySink>> gSinks;

std::shared_ptr<host::MemorySink> sinkOf(JNIEnv* env, jlong window) {
    std::lock_guard<std::mutex> lock(gSinksMutex);
    auto it = gSinks.find(window);
    if (it == gSinks.end()) {
        throwJava(env, "java/lang/IllegalArgumentException", "not a window made by createWindow");
        return nullptr;
    }
    return it->second;
}

// One stored frame, or null with an IllegalArgumentException pending.
bool frameAt(JNIEnv* env, jlong window, jint index, host::MemorySink::StoredFrame* out) {
    std::shared_ptr<host::MemorySink> sink = sinkOf(env, window);
    if (sink == nullptr)
        return false;
    std::vector<host::MemorySink::StoredFrame> frames = sink->frames();
    if (index < 0 || static_cast<size_t>(index) >= frames.size()) {
        throwJava(env, "java/lang/IllegalArgumentException",
                  "frame " + std::to_string(index) + " of " + std::to_string(frames.size()));
        return false;
    }
    *out = std::move(frames[static_cast<size_t>(index)]);
    return true;
}

// ---- Log capture ----

struct CapturedLine {
    std::string tag;
    std::string text;
};
std::mutex gLogMutex;
std::vector<CapturedLine> gLogLines;

void captureLogger(const __android_logger_data* data, const char* message) {
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        gLogLines.push_back(CapturedLine{data->tag != nullptr ? data->tag : "", message});
    }
    __android_log_stderr_logger(data, message);
}

}  // namespace

// ---- android.hardware.Camera ----

extern "C" JNIEXPORT void JNICALL Java_android_hardware_Camera_native_1setup(JNIEnv* env,
                                                                             jobject thiz,
                                                                             jint cameraId) {
    android::sp<android::Camera> camera = android::Camera::connect(
        cameraId, android::String16("com.zandry.host"), android::Camera::USE_CALLING_UID,
        android::Camera::USE_CALLING_PID);
    if (camera == nullptr) {
        throwJava(env, "java/lang/RuntimeException", "Fail to connect to camera service");
        return;
    }
    auto context = std::make_unique<android::JNICameraContext>();
    context->mCamera = camera;
    env->SetLongField(thiz, cameraContextField(env, thiz), qlmr::toHandle(context.release()));
}

extern "C" JNIEXPORT void JNICALL Java_android_hardware_Camera_native_1release(JNIEnv* env,
                                                                               jobject thiz) {
    jfieldID field = cameraContextField(env, thiz);
    auto* context = qlmr::fromHandle<android::JNICameraContext>(env->GetLongField(thiz, field));
    if (context == nullptr)
        return;
    env->SetLongField(thiz, field, 0);
    android::sp<android::Camera> camera;
    {
        android::Mutex::Autolock lock(context->mLock);
        camera = context->mCamera;
        context->mCamera.clear();
    }
    if (camera != nullptr)
        camera->disconnect();
    std::lock_guard<std::mutex> lock(gRetiredMutex);
    gRetiredContexts.emplace_back(context);
}

// ---- android.view.Surface ----

extern "C" JNIEXPORT void JNICALL Java_android_view_Surface_nativeRelease(JNIEnv*, jclass,
                                                                          jlong nativeObject) {
    if (ANativeWindow* window = qlmr::fromHandle<ANativeWindow>(nativeObject))
        ANativeWindow_release(window);
}

// ---- com.zandry.host.HostPlatform ----

extern "C" JNIEXPORT void JNICALL Java_com_zandry_host_HostPlatform_addCamera(
    JNIEnv* env, jclass, jint cameraId, jint width, jint height, jint framesPerSecond,
    jint frameCount, jint cameraField, jlong paceWindow, jint maxFramesAhead) {
    if (framesPerSecond <= 0 || frameCount < 0 || (paceWindow != 0 && maxFramesAhead < 1)) {
        throwJava(env, "java/lang/IllegalArgumentException", "bad frame rate, count or pacing");
        return;
    }
    host::CameraSetup setup;
    setup.cameraId = cameraId;
    setup.cameraField = cameraField;
    const android::Size size(width, height);
    auto sameSize = [&](const android::Size& s) {
        return s.width == size.width && s.height == size.height;
    };
    if (std::none_of(setup.videoSizes.begin(), setup.videoSizes.end(), sameSize))
        setup.videoSizes.insert(setup.videoSizes.begin(), size);
    setup.videoSize = size;
    if (std::find(setup.frameRates.begin(), setup.frameRates.end(), framesPerSecond) ==
        setup.frameRates.end()) {
        setup.frameRates.push_back(framesPerSecond);
    }
    setup.frameRate = framesPerSecond;
    host::SyntheticFrameOptions options;
    options.frameLimit = static_cast<uint64_t>(frameCount);
    setup.source = std::make_shared<host::SyntheticFrameSource>(options);
    if (paceWindow != 0) {
        std::shared_ptr<host::MemorySink> sink = sinkOf(env, paceWindow);
        if (sink == nullptr)
            return;
        setup.pacing = host::Pacing::AsFastAsConsumed;
        const auto ahead = static_cast<uint64_t>(maxFramesAhead);
        setup.gate = [sink, ahead](uint64_t index, int64_t) {
            return index < sink->count() + ahead;
        };
    }
    try {
        host::addCamera(host::CameraDevice::create(std::move(setup)));
    } catch (const std::invalid_argument& e) {
        throwJava(env, "java/lang/IllegalArgumentException", e.what());
    }
}

extern "C" JNIEXPORT void JNICALL Java_com_zandry_host_HostPlatform_removeAllCameras(JNIEnv*,
                                                                                     jclass) {
    host::removeAllCameras();
}

extern "C" JNIEXPORT jlongArray JNICALL
Java_com_zandry_host_HostPlatform_cameraCounters(JNIEnv* env, jclass, jint cameraId) {
    std::shared_ptr<host::CameraDevice> device = host::findCamera(cameraId);
    if (device == nullptr) {
        throwJava(env, "java/lang/IllegalArgumentException", "no such camera");
        return nullptr;
    }
    host::CameraCounters c = device->counters();
    return longArray(env, {static_cast<jlong>(c.captured), static_cast<jlong>(c.delivered),
                           static_cast<jlong>(c.released), static_cast<jlong>(c.dropped),
                           static_cast<jlong>(c.discarded)});
}

extern "C" JNIEXPORT jboolean JNICALL Java_com_zandry_host_HostPlatform_waitCameraDrained(
    JNIEnv* env, jclass, jint cameraId, jint timeoutMs) {
    std::shared_ptr<host::CameraDevice> device = host::findCamera(cameraId);
    if (device == nullptr) {
        throwJava(env, "java/lang/IllegalArgumentException", "no such camera");
        return JNI_FALSE;
    }
    return device->waitUntilDrained(std::chrono::milliseconds(timeoutMs)) ? JNI_TRUE : JNI_FALSE;
}

extern "C" JNIEXPORT jboolean JNICALL Java_com_zandry_host_HostPlatform_installGyro(JNIEnv*,
                                                                                    jclass) {
    host::GyroSetup setup;
    setup.source = std::make_shared<host::SyntheticGyroSource>();
    return host::installGyro(std::move(setup)) ? JNI_TRUE : JNI_FALSE;
}

extern "C" JNIEXPORT jlongArray JNICALL Java_com_zandry_host_HostPlatform_gyroCounters(JNIEnv* env,
                                                                                       jclass) {
    host::SensorCounters c = host::sensorCounters();
    return longArray(env, {static_cast<jlong>(c.samplesRead), static_cast<jlong>(c.eventsQueued),
                           static_cast<jlong>(c.eventsDelivered)});
}

extern "C" JNIEXPORT void JNICALL Java_com_zandry_host_HostPlatform_captureLog(JNIEnv*, jclass) {
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        gLogLines.clear();
    }
    // Outside gLogMutex: liblog calls the logger under its own lock, and the logger takes
    // gLogMutex, so the two must not be taken the other way round here.
    __android_log_set_logger(captureLogger);
}

extern "C" JNIEXPORT jobjectArray JNICALL Java_com_zandry_host_HostPlatform_logLines(JNIEnv* env,
                                                                                     jclass,
                                                                                     jstring tag) {
    std::string wanted;
    if (tag != nullptr) {
        const char* chars = env->GetStringUTFChars(tag, nullptr);
        wanted = chars;
        env->ReleaseStringUTFChars(tag, chars);
    }
    std::vector<std::string> texts;
    {
        std::lock_guard<std::mutex> lock(gLogMutex);
        for (const CapturedLine& line : gLogLines) {
            if (tag == nullptr || line.tag == wanted)
                texts.push_back(line.text);
        }
    }
    jclass stringClass = env->FindClass("java/lang/String");
    jobjectArray array =
        env->NewObjectArray(static_cast<jsize>(texts.size()), stringClass, nullptr);
    for (size_t i = 0; array != nullptr && i < texts.size(); ++i) {
        jstring text = env->NewStringUTF(texts[i].c_str());
        env->SetObjectArrayElement(array, static_cast<jsize>(i), text);
        env->DeleteLocalRef(text);
    }
    return array;
}

extern "C" JNIEXPORT jlong JNICALL Java_com_zandry_host_HostPlatform_createWindow(
    JNIEnv* env, jclass, jint defaultWidth, jint defaultHeight, jint bufferCount) {
    if (defaultWidth <= 0 || defaultHeight <= 0 || bufferCount <= 0) {
        throwJava(env, "java/lang/IllegalArgumentException", "bad window size or buffer count");
        return 0;
    }
    auto sink = std::make_shared<host::MemorySink>();
    host::WindowConfig config;
    config.defaultWidth = static_cast<uint32_t>(defaultWidth);
    config.defaultHeight = static_cast<uint32_t>(defaultHeight);
    config.bufferCount = static_cast<size_t>(bufferCount);
    android::sp<ANativeWindow> window = host::createWindow(sink, config);
    if (window == nullptr) {
        throwJava(env, "java/lang/IllegalArgumentException", "host window refused the setup");
        return 0;
    }
    ANativeWindow_acquire(window.get());  // the caller's reference
    const auto address = qlmr::toHandle(window.get());
    std::lock_guard<std::mutex> lock(gSinksMutex);
    gSinks[address] = std::move(sink);
    return address;
}

extern "C" JNIEXPORT jint JNICALL Java_com_zandry_host_HostPlatform_frameCount(JNIEnv* env, jclass,
                                                                               jlong window) {
    std::shared_ptr<host::MemorySink> sink = sinkOf(env, window);
    return sink != nullptr ? static_cast<jint>(sink->count()) : 0;
}

extern "C" JNIEXPORT jboolean JNICALL Java_com_zandry_host_HostPlatform_waitForFrames(
    JNIEnv* env, jclass, jlong window, jint count, jint timeoutMs) {
    std::shared_ptr<host::MemorySink> sink = sinkOf(env, window);
    if (sink == nullptr || count < 0)
        return JNI_FALSE;
    return sink->waitForCount(static_cast<size_t>(count), std::chrono::milliseconds(timeoutMs))
               ? JNI_TRUE
               : JNI_FALSE;
}

extern "C" JNIEXPORT jlongArray JNICALL
Java_com_zandry_host_HostPlatform_frameTimestamps(JNIEnv* env, jclass, jlong window) {
    std::shared_ptr<host::MemorySink> sink = sinkOf(env, window);
    if (sink == nullptr)
        return nullptr;
    std::vector<jlong> timestamps;
    for (const host::MemorySink::StoredFrame& frame : sink->frames())
        timestamps.push_back(frame.timestampNs);
    return longArray(env, timestamps);
}

extern "C" JNIEXPORT jintArray JNICALL Java_com_zandry_host_HostPlatform_frameShape(JNIEnv* env,
                                                                                    jclass,
                                                                                    jlong window,
                                                                                    jint index) {
    host::MemorySink::StoredFrame frame;
    if (!frameAt(env, window, index, &frame))
        return nullptr;
    return intArray(
        env, {static_cast<jint>(frame.width), static_cast<jint>(frame.height),
              static_cast<jint>(frame.stride), frame.format, static_cast<jint>(frame.transform)});
}

extern "C" JNIEXPORT jbyteArray JNICALL Java_com_zandry_host_HostPlatform_framePixels(JNIEnv* env,
                                                                                      jclass,
                                                                                      jlong window,
                                                                                      jint index) {
    host::MemorySink::StoredFrame frame;
    if (!frameAt(env, window, index, &frame))
        return nullptr;
    jbyteArray array = env->NewByteArray(static_cast<jsize>(frame.pixels.size()));
    if (array != nullptr) {
        env->SetByteArrayRegion(array, 0, static_cast<jsize>(frame.pixels.size()),
                                reinterpret_cast<const jbyte*>(frame.pixels.data()));
    }
    return array;
}

extern "C" JNIEXPORT jintArray JNICALL Java_com_zandry_host_HostPlatform_windowState(JNIEnv* env,
                                                                                     jclass,
                                                                                     jlong window) {
    if (sinkOf(env, window) == nullptr)
        return nullptr;
    host::WindowCounters counters;
    // Only windows that still exist answer: the address is looked up among live host windows.
    if (!host::windowCounters(reinterpret_cast<const ANativeWindow*>(window), &counters))
        return intArray(env, {0, 0, 0, 0});
    return intArray(env, {1, counters.connectedApi, static_cast<jint>(counters.bufferCount),
                          static_cast<jint>(counters.queued)});
}
