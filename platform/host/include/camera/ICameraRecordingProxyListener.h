// The listener through which a recording client (such as a video encoder) receives the
// camera's recording frames.
//
// Frames arrive on the camera's callback thread, one at a time, in capture order. Each frame
// stays the listener's until it hands it back with Camera::releaseRecordingFrame(); the camera
// has a fixed number of recording buffers, so frames that are kept stall or drop later ones.
#pragma once

#include <stdint.h>

#include <vector>

#include <binder/IInterface.h>
#include <binder/IMemory.h>
#include <cutils/native_handle.h>
#include <utils/RefBase.h>
#include <utils/Timers.h>

namespace android {

class ICameraRecordingProxyListener : public IInterface {
  public:
    DECLARE_META_INTERFACE(CameraRecordingProxyListener)

    // One YUV recording frame (video buffer mode 0). `timestamp` is the capture time in
    // nanoseconds, `msgType` is CAMERA_MSG_VIDEO_FRAME, `data` the frame's bytes.
    virtual void dataCallbackTimestamp(nsecs_t timestamp, int32_t msgType,
                                       const sp<IMemory>& data) = 0;

    // Recording frames as native handles (metadata video buffer mode). The host camera does
    // not offer that mode and never calls these.
    virtual void recordingFrameHandleCallbackTimestamp(nsecs_t timestamp,
                                                       native_handle_t* handle) = 0;
    virtual void recordingFrameHandleCallbackTimestampBatch(
        const std::vector<nsecs_t>& timestamps, const std::vector<native_handle_t*>& handles) = 0;
};

}  // namespace android
