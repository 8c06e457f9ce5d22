/*
 * NDK looper API: the platform's header, read at the host's NDK API level. Implemented on the
 * host over libutils' android::Looper.
 */
#ifndef QLMR_HOST_ANDROID_LOOPER_H
#define QLMR_HOST_ANDROID_LOOPER_H

#include "host/NdkApiLevel.h"

#include_next <android/looper.h>

#endif /* QLMR_HOST_ANDROID_LOOPER_H */
