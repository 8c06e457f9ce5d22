// The Java binding: the exported entry points of com.zandry.mediatek.Native and the attachment
// of Java surfaces as output windows. Each entry point is a thin adapter that turns Java objects
// into native ones and calls the engine `ctx` or its surface registry. Entry points run on
// whatever Java thread calls them and take no lock of their own.
//
// Engine failures are C++ exceptions. The lifecycle entry points log them ("[Exception] ...")
// and let them go on; JNI cannot carry them into Java, so they end the process. Programming
// errors of the Java side (null surfaces, unpaired glLock/glUnlock, use before onResume) are
// assertions and abort.
#include "native.h"

#include <android_runtime/JNICameraContext.h>
#include <camera/Camera.h>

#include <exception>
#include <stdexcept>

#include "Context.h"
#include "Log.h"
#include "NativeHandle.h"
#include "com_zandry_mediatek_Native.h"

namespace {

constexpr const char* kSourceFile = "library/src/main/jni/src/native";

// GRALLOC_USAGE_SW_WRITE_OFTEN: the renderer's buffers are written through the CPU API.
constexpr int kOutputUsage = 0x30;

// Runs one engine call. An exception is logged and rethrown unchanged: nothing is converted
// into a Java exception, so an engine failure ends the process after being logged.
template <typename Call>
void guarded(Call&& call) {
    try {
        call();
    } catch (const std::exception& e) {
        QLOGW("[Exception] %s", e.what());
        throw;
    }
}

// A window setting that failed: logged at info priority, then thrown with the same text.
[[noreturn]] void attachFailed(const char* message) {
    QLOGI("%s", message);
    throw std::runtime_error(message);
}

// The platform camera behind a Java android.hardware.Camera: the Java object keeps the address
// of the platform's native camera context in its long field "mNativeContext"; a strong
// reference to the context's camera is taken under the context's own lock. The reference is
// the caller's until it returns.
android::sp<android::Camera> nativeCamera(JNIEnv* env, jobject camera) {
    if (camera == nullptr)
        throw std::runtime_error("Cannot setCamera with an invalid camera object");
    jclass cameraClass = env->FindClass("android/hardware/Camera");
    jfieldID contextField =
        cameraClass != nullptr ? env->GetFieldID(cameraClass, "mNativeContext", "J") : nullptr;
    if (contextField == nullptr) {
        env->ExceptionClear();  // NoClassDefFoundError / NoSuchFieldError
        throw std::runtime_error("Could not get native camera");
    }
    env->DeleteLocalRef(cameraClass);
    auto* context =
        qlmr::fromHandle<android::JNICameraContext>(env->GetLongField(camera, contextField));
    if (context == nullptr)
        throw std::runtime_error("Could not get native camera");
    context->mLock.lock();
    android::sp<android::Camera> strong = context->mCamera;
    context->mLock.unlock();
    if (strong == nullptr)  // the Java camera is being released
        throw std::runtime_error("Could not get native camera");
    return strong;
}

// The registry id of a Java surface: its hashCode(), or 0 when the method cannot be found.
int surfaceId(JNIEnv* env, jobject surface) {
    jclass surfaceClass = env->GetObjectClass(surface);
    jmethodID hashCode = env->GetMethodID(surfaceClass, "hashCode", "()I");
    env->DeleteLocalRef(surfaceClass);
    if (hashCode == nullptr) {
        env->ExceptionClear();
        return 0;
    }
    return env->CallIntMethod(surface, hashCode);
}

// A null result array is the Java caller's error: reported to it as a NullPointerException.
bool outArrayGiven(JNIEnv* env, jintArray out) {
    if (out != nullptr)
        return true;
    jclass npe = env->FindClass("java/lang/NullPointerException");
    if (npe != nullptr)
        env->ThrowNew(npe, "out is null");
    return false;
}

}  // namespace

ANativeWindow* surface_init(JNIEnv* env, jclass clazz, jobject surface, int width, int height,
                            int format, int bufferCount, int transform) {
    static_cast<void>(clazz);
    ANativeWindow* window = ANativeWindow_fromSurface(env, surface);
    if (window == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "Cannot get a valid ANativeWindow from provided Surface");
    if (native_window_api_connect(window, NATIVE_WINDOW_API_CPU) != 0)
        attachFailed("Could not API connect CPU to awnd");
    if (transform >= 0 && native_window_set_buffers_transform(window, transform) != 0)
        attachFailed("Could not set native_window_set_buffers_transform");
    if (width >= 0 && height >= 0 &&
        native_window_set_buffers_dimensions(window, width, height) != 0)
        attachFailed("Could not set native_window_set_buffers_dimensions");
    if (format >= 0 && native_window_set_buffers_format(window, format) != 0)
        attachFailed("Could not set native_window_set_buffers_format");
    if (native_window_set_usage(window, kOutputUsage) != 0)
        attachFailed("Could not set native_window_set_usage");
    if (bufferCount >= 1 &&
        native_window_set_buffer_count(window, static_cast<size_t>(bufferCount)) != 0)
        attachFailed("Could not set native_window_set_buffer_count");
    return window;
}

void surface_release(android::sp<ANativeWindow> window) {
    if (window == nullptr)
        return;
    native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_CPU);
    ANativeWindow_release(window.get());
}

extern "C" {

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_onResume(JNIEnv*, jclass) {
    guarded([] { ctx.onResume(); });
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_onPause(JNIEnv*, jclass) {
    guarded([] { ctx.onPause(); });
    QLOGI("Pause End");
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_setCamera(JNIEnv* env, jclass,
                                                                 jobject camera, jint width,
                                                                 jint height, jstring config) {
    guarded([&] {
        android::sp<android::Camera> strong = nativeCamera(env, camera);
        const char* text = config != nullptr ? env->GetStringUTFChars(config, nullptr) : nullptr;
        // When start throws, the characters are not released: the process ends anyway.
        ctx.start(strong, width, height, text);
        if (text != nullptr)
            env->ReleaseStringUTFChars(config, text);
    });
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_remCamera(JNIEnv*, jclass) {
    guarded([] { ctx.stop(); });
}

JNIEXPORT jint JNICALL Java_com_zandry_mediatek_Native_getCameraConfig(JNIEnv* env, jclass,
                                                                       jobject camera,
                                                                       jintArray out) {
    if (!outArrayGiven(env, out))
        return 0;
    android::sp<android::Camera> strong = nativeCamera(env, camera);
    int width = 0;
    int height = 0;
    int fps = 0;
    int cameraField = 0;
    ctx.getCamConfig(strong, width, height, fps, cameraField);
    QLOGI("getCameraConfig, %d %d %d %d", width, height, fps, cameraField);
    if (fps != 30 && fps != 60) {
        // Deliberate: the Java side is only ever told 30 or 60.
        fps = 30;
        QLOGW("getCameraConfig, workaround force fps=30, %d %d %d %d", width, height, fps,
              cameraField);
    }
    const jint values[4] = {width, height, fps, cameraField};
    env->SetIntArrayRegion(out, 0, 4, values);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_zandry_mediatek_Native_getCameraTextureId(JNIEnv* env, jclass,
                                                                          jintArray out) {
    if (ctx.cameraTexture.data == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "Native Context has not been resumed ... Logical Error");
    if (!outArrayGiven(env, out))
        return 0;
    const jint name = static_cast<jint>(ctx.cameraTexture->name);
    env->SetIntArrayRegion(out, 0, 1, &name);
    return 0;
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_render(JNIEnv*, jclass) {
    // Nothing to do: the processing thread renders every frame as it is stabilized.
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_glLock(JNIEnv*, jclass) {
    if (grd != nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "glLock Logical Error");
    if (ctx.glContext.data == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "Native Context has not been resumed ... Logical Error");
    // One nesting level of the engine's context on this thread, until glUnlock.
    grd = new GLContext::Guard(ctx.glContext);
}

JNIEXPORT void JNICALL Java_com_zandry_mediatek_Native_glUnlock(JNIEnv*, jclass) {
    if (grd == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "glUnlock Logical Error");
    delete grd;  // clears the context once; a refusal there terminates the process
    grd = nullptr;
}

JNIEXPORT jint JNICALL Java_com_zandry_mediatek_Native_surfaceAdd(JNIEnv* env, jclass clazz,
                                                                  jobject surface, jint width,
                                                                  jint height, jint format,
                                                                  jint bufferCount,
                                                                  jint transform) {
    if (surface == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "Trying to add an invalid java Surface");
    QLOGI("surfaceAdd");
    ANativeWindow* window =
        surface_init(env, clazz, surface, width, height, format, bufferCount, transform);
    const int id = surfaceId(env, surface);
    // The registry keeps its own reference; the one acquired by surface_init stays with the
    // window until surfaceRemove (even when the registry keeps an earlier window for this id).
    android::sp<ANativeWindow> strong(window);
    ctx.jsm.addSurface(id, strong);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_zandry_mediatek_Native_surfaceRemove(JNIEnv* env, jclass,
                                                                     jobject surface) {
    if (surface == nullptr)
        QLMR_ASSERT(kSourceFile, 0 && "Trying to remove an invalid java Surface");
    QLOGI("surfaceRemove");
    const int id = surfaceId(env, surface);
    android::sp<ANativeWindow> window = ctx.jsm.remSurface(id);
    surface_release(window);
    return 0;
}

JNIEXPORT jint JNICALL Java_com_zandry_mediatek_Native_isHyperlapse(JNIEnv*, jclass) {
    return 0;
}

}  // extern "C"
