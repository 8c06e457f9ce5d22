// The Java binding: the attachment of Java surfaces as the engine's output windows. The entry
// points themselves (Java_com_zandry_mediatek_Native_*) are declared by the header that javac
// generates from com.zandry.mediatek.Native.
#pragma once

#include <android/native_window_jni.h>
#include <jni.h>
#include <system/window.h>
#include <utils/StrongPointer.h>

// The native window of the Java `surface`, connected as a CPU producer and configured for the
// engine's renderer: buffers transform, dimensions (pixels), HAL pixel format, usage
// GRALLOC_USAGE_SW_WRITE_OFTEN and buffer count. A negative value, or a buffer count below 1,
// leaves that setting as the window has it. Returns the window with the reference acquired
// from the surface (drop it with surface_release). A surface without a window aborts; a window
// that refuses a setting throws std::runtime_error naming it (the window is not released then).
// `clazz` is the Java class of the calling entry point, unused. Java caller thread.
ANativeWindow* surface_init(JNIEnv* env, jclass clazz, jobject surface, int width, int height,
                            int format, int bufferCount, int transform);

// Disconnects the CPU producer from `window` (result ignored) and drops the reference that
// surface_init acquired.
void surface_release(android::sp<ANativeWindow> window);
