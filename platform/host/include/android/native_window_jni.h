// NDK: native windows of Java surfaces.
#pragma once

#include <android/native_window.h>
#include <jni.h>

#ifdef __cplusplus
extern "C" {
#endif

// The native window behind a Java android.view.Surface, with one reference acquired for the
// caller (drop it with ANativeWindow_release), or null when the surface has none (released, or
// not a surface). Any thread attached to the JVM.
ANativeWindow* ANativeWindow_fromSurface(JNIEnv* env, jobject surface);

#ifdef __cplusplus
}
#endif
