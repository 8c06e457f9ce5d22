// The camera's video buffer modes, named as the platform's camera interface names them. The
// host has no remote camera interface: android::Camera talks to the host camera device
// directly, so only these constants remain.
#pragma once

namespace android {
namespace hardware {

class ICamera {
  public:
    enum {
        // Recording frames arrive as YUV data in shared memory (dataCallbackTimestamp).
        VIDEO_BUFFER_MODE_DATA_CALLBACK_YUV = 0,
        // Recording frames arrive as metadata pointing at native handles (not on the host).
        VIDEO_BUFFER_MODE_DATA_CALLBACK_METADATA = 1,
        // Recording frames go into a buffer queue (not on the host).
        VIDEO_BUFFER_MODE_BUFFER_QUEUE = 2,
    };

    ICamera() = delete;
};

}  // namespace hardware
}  // namespace android
