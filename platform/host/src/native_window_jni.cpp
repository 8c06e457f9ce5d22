// ANativeWindow_fromSurface on the host. The host's Java android.view.Surface keeps the address
// of its native window in the long field "mNativeObject" and owns one reference to it; the field
// is written only under the surface's monitor (Surface.release() is synchronized), so reading it
// and acquiring under the same monitor cannot race with a release.
#include <android/native_window_jni.h>

#include "NativeHandle.h"

extern "C" ANativeWindow* ANativeWindow_fromSurface(JNIEnv* env, jobject surface) {
    if (surface == nullptr)
        return nullptr;
    jclass surfaceClass = env->FindClass("android/view/Surface");
    if (surfaceClass == nullptr) {
        env->ExceptionClear();
        return nullptr;
    }
    const bool isSurface = env->IsInstanceOf(surface, surfaceClass) == JNI_TRUE;
    jfieldID field = isSurface ? env->GetFieldID(surfaceClass, "mNativeObject", "J") : nullptr;
    env->DeleteLocalRef(surfaceClass);
    if (field == nullptr) {
        env->ExceptionClear();
        return nullptr;
    }
    if (env->MonitorEnter(surface) != JNI_OK)
        return nullptr;
    auto* window = qlmr::fromHandle<ANativeWindow>(env->GetLongField(surface, field));
    if (window != nullptr)
        ANativeWindow_acquire(window);
    env->MonitorExit(surface);
    return window;
}
