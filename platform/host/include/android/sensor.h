/*
 * NDK sensor API: the platform's header, read at the host's NDK API level. Implemented on the
 * host by the sensor service stand-in (host/HostSensors.h).
 */
#ifndef QLMR_HOST_ANDROID_SENSOR_H
#define QLMR_HOST_ANDROID_SENSOR_H

#include "host/NdkApiLevel.h"

#include_next <android/sensor.h>

#endif /* QLMR_HOST_ANDROID_SENSOR_H */
