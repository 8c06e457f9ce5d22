// Host stand-in for bionic's <sys/system_properties.h>: only the size limits that
// <cutils/properties.h> builds on. Values are those of the platform.
#pragma once

#define PROP_NAME_MAX 32
#define PROP_VALUE_MAX 92
