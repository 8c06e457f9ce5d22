// The entry points' abort paths, reached from Java: each statement runs in a child process with
// its own JVM, which loads libqlmr.so through com.zandry.mediatek.Native and calls it as the app
// would. Assertions abort; engine exceptions are logged by the wrapper and end the process.
#include <gtest/gtest.h>

#include "JavaVm.h"

namespace {

constexpr const char* kNative = "com/zandry/mediatek/Native";
#define ASSERTED(message) \
    "Assert: \\[library/src/main/jni/src/native:[0-9]+\\] 0 && \"" message "\""

// Calls static method `name` of the Java class Native (void result); a Java exception is
// printed and cleared.
void callNative(const char* name, const char* signature = "()V", ...) {
    JNIEnv* env = javaEnv();
    jclass native = javaClass(kNative);
    jmethodID method = javaStaticMethod(native, name, signature);
    va_list args;
    va_start(args, signature);
    env->CallStaticVoidMethodV(native, method, args);
    va_end(args);
    takeJavaException();
}

jint callNativeInt(const char* name, const char* signature, ...) {
    JNIEnv* env = javaEnv();
    jclass native = javaClass(kNative);
    jmethodID method = javaStaticMethod(native, name, signature);
    va_list args;
    va_start(args, signature);
    jint result = env->CallStaticIntMethodV(native, method, args);
    va_end(args);
    takeJavaException();
    return result;
}

// A Java camera connected to a new host camera `id` (640 x 480 at 30 fps); `released`: a
// camera whose release() was called, so that it has no native context any more.
jobject javaCamera(int id, bool released = false) {
    JNIEnv* env = javaEnv();
    jclass host = javaClass("com/zandry/host/HostPlatform");
    env->CallStaticVoidMethod(host, javaStaticMethod(host, "addCamera", "(IIIIIIJI)V"), id, 640,
                              480, 30, 0, 0, jlong{0}, 0);
    jclass cameraClass = javaClass("android/hardware/Camera");
    jobject camera = env->CallStaticObjectMethod(
        cameraClass, javaStaticMethod(cameraClass, "open", "(I)Landroid/hardware/Camera;"), id);
    if (released)
        env->CallVoidMethod(camera, env->GetMethodID(cameraClass, "release", "()V"));
    takeJavaException();
    return camera;
}

class EntryPointsDeathTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(EntryPointsDeathTest, GlLockTwiceOrGlUnlockWithoutGlLockAborts) {
    EXPECT_DEATH(
        {
            callNative("onResume");
            callNative("glLock");
            callNative("glLock");
        },
        ASSERTED("glLock Logical Error"));
    EXPECT_DEATH(callNative("glUnlock"), ASSERTED("glUnlock Logical Error"));
}

TEST_F(EntryPointsDeathTest, GlSessionBeforeOnResumeAborts) {
    EXPECT_DEATH(callNativeInt("getCameraTextureId", "([I)I", javaEnv()->NewIntArray(1)),
                 ASSERTED("Native Context has not been resumed \\.\\.\\. Logical Error"));
    EXPECT_DEATH(callNative("glLock"),
                 ASSERTED("Native Context has not been resumed \\.\\.\\. Logical Error"));
}

TEST_F(EntryPointsDeathTest, NullSurfaceAborts) {
    EXPECT_DEATH(
        callNativeInt("surfaceAdd", "(Landroid/view/Surface;IIIII)I", nullptr, -1, -1, -1, 0, -1),
        ASSERTED("Trying to add an invalid java Surface"));
    EXPECT_DEATH(callNativeInt("surfaceRemove", "(Landroid/view/Surface;)I", nullptr),
                 ASSERTED("Trying to remove an invalid java Surface"));
}

TEST_F(EntryPointsDeathTest, SetCameraWithoutConfigurationEndsTheProcess) {
    EXPECT_DEATH(
        {
            callNative("onResume");
            callNative("setCamera", "(Landroid/hardware/Camera;IILjava/lang/String;)V",
                       javaCamera(0), 640, 480, nullptr);
        },
        "VStabConfig configuration in java assets was not found \\.\\.\\. aborting.*"
        "\\[Exception\\] VStabConfig missing");
}

TEST_F(EntryPointsDeathTest, SetCameraWithoutANativeCameraEndsTheProcess) {
    const char* signature = "(Landroid/hardware/Camera;IILjava/lang/String;)V";
    EXPECT_DEATH(
        callNative("setCamera", signature, nullptr, 640, 480, javaEnv()->NewStringUTF("a=1\n")),
        "\\[Exception\\] Cannot setCamera with an invalid camera object");
    EXPECT_DEATH(callNative("setCamera", signature, javaCamera(0, true), 640, 480,
                            javaEnv()->NewStringUTF("a=1\n")),
                 "\\[Exception\\] Could not get native camera");
}

}  // namespace
