/*
 * Camera message, command and error codes, and the preview frame metadata record, as the
 * platform's system/camera.h defines them.
 *
 * This header replaces the platform's: that one also pulls in the gralloc HAL headers, which
 * the camera client does not need and the host does not have. The values are the platform's.
 */
#ifndef QLMR_HOST_SYSTEM_CAMERA_H
#define QLMR_HOST_SYSTEM_CAMERA_H

#include <stdint.h>
#include <sys/cdefs.h>
#include <sys/types.h>

#include <cutils/native_handle.h>

__BEGIN_DECLS

/* msgType of notify and data callbacks. */
enum {
    CAMERA_MSG_ERROR = 0x0001,
    CAMERA_MSG_SHUTTER = 0x0002,
    CAMERA_MSG_FOCUS = 0x0004,
    CAMERA_MSG_ZOOM = 0x0008,
    CAMERA_MSG_PREVIEW_FRAME = 0x0010,
    CAMERA_MSG_VIDEO_FRAME = 0x0020,
    CAMERA_MSG_POSTVIEW_FRAME = 0x0040,
    CAMERA_MSG_RAW_IMAGE = 0x0080,
    CAMERA_MSG_COMPRESSED_IMAGE = 0x0100,
    CAMERA_MSG_RAW_IMAGE_NOTIFY = 0x0200,
    CAMERA_MSG_PREVIEW_METADATA = 0x0400,
    CAMERA_MSG_FOCUS_MOVE = 0x0800,
    CAMERA_MSG_ALL_MSGS = 0xFFFF
};

/* ext1 of a CAMERA_MSG_ERROR notification. */
enum {
    CAMERA_ERROR_UNKNOWN = 1,
    CAMERA_ERROR_RELEASED = 2,
    CAMERA_ERROR_DISABLED = 3,
    CAMERA_ERROR_SERVER_DIED = 100
};

enum {
    CAMERA_FACING_BACK = 0,
    CAMERA_FACING_FRONT = 1,
    CAMERA_FACING_EXTERNAL = 2
};

typedef struct camera_face {
    int32_t rect[4];
    int32_t score;
    int32_t id;
    int32_t left_eye[2];
    int32_t right_eye[2];
    int32_t mouth[2];
} camera_face_t;

typedef struct camera_frame_metadata {
    int32_t number_of_faces;
    camera_face_t* faces;
} camera_frame_metadata_t;

__END_DECLS

#endif /* QLMR_HOST_SYSTEM_CAMERA_H */
