// The camera client: parameters, recording and the listeners that receive frames.
//
// On the host an android::Camera is a connection to a host camera device (host/HostCamera.h),
// which produces frames from a frame source on its own threads. Calls on a camera that has been
// disconnected return NO_INIT (or do nothing), except releaseRecordingFrame(), which still
// takes back frames handed out before the disconnection.
//
// Threads: every method may be called from any thread. Listener callbacks run on the camera's
// callback thread; releaseRecordingFrame() may be called from inside a callback.
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include <binder/IMemory.h>
#include <camera/ICameraRecordingProxyListener.h>
#include <camera/android/hardware/ICamera.h>
#include <cutils/native_handle.h>
#include <system/camera.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>
#include <utils/Timers.h>

namespace host {
class CameraDevice;
}

namespace android {

// Receives the camera's notifications and data when no recording proxy listener is set.
class CameraListener : virtual public RefBase {
  public:
    virtual void notify(int32_t msgType, int32_t ext1, int32_t ext2) = 0;
    virtual void postData(int32_t msgType, const sp<IMemory>& dataPtr,
                          camera_frame_metadata_t* metadata) = 0;
    virtual void postDataTimestamp(nsecs_t timestamp, int32_t msgType,
                                   const sp<IMemory>& dataPtr) = 0;
    virtual void postRecordingFrameHandleTimestamp(nsecs_t timestamp, native_handle_t* handle) = 0;
    virtual void postRecordingFrameHandleTimestampBatch(
        const std::vector<nsecs_t>& timestamps, const std::vector<native_handle_t*>& handles) = 0;
};

class Camera : public RefBase {
  public:
    enum {
        USE_CALLING_UID = -1,
        USE_CALLING_PID = -1,
    };

    // Byte offset of the camera field: the sixth 32-bit word of the object, where the host
    // keeps host::CameraSetup::cameraField so that code reading that word finds it.
    static constexpr size_t kCameraFieldOffset = 20;

    // Number of host camera devices registered (host::addCamera()).
    static int32_t getNumberOfCameras();
    // Connects to the host camera device registered under `cameraId`. Null when there is none
    // or another client holds it. The package, uid and pid are accepted and not checked.
    static sp<Camera> connect(int cameraId, const String16& clientPackageName, int clientUid,
                              int clientPid);

    ~Camera() override;

    // Stops recording and preview, drops the listeners and frees the device for another
    // client. Idempotent.
    void disconnect();
    // OK while connected, NO_INIT after disconnect().
    status_t getStatus() const;

    status_t startPreview();
    void stopPreview();
    bool previewEnabled();

    // Starts recording frames of the current video size to the listener. Starts the preview
    // too when it is not running. OK when already recording; INVALID_OPERATION when the video
    // buffer mode is not 0, or when frames of an earlier recording of another size are still
    // out. Frames then arrive on the camera's callback thread.
    status_t startRecording();
    // Stops recording. When it returns, no recording callback is running or will run (except
    // when it is called from inside a callback: then that callback is the last). Frames
    // already delivered stay the listener's until released. Idempotent.
    void stopRecording();
    bool recordingEnabled();
    // Hands a recording frame back to the camera. A frame the camera does not have out is
    // logged and counted as a release error.
    void releaseRecordingFrame(const sp<IMemory>& mem);

    // Applies "key=value;..." text. BAD_VALUE for malformed text, a size, frame rate or format
    // the camera does not list, or a size with an odd or non-positive side; INVALID_OPERATION
    // for a video size change while recording. Nothing is applied when it fails. The camera's
    // lists of supported values cannot be changed.
    status_t setParameters(const String8& params);
    String8 getParameters() const;

    // Only VIDEO_BUFFER_MODE_DATA_CALLBACK_YUV (0) exists on the host; other modes return
    // INVALID_OPERATION, as does a change while recording.
    status_t setVideoBufferMode(int32_t videoBufferMode);

    void setListener(const sp<CameraListener>& listener);
    // Recording frames go to this listener (replacing the previous one; null removes it).
    // Without one they go to the CameraListener's postDataTimestamp(), and without either the
    // camera takes each frame straight back (counted as discarded).
    void setRecordingProxyListener(const sp<ICameraRecordingProxyListener>& listener);

  private:
    friend class host::CameraDevice;
    explicit Camera(std::shared_ptr<host::CameraDevice> device, int32_t cameraField);

    static_assert(sizeof(RefBase) <= kCameraFieldOffset, "camera field would overlap RefBase");
    uint8_t mLayoutPad[kCameraFieldOffset - sizeof(RefBase)] = {};
    int32_t mCameraField;
    const std::shared_ptr<host::CameraDevice> mDevice;
};

}  // namespace android
