// Log tags of the host stand-ins. Their lines go to the Android log like the engine's, under
// tags of their own so that they are never mistaken for engine lines.
#pragma once

#include <android/log.h>

#define HOST_CAMERA_LOG(prio, ...) __android_log_print(prio, "HostCamera", __VA_ARGS__)
#define HOST_SENSORS_LOG(prio, ...) __android_log_print(prio, "HostSensors", __VA_ARGS__)
