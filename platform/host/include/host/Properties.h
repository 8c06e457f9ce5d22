// Host system-property store behind property_get().
//
// On a device property_get() reads the property service; on the host the values live in an
// in-process map. Tests and tools set them with setProperty(). A user running a host program
// sets them through the environment variable QLMR_PROPERTIES, a list of key=value pairs
// separated by ';' or newlines, read once on the first access, for example:
//
//   QLMR_PROPERTIES='debug.camera.qlmr.EIS.log=1;persist.qlmr.EIS.vid.startUs=0' tool ...
//
// All functions are thread-safe.
#pragma once

#include <string>

namespace host {

// Sets (or replaces) one property. The value is cut to PROPERTY_VALUE_MAX - 1 bytes, as the
// property service would refuse longer ones.
void setProperty(const std::string& key, const std::string& value);

// Removes one property; property_get() then returns its default again.
void clearProperty(const std::string& key);

// Removes every property, including those read from QLMR_PROPERTIES (which is not read again).
void clearProperties();

// Parses "k=v;k=v" (or newline-separated) text into the store. Returns false, and stores
// nothing, when an entry has no '=' or an empty key.
bool loadProperties(const std::string& text);

}  // namespace host
