#include "Config.h"

#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <system_error>

namespace vstab {
namespace {

enum class KeyId {
    GridColumns,
    GridRows,
    WindowNs,
    LatencyNs,
    DebugFrameIndex,
    ClockIdGyro,
    ClockIdFrame,
    FovHorizontalDeg,
    FovVerticalDeg,
    PrincipalPointX,
    PrincipalPointY,
    ReadoutNs,
    GyroTimeOffsetNs,
    GyroAxes,
    Overscan,
    GyroRateMaxHz,
    GyroGapMaxNs,
    CropAdaptive,
    CropZoomMin,
    CropZoomMax,
    LensK1,
    LensK2,
    Count
};

constexpr size_t kKeyCount = static_cast<size_t>(KeyId::Count);

// Indexed by KeyId.
const ConfigKey kKeys[kKeyCount] = {
    {"vstab.gridColumns", "vertices per warp grid row, >= 2 (default 33)"},
    {"vstab.gridRows", "rows of warp grid vertices, >= 2 (default 19)"},
    {"vstab.windowNs",
     "smoothing window centred on a frame; motion slower than 0.6 / window is kept as intended "
     "motion (default 1200000000, i.e. 0.5 Hz)"},
    {"vstab.latencyNs",
     "look-ahead: gyro data must reach this far past a frame's centre before it is warped; at "
     "least half the window (default 600000000)"},
    {"vstab.debugFrameIndex",
     "1 makes the engine paint frame numbers into its outputs (default 0)"},
    {"vstab.clockIdGyro", "POSIX clock id of the gyro timestamps (default 7, CLOCK_BOOTTIME)"},
    {"vstab.clockIdFrame", "POSIX clock id of the frame timestamps (default 7, CLOCK_BOOTTIME)"},
    {"vstab.fovHorizontalDeg", "horizontal field of view of the frame at zoom 1 (default 66)"},
    {"vstab.fovVerticalDeg", "vertical field of view of the frame at zoom 1 (default 40.14)"},
    {"vstab.principalPointX", "optical centre as a fraction of the frame width (default 0.5)"},
    {"vstab.principalPointY", "optical centre as a fraction of the frame height (default 0.5)"},
    {"vstab.readoutNs",
     "rolling-shutter readout time, first row to last row; 0 = global shutter (default 0)"},
    {"vstab.gyroTimeOffsetNs",
     "gyro time of a frame's first-row exposure start minus the frame timestamp (default 0)"},
    {"vstab.gyroAxes", "camera x,y,z rates as signed gyro axes, e.g. -y,-x,-z (default -y,-x,-z)"},
    {"vstab.overscan",
     "extent of the engine's unwarped grid in output half-widths; 1.25 for this engine"},
    {"vstab.gyroRateMaxHz", "highest gyro sample rate the history is sized for (default 1000)"},
    {"vstab.gyroGapMaxNs",
     "longer gaps between gyro samples count as no rotation (default 100000000)"},
    {"vstab.cropAdaptive",
     "1: the output magnification follows the motion between the smallest zoom and the "
     "overscan; 0: always the overscan (default 1)"},
    {"vstab.cropZoomMin",
     "smallest output magnification of the adaptive crop, at most the largest (default 1.0)"},
    {"vstab.cropZoomMax",
     "largest output magnification; 0 = the overscan (default 0); above it the output keeps "
     "less of the picture to hold stronger shake"},
    {"vstab.lensK1", "radial distortion coefficient of r^2 (default 0: pinhole)"},
    {"vstab.lensK2", "radial distortion coefficient of r^4 (default 0)"},
};

// Writes a formatted sentence into the caller's error buffer; never past its capacity.
template <typename... Args>
bool fail(char* error, size_t capacity, const char* format, Args... args) {
    if (error != nullptr && capacity > 0) {
        std::snprintf(error, capacity, format, args...);
    }
    return false;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

struct Slice {
    const char* begin;
    const char* end;
    size_t size() const { return static_cast<size_t>(end - begin); }
    bool equals(const char* s) const {
        const size_t n = std::strlen(s);
        return n == size() && std::memcmp(begin, s, n) == 0;
    }
};

Slice trim(Slice s) {
    while (s.begin < s.end && isBlank(*s.begin)) {
        ++s.begin;
    }
    while (s.end > s.begin && isBlank(s.end[-1])) {
        --s.end;
    }
    return s;
}

// Copies a value into a short printable quote for error messages.
void quote(Slice s, char* buf, size_t cap) {
    size_t n = 0;
    for (const char* p = s.begin; p < s.end && n + 4 < cap; ++p) {
        const unsigned char c = static_cast<unsigned char>(*p);
        buf[n++] = (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '?';
    }
    if (s.size() + 4 >= cap && n + 3 < cap) {
        buf[n++] = '.';
        buf[n++] = '.';
        buf[n++] = '.';
    }
    buf[n] = '\0';
}

bool parseInt(Slice s, int64_t& out) {
    const char* b = s.begin;
    if (b < s.end && *b == '+') {
        ++b;
    }
    if (b == s.end) {
        return false;
    }
    const auto r = std::from_chars(b, s.end, out);
    return r.ec == std::errc() && r.ptr == s.end;
}

bool parseDouble(Slice s, double& out) {
    const char* b = s.begin;
    if (b < s.end && *b == '+') {
        ++b;
    }
    if (b == s.end) {
        return false;
    }
    const auto r = std::from_chars(b, s.end, out, std::chars_format::general);
    return r.ec == std::errc() && r.ptr == s.end && std::isfinite(out);
}

// "-y,-x,-z": three comma-separated signed axis names; blanks allowed around the tokens.
bool parseAxes(Slice s, AxisMap& out) {
    const char* p = s.begin;
    for (int i = 0; i < 3; ++i) {
        while (p < s.end && isBlank(*p)) {
            ++p;
        }
        int sign = 1;
        if (p < s.end && (*p == '+' || *p == '-')) {
            sign = (*p == '-') ? -1 : 1;
            ++p;
        }
        if (p >= s.end) {
            return false;
        }
        const char c = *p++;
        if (c == 'x' || c == 'X') {
            out.axis[i] = 0;
        } else if (c == 'y' || c == 'Y') {
            out.axis[i] = 1;
        } else if (c == 'z' || c == 'Z') {
            out.axis[i] = 2;
        } else {
            return false;
        }
        out.sign[i] = sign;
        while (p < s.end && isBlank(*p)) {
            ++p;
        }
        if (i < 2) {
            if (p >= s.end || *p != ',') {
                return false;
            }
            ++p;
        }
    }
    return p == s.end;
}

// Determinant of the signed permutation matrix.
int axisDeterminant(const AxisMap& a) {
    int m[3][3] = {};
    for (int i = 0; i < 3; ++i) {
        m[i][a.axis[i]] = a.sign[i];
    }
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

bool validClockId(int64_t id) {
    // Clocks that give timestamps of real time; the CPU-time clocks (2, 3) and unknown ids do
    // not.
    return id == 0 || id == 1 || (id >= 4 && id <= 9) || id == 11;
}

struct Range {
    double lo;
    double hi;
};

// Accepted range of every numeric key, indexed by KeyId (axes unused).
const Range kRanges[kKeyCount] = {
    {2, 65534},      // gridColumns
    {2, 65534},      // gridRows
    {100e6, 4e9},    // windowNs
    {0, 2e9},        // latencyNs
    {0, 1},          // debugFrameIndex
    {0, 11},         // clock ids: further checked by validClockId
    {0, 11},         //
    {10, 170},       // fovHorizontalDeg
    {10, 170},       // fovVerticalDeg
    {0.05, 0.95},    // principalPointX
    {0.05, 0.95},    // principalPointY
    {0, 200e6},      // readoutNs
    {-1e9, 1e9},     // gyroTimeOffsetNs
    {0, 0},          // gyroAxes
    {1.0, 4.0},      // overscan
    {50.0, 5000.0},  // gyroRateMaxHz
    {1e6, 1e9},      // gyroGapMaxNs
    {0, 1},          // cropAdaptive
    {1.0, 4.0},      // cropZoomMin; further limited to cropZoomMax
    {0.0, 4.0},      // cropZoomMax; 0 or at least 1, checked below
    {-1.0, 1.0},     // lensK1
    {-1.0, 1.0},     // lensK2
};

bool isIntegerKey(KeyId id) {
    switch (id) {
        case KeyId::GridColumns:
        case KeyId::GridRows:
        case KeyId::WindowNs:
        case KeyId::LatencyNs:
        case KeyId::DebugFrameIndex:
        case KeyId::ClockIdGyro:
        case KeyId::ClockIdFrame:
        case KeyId::ReadoutNs:
        case KeyId::GyroTimeOffsetNs:
        case KeyId::GyroGapMaxNs:
        case KeyId::CropAdaptive:
            return true;
        default:
            return false;
    }
}

void store(KeyId id, int64_t i, double d, StabConfig& c) {
    switch (id) {
        case KeyId::GridColumns:
            c.gridColumns = static_cast<uint32_t>(i);
            break;
        case KeyId::GridRows:
            c.gridRows = static_cast<uint32_t>(i);
            break;
        case KeyId::WindowNs:
            c.windowNs = i;
            break;
        case KeyId::LatencyNs:
            c.latencyNs = i;
            break;
        case KeyId::DebugFrameIndex:
            c.debugFrameIndex = static_cast<int32_t>(i);
            break;
        case KeyId::ClockIdGyro:
            c.clockIdGyro = static_cast<int32_t>(i);
            break;
        case KeyId::ClockIdFrame:
            c.clockIdFrame = static_cast<int32_t>(i);
            break;
        case KeyId::FovHorizontalDeg:
            c.fovHorizontalDeg = d;
            break;
        case KeyId::FovVerticalDeg:
            c.fovVerticalDeg = d;
            break;
        case KeyId::PrincipalPointX:
            c.principalPointX = d;
            break;
        case KeyId::PrincipalPointY:
            c.principalPointY = d;
            break;
        case KeyId::ReadoutNs:
            c.readoutNs = i;
            break;
        case KeyId::GyroTimeOffsetNs:
            c.gyroTimeOffsetNs = i;
            break;
        case KeyId::Overscan:
            c.overscan = d;
            break;
        case KeyId::GyroRateMaxHz:
            c.gyroRateMaxHz = d;
            break;
        case KeyId::GyroGapMaxNs:
            c.gyroGapMaxNs = i;
            break;
        case KeyId::CropAdaptive:
            c.cropAdaptive = static_cast<int32_t>(i);
            break;
        case KeyId::CropZoomMin:
            c.cropZoomMin = d;
            break;
        case KeyId::CropZoomMax:
            c.cropZoomMax = d;
            break;
        case KeyId::LensK1:
            c.lensK1 = d;
            break;
        case KeyId::LensK2:
            c.lensK2 = d;
            break;
        case KeyId::GyroAxes:
        case KeyId::Count:
            break;
    }
}

bool startsWith(Slice s, const char* prefix) {
    const size_t n = std::strlen(prefix);
    return s.size() >= n && std::memcmp(s.begin, prefix, n) == 0;
}

// Case-insensitive edit distance between the first 63 characters of `a` and `b`.
int editDistance(Slice a, const char* b) {
    constexpr size_t kMax = 63;
    const size_t n = a.size() < kMax ? a.size() : kMax;
    const size_t m = std::strlen(b) < kMax ? std::strlen(b) : kMax;
    int row[kMax + 1];
    for (size_t j = 0; j <= m; ++j) {
        row[j] = static_cast<int>(j);
    }
    for (size_t i = 1; i <= n; ++i) {
        int diag = row[0];
        row[0] = static_cast<int>(i);
        for (size_t j = 1; j <= m; ++j) {
            const int up = row[j];
            const bool same = std::tolower(static_cast<unsigned char>(a.begin[i - 1])) ==
                              std::tolower(static_cast<unsigned char>(b[j - 1]));
            int best = diag + (same ? 0 : 1);
            best = up + 1 < best ? up + 1 : best;
            best = row[j - 1] + 1 < best ? row[j - 1] + 1 : best;
            row[j] = best;
            diag = up;
        }
    }
    return row[m];
}

// The library key closest to an unknown one, or null when none is close. The part after the
// first dot is compared too, so that "gyro.axes" finds "vstab.gyroAxes".
const char* nearestKey(Slice key) {
    const char* best = nullptr;
    int bestDistance = 1 << 30;
    const char* dot = static_cast<const char*>(std::memchr(key.begin, '.', key.size()));
    for (size_t k = 0; k < kKeyCount; ++k) {
        const char* name = kKeys[k].name;
        int d = editDistance(key, name);
        if (dot != nullptr) {
            const Slice tail{dot + 1, key.end};
            const int dt = editDistance(tail, name + 6);  // after "vstab."
            d = dt < d ? dt : d;
        }
        if (d < bestDistance) {
            bestDistance = d;
            best = name;
        }
    }
    return bestDistance <= 4 ? best : nullptr;
}

}  // namespace

const ConfigKey* configKeys(size_t* count) {
    if (count != nullptr) {
        *count = kKeyCount;
    }
    return kKeys;
}

void ConfigWarnings::add(const char* format, ...) {
    ++count;
    if (length + 2 >= kCapacity) {
        return;
    }
    char* at = text + length;
    size_t room = kCapacity - length;
    if (length > 0) {
        *at++ = '\n';
        --room;
    }
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(at, room, format, args);
    va_end(args);
    if (n < 0) {
        *at = '\0';
        return;
    }
    length = static_cast<size_t>(at - text) + (static_cast<size_t>(n) < room ? n : room - 1);
}

bool parseConfig(const char* text, size_t length, StabConfig& out, char* error,
                 size_t errorCapacity, ConfigWarnings* warnings) {
    if (error != nullptr && errorCapacity > 0) {
        error[0] = '\0';
    }
    StabConfig cfg;
    if (text == nullptr) {
        length = 0;
    }
    const void* nul = length > 0 ? std::memchr(text, '\0', length) : nullptr;
    const char* end = nul != nullptr ? static_cast<const char*>(nul) : text + length;

    int seenLine[kKeyCount] = {};
    int lineNo = 0;
    char q[48];
    for (const char* p = text; p != nullptr && p < end;) {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', end - p));
        const char* lineEnd = nl != nullptr ? nl : end;
        const Slice line = trim({p, lineEnd});
        p = nl != nullptr ? nl + 1 : end;
        ++lineNo;
        if (line.size() == 0 || *line.begin == '#') {
            continue;
        }
        const char* eq = static_cast<const char*>(std::memchr(line.begin, '=', line.size()));
        if (eq == nullptr) {
            quote(line, q, sizeof q);
            return fail(error, errorCapacity, "Line %d (\"%s\") is not of the form key=value.",
                        lineNo, q);
        }
        const Slice key = trim({line.begin, eq});
        const Slice value = trim({eq + 1, line.end});
        size_t k = 0;
        while (k < kKeyCount && !key.equals(kKeys[k].name)) {
            ++k;
        }
        if (k == kKeyCount) {
            // The engine's own keys are not ours; anything else is read by nobody, which is
            // worth a word: a misspelt key silently leaves its default in place.
            if (warnings != nullptr && !startsWith(key, "native.")) {
                quote(key, q, sizeof q);
                const char* near = nearestKey(key);
                if (near != nullptr) {
                    warnings->add("Line %d: unknown key %s is ignored; did you mean %s?", lineNo, q,
                                  near);
                } else {
                    warnings->add("Line %d: unknown key %s is ignored.", lineNo, q);
                }
            }
            continue;
        }
        const KeyId id = static_cast<KeyId>(k);
        if (seenLine[k] != 0) {
            return fail(error, errorCapacity, "Key %s is given twice (lines %d and %d).",
                        kKeys[k].name, seenLine[k], lineNo);
        }
        seenLine[k] = lineNo;
        quote(value, q, sizeof q);
        if (id == KeyId::GyroAxes) {
            AxisMap a;
            if (!parseAxes(value, a)) {
                return fail(error, errorCapacity,
                            "Line %d: %s=\"%s\" is not three signed axes such as -y,-x,-z.", lineNo,
                            kKeys[k].name, q);
            }
            const bool distinct =
                a.axis[0] != a.axis[1] && a.axis[1] != a.axis[2] && a.axis[0] != a.axis[2];
            if (!distinct) {
                return fail(error, errorCapacity,
                            "Line %d: %s=\"%s\" uses a gyro axis twice; each must appear once.",
                            lineNo, kKeys[k].name, q);
            }
            if (axisDeterminant(a) != 1) {
                return fail(error, errorCapacity,
                            "Line %d: %s=\"%s\" is a mirror image, not a rotation; flip the sign "
                            "of one axis.",
                            lineNo, kKeys[k].name, q);
            }
            cfg.gyroAxes = a;
            continue;
        }
        int64_t iv = 0;
        double dv = 0.0;
        if (isIntegerKey(id)) {
            if (!parseInt(value, iv)) {
                return fail(error, errorCapacity, "Line %d: %s=\"%s\" is not an integer.", lineNo,
                            kKeys[k].name, q);
            }
            dv = static_cast<double>(iv);
        } else if (!parseDouble(value, dv)) {
            return fail(error, errorCapacity, "Line %d: %s=\"%s\" is not a finite number.", lineNo,
                        kKeys[k].name, q);
        }
        const Range r = kRanges[k];
        if (!(dv >= r.lo && dv <= r.hi)) {
            return fail(error, errorCapacity, "Line %d: %s=%s is outside %g..%g.", lineNo,
                        kKeys[k].name, q, r.lo, r.hi);
        }
        if ((id == KeyId::ClockIdGyro || id == KeyId::ClockIdFrame) && !validClockId(iv)) {
            return fail(error, errorCapacity,
                        "Line %d: %s=%s is not a clock that gives timestamps (use 0, 1, 4..9 or "
                        "11).",
                        lineNo, kKeys[k].name, q);
        }
        store(id, iv, dv, cfg);
    }

    if (cfg.cropZoomMax != 0.0 && cfg.cropZoomMax < 1.0) {
        return fail(error, errorCapacity,
                    "vstab.cropZoomMax=%g is neither 0 (the overscan) nor a magnification of at "
                    "least 1.",
                    cfg.cropZoomMax);
    }
    if (cfg.cropZoomMax == 0.0) {
        cfg.cropZoomMax = cfg.overscan;
    }
    if (cfg.cropZoomMin > cfg.cropZoomMax) {
        if (warnings != nullptr) {
            warnings->add("vstab.cropZoomMin=%g is larger than the largest zoom %g; using %g.",
                          cfg.cropZoomMin, cfg.cropZoomMax, cfg.cropZoomMax);
        }
        cfg.cropZoomMin = cfg.cropZoomMax;
    }
    const uint64_t meshVertices =
        (static_cast<uint64_t>(cfg.gridColumns) + 2) * (static_cast<uint64_t>(cfg.gridRows) + 2);
    if (meshVertices > 65536) {
        return fail(error, errorCapacity,
                    "A grid of %u x %u vertices with its border ring has %llu vertices; 16-bit "
                    "mesh indices allow at most 65536.",
                    cfg.gridColumns, cfg.gridRows, static_cast<unsigned long long>(meshVertices));
    }
    if (cfg.latencyNs < cfg.windowNs / 2) {
        return fail(error, errorCapacity,
                    "A smoothing window of %lld ms needs at least half of it, %lld ms, of "
                    "look-ahead, but vstab.latencyNs gives %lld ms.",
                    static_cast<long long>(cfg.windowNs / 1000000),
                    static_cast<long long>(cfg.windowNs / 2000000),
                    static_cast<long long>(cfg.latencyNs / 1000000));
    }
    out = cfg;
    return true;
}

}  // namespace vstab
