// The native side of a Java android.hardware.Camera object.
//
// A Java camera keeps the address of one JNICameraContext in its long field "mNativeContext"
// (0 when the camera has been released). Native code that is handed the Java camera reads that
// field, locks the context's mLock and takes a strong reference to mCamera; the Java camera
// stand-in fills the context when it opens a camera (Camera::connect) and clears mCamera under
// the same lock when it releases it.
#pragma once

#include <camera/Camera.h>
#include <utils/Mutex.h>
#include <utils/StrongPointer.h>

namespace android {

struct JNICameraContext {
    Mutex mLock;
    sp<Camera> mCamera;  // guarded by mLock; null once the Java camera is released

    // The camera, or null, read under mLock.
    sp<Camera> getCamera() {
        Mutex::Autolock lock(mLock);
        return mCamera;
    }
};

}  // namespace android
