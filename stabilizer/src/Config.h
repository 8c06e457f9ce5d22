// Configuration of the stabilization library: the key=value text the engine hands to
// vStabCreateUseCharCnfgBuff, parsed into StabConfig. Pure code, callable from any thread.
#ifndef ZEF_VSTAB_CONFIG_H
#define ZEF_VSTAB_CONFIG_H

#include <cstddef>
#include <cstdint>

namespace vstab {

// Maps the gyro sensor's axes onto the camera's axes (x right, y down, z forward):
// rateCamera[i] = sign[i] * rateSensor[axis[i]]. A proper rotation: each sensor axis used once,
// determinant +1.
struct AxisMap {
    int axis[3] = {1, 0, 2};
    int sign[3] = {-1, -1, -1};
};

struct StabConfig {
    uint32_t gridColumns = 33;  // vertices per grid row
    uint32_t gridRows = 19;     // rows of grid vertices
    // Smoothing window centred on a frame: motion slower than 0.6 / window (s) is kept as
    // intended motion, faster motion is removed as shake. Needs latencyNs >= windowNs / 2.
    int64_t windowNs = 1200000000;
    // How far gyro data must reach past a frame's centre before the frame is warped: the
    // smoother's look-ahead horizon.
    int64_t latencyNs = 600000000;
    int32_t debugFrameIndex = 0;
    int32_t clockIdGyro = 7;   // CLOCK_BOOTTIME
    int32_t clockIdFrame = 7;  // CLOCK_BOOTTIME
    double fovHorizontalDeg = 66.0;
    double fovVerticalDeg = 40.14;
    double principalPointX = 0.5;  // optical centre, fraction of the frame width
    double principalPointY = 0.5;  // optical centre, fraction of the frame height
    int64_t readoutNs = 0;         // first-row to last-row readout time; 0 = global shutter
    // Gyro-clock time of a frame's first-row exposure start = frame timestamp + this offset.
    int64_t gyroTimeOffsetNs = 0;
    AxisMap gyroAxes;
    double overscan = 1.25;         // extent of the engine's unwarped grid, in output half-widths
    double gyroRateMaxHz = 1000.0;  // highest gyro rate the sample history is sized for
    int64_t gyroGapMaxNs = 100000000;  // longer sample gaps are bridged as no rotation
    // Adaptive crop: the output's magnification (output half-widths per frame half-width)
    // follows the motion between cropZoomMin and cropZoomMax; 0 keeps it at cropZoomMax.
    int32_t cropAdaptive = 1;
    double cropZoomMin = 1.0;
    // Largest output magnification (and the fixed one without the adaptive crop). 0 in the
    // text means the overscan; after parsing it always holds the value in force. Above the
    // overscan the output shows less than the engine's unwarped grid, for shake the overscan's
    // margin cannot hold.
    double cropZoomMax = 0.0;
    // Radial lens distortion of the frame: a normalised image point (x, y) of an ideal pinhole
    // is recorded at (x, y) * (1 + lensK1 r^2 + lensK2 r^4), r^2 = x^2 + y^2, in units of the
    // focal length. 0, 0: a pinhole camera.
    double lensK1 = 0.0;
    double lensK2 = 0.0;
};

// Warnings about a configuration text that was accepted: keys that no reader knows (they are
// ignored) and values that were clamped. Fixed capacity; sentences beyond it are counted, not
// kept.
struct ConfigWarnings {
    static constexpr size_t kCapacity = 1024;
    char text[kCapacity] = {};  // sentences separated by '\n', NUL-terminated
    size_t length = 0;          // characters in text
    int count = 0;              // warnings issued (also those that did not fit)

    // Appends one sentence (formatted as printf).
    void add(const char* format, ...) __attribute__((format(printf, 2, 3)));
};

// One configuration key: its name and a one-line description (for documentation and tests).
struct ConfigKey {
    const char* name;
    const char* description;
};

// The keys the library reads, in documentation order. No key is a substring of another one,
// and none contains a key the engine reads itself, so a plain substring search finds each.
const ConfigKey* configKeys(size_t* count);

// Parses `length` bytes of `text` (stopping early at a NUL byte) into `out`, starting from the
// defaults. Comment lines (first non-blank character '#') are skipped; unknown keys are ignored,
// and each one that is neither a library key nor an engine key (`native.` prefix) gets a
// sentence in `warnings` (if given), as does every value that is clamped. On a malformed line,
// bad value or impossible combination returns false and writes one readable sentence into
// `error` (NUL-terminated, at most errorCapacity bytes). Does not allocate.
bool parseConfig(const char* text, size_t length, StabConfig& out, char* error,
                 size_t errorCapacity, ConfigWarnings* warnings = nullptr);

}  // namespace vstab

#endif  // ZEF_VSTAB_CONFIG_H
