// The native side of a Java android.hardware.Camera, as this platform lays it out: the object
// whose address the Java camera keeps in its long field "mNativeContext". Its mLock guards
// mCamera, the connected android::Camera (null once the Java camera is released).
#pragma once

#include "host/JavaCameraContext.h"
