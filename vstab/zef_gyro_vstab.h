/*
 * Interface of the gyro stabilization library libzef_gyro_vstab.so.
 *
 * Five plain C functions with unmangled names. The engine creates one handle per recording from
 * its configuration text, reads the library's configuration record once, feeds every gyro
 * sample and asks for the warp grid of every frame, then destroys the handle. The library is
 * not thread-safe: the engine serialises every call with one mutex.
 *
 * Record layouts are fixed (little-endian) and checked below at compile time for the ABI being
 * built, so that any implementation of this header interoperates with the engine.
 */
#ifndef ZEF_GYRO_VSTAB_H
#define ZEF_GYRO_VSTAB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define VSTAB_API __attribute__((visibility("default")))
#else
#define VSTAB_API
#endif

/* Warp statuses the engine tells apart (any value not listed is an error). */
#define VSTAB_STATUS_OK 0
/* No gyro information from before the frame's time: render the frame unwarped. */
#define VSTAB_STATUS_NO_GYRO_BEFORE_FRAME 1
#define VSTAB_STATUS_NO_GYRO_BEFORE_FRAME_ALT 26
/* Gyro samples do not yet reach far enough past the frame: keep it and retry later. */
#define VSTAB_STATUS_NEED_MORE_GYRO 2
#define VSTAB_STATUS_NEED_MORE_GYRO_ALT1 5
#define VSTAB_STATUS_NEED_MORE_GYRO_ALT2 25
#define VSTAB_STATUS_NEED_MORE_GYRO_ALT3 27
/* The frame lies before the start / after the end of the interpolation range: keep it. */
#define ZEF_GYRO_V_STAB_INTERP_BEFORE_BEGIN 20000
#define ZEF_GYRO_V_STAB_INTERP_AFTER_END 20001

/* Bit masks over the statuses 0..27, as the engine classifies them. */
#define VSTAB_STATUS_MASK_NEED_MORE_GYRO ((1u << 2) | (1u << 5) | (1u << 25) | (1u << 27))
#define VSTAB_STATUS_MASK_NO_GYRO_BEFORE ((1u << 1) | (1u << 26))

/* Frame orientation of the grid; carried through the engine unchanged, never interpreted. */
typedef enum VStabGridRotation {
    VSTAB_GRID_ROTATION_0 = 0,
    VSTAB_GRID_ROTATION_90 = 1,
    VSTAB_GRID_ROTATION_180 = 2,
    VSTAB_GRID_ROTATION_270 = 3
} VStabGridRotation;

/* Frame description: 40 bytes, 8-byte aligned, filled by the engine for every queued frame. */
typedef struct VStabFrameInfo {
    uint32_t recordSize;  /* always 40 */
    uint32_t recordKind;  /* always 2 */
    int64_t timestampNs;  /* frame timestamp in the clockIdFrame clock */
    int64_t exposureNs;   /* exposure time, 0..300000000 */
    float zoom;           /* zoom factor, 1.0..5.0 */
    float scale;          /* always 1.0 */
    uint32_t reserved0;   /* always 0 */
    uint32_t reserved1;   /* always 0 */
} VStabFrameInfo;

/* Output record of the warp call; owned by the engine. */
typedef struct _VStabOutput {
    uint32_t word0;       /* library's own; the engine neither sets nor reads it */
    uint32_t word1;       /* library's own; the engine neither sets nor reads it */
    float* warpVertices;  /* gridColumns x gridRows vertices (x, y, z), row-major, engine-owned */
} VStabOutput;

/*
 * The configuration record as the engine sees it. The record belongs to the library, which may
 * keep its own data in the reserved areas; the engine reads only the named fields, at fixed
 * byte offsets.
 */
typedef struct VStabConfigRecord {
    uint8_t reservedA[28];
    uint32_t gridColumns;    /* offset 28: vertices per grid row, >= 2 */
    uint32_t gridRows;       /* offset 32: rows of grid vertices, >= 2 */
    uint8_t reservedB[180];
    int64_t windowNs;        /* offset 216: smoothing window; the engine sizes its queue with half */
    uint8_t reservedC[16];
    int64_t latencyNs;       /* offset 240: lookahead the library needs past a frame */
    uint8_t reservedD[8];
    int32_t debugFrameIndex; /* offset 256: non-zero paints frame numbers into outputs */
    uint8_t reservedE[36];
    int32_t clockIdGyro;     /* offset 296: POSIX clock id of gyro timestamps */
    int32_t clockIdFrame;    /* offset 300: POSIX clock id of frame timestamps */
} VStabConfigRecord;

/* Creates a handle from the configuration text. `message` receives a readable sentence on
 * failure; *messageSize is its capacity on entry and the number of bytes written on return. */
VSTAB_API int vStabCreateUseCharCnfgBuff(void** handle, const char* configText, int configLength,
                                         char* message, unsigned int* messageSize);
/* The parsed configuration, valid until vStabDestroy; null for a bad handle. */
VSTAB_API VStabConfigRecord* vStabConfig(void* handle);
/* One gyro sample: rad/s about the sensor's x, y, z, timestamp in the clockIdGyro clock. */
VSTAB_API int vStabAddAngularVelocity(void* handle, long long timestampNs,
                                      const float* angularVelocity);
/* Warp grid of one frame (`frameInfo` points at a VStabFrameInfo) into output->warpVertices. */
VSTAB_API int vStabWarpGrid(void* handle, const void* frameInfo, VStabOutput* output);
/* Releases the handle and everything it holds, the configuration record included. */
VSTAB_API int vStabDestroy(void* handle);

#ifdef __cplusplus
}
#define VSTAB_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VSTAB_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

VSTAB_STATIC_ASSERT(sizeof(VStabFrameInfo) == 40, "frame info record is 40 bytes");
VSTAB_STATIC_ASSERT(offsetof(VStabFrameInfo, timestampNs) == 8, "timestamp at 8");
VSTAB_STATIC_ASSERT(offsetof(VStabFrameInfo, exposureNs) == 16, "exposure at 16");
VSTAB_STATIC_ASSERT(offsetof(VStabFrameInfo, zoom) == 24, "zoom at 24");
VSTAB_STATIC_ASSERT(offsetof(VStabFrameInfo, scale) == 28, "scale at 28");
VSTAB_STATIC_ASSERT(offsetof(VStabFrameInfo, reserved1) == 36, "last word at 36");
VSTAB_STATIC_ASSERT(offsetof(VStabOutput, warpVertices) == 8, "vertex pointer after two words");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, gridColumns) == 28, "gridColumns at 28");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, gridRows) == 32, "gridRows at 32");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, windowNs) == 216, "windowNs at 216");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, latencyNs) == 240, "latencyNs at 240");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, debugFrameIndex) == 256, "debugFrameIndex at 256");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, clockIdGyro) == 296, "clockIdGyro at 296");
VSTAB_STATIC_ASSERT(offsetof(VStabConfigRecord, clockIdFrame) == 300, "clockIdFrame at 300");
VSTAB_STATIC_ASSERT(sizeof(VStabGridRotation) == 4, "rotation passes as a 32-bit integer");

#endif /* ZEF_GYRO_VSTAB_H */
