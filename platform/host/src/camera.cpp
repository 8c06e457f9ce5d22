// android::Camera on the host: a client connection to a host camera device.
#include <camera/Camera.h>
#include <camera/ICameraRecordingProxyListener.h>

#include "host/HostCamera.h"

namespace android {

IMPLEMENT_META_INTERFACE(CameraRecordingProxyListener,
                         "android.hardware.ICameraRecordingProxyListener")

Camera::Camera(std::shared_ptr<host::CameraDevice> device, int32_t cameraField)
    : mCameraField(cameraField), mDevice(std::move(device)) {
    // Neither member is read by name: the padding places the field in the sixth 32-bit word.
    static_cast<void>(mLayoutPad);
    static_cast<void>(mCameraField);
}

Camera::~Camera() {
    mDevice->disconnect(this);
}

int32_t Camera::getNumberOfCameras() {
    return host::cameraCount();
}

sp<Camera> Camera::connect(int cameraId, const String16& clientPackageName, int clientUid,
                           int clientPid) {
    static_cast<void>(clientPackageName);
    static_cast<void>(clientUid);
    static_cast<void>(clientPid);
    std::shared_ptr<host::CameraDevice> device = host::findCamera(cameraId);
    if (!device)
        return nullptr;
    return device->connect();
}

void Camera::disconnect() {
    mDevice->disconnect(this);
}

status_t Camera::getStatus() const {
    return mDevice->isConnected(this) ? OK : NO_INIT;
}

status_t Camera::startPreview() {
    return mDevice->startPreview(this);
}
void Camera::stopPreview() {
    mDevice->stopPreview(this);
}
bool Camera::previewEnabled() {
    return mDevice->previewEnabled(this);
}

status_t Camera::startRecording() {
    return mDevice->startRecording(this);
}
void Camera::stopRecording() {
    mDevice->stopRecording(this);
}
bool Camera::recordingEnabled() {
    return mDevice->recordingEnabled(this);
}

void Camera::releaseRecordingFrame(const sp<IMemory>& mem) {
    mDevice->releaseRecordingFrame(mem);
}

status_t Camera::setParameters(const String8& params) {
    return mDevice->setParameters(this, params);
}

String8 Camera::getParameters() const {
    return mDevice->getParameters(this);
}

status_t Camera::setVideoBufferMode(int32_t videoBufferMode) {
    return mDevice->setVideoBufferMode(this, videoBufferMode);
}

void Camera::setListener(const sp<CameraListener>& listener) {
    mDevice->setListener(this, listener);
}

void Camera::setRecordingProxyListener(const sp<ICameraRecordingProxyListener>& listener) {
    mDevice->setRecordingProxyListener(this, listener);
}

}  // namespace android
