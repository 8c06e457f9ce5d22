// The entry points' abort paths, called through com.zandry.mediatek.Native in a child's JVM.
#include <gtest/gtest.h>

#include "JavaVm.h"

namespace {

constexpr const char* kNative = "com/zandry/mediatek/Native";
#define ASSERTED(message) \
    "Assert: \\[library/src/main/jni/src/native:[0-9]+\\] 0 && \"" message "\""

// Calls static method `name` of Native (a void or int result); a Java exception is cleared.
jint callNative(const char* name, const char* signature = "()V", ...) {
    JNIEnv* env = javaEnv();
    jclass native = javaClass(kNative);
    jmethodID method = javaStaticMethod(native, name, signature);
    va_list args;
    va_start(args, signature);
    jint result = 0;
    if (std::string(signature).back() == 'V')
        env->CallStaticVoidMethodV(native, method, args);
    else
        result = env->CallStaticIntMethodV(native, method, args);
    va_end(args);
    takeJavaException();
    return result;
}

// A Java camera on a new 640 x 480 host camera `id`; `released`: without its native context.
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
    EXPECT_DEATH(callNative("getCameraTextureId", "([I)I", javaEnv()->NewIntArray(1)),
                 ASSERTED("Native Context has not been resumed \\.\\.\\. Logical Error"));
    EXPECT_DEATH(callNative("glLock"),
                 ASSERTED("Native Context has not been resumed \\.\\.\\. Logical Error"));
}

TEST_F(EntryPointsDeathTest, NullSurfaceAborts) {
    EXPECT_DEATH(
        callNative("surfaceAdd", "(Landroid/view/Surface;IIIII)I", nullptr, -1, -1, -1, 0, -1),
        ASSERTED("Trying to add an invalid java Surface"));
    EXPECT_DEATH(callNative("surfaceRemove", "(Landroid/view/Surface;)I", nullptr),
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
