// Host camera device: parameters, recording buffers, capture and callback threads.
//
// Lock: mMutex guards every member that changes after construction. It is never held while a
// listener or the frame source runs (the source's onRecordingStart() excepted), so listeners
// may call back into the camera, releaseRecordingFrame() included.
#include <algorithm>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "host/HostCamera.h"
#include "host_log.h"

namespace host {

using android::BAD_VALUE;
using android::CameraParameters;
using android::INVALID_OPERATION;
using android::NO_INIT;
using android::NO_MEMORY;
using android::OK;
using android::sp;
using android::status_t;
using android::String8;

// Free: can take the next frame. Capturing: the capture thread is rendering into it.
// Captured: waiting for the callback thread. Out: with the client until released.
enum class CameraDevice::SlotState { Free, Capturing, Captured, Out };

struct CameraDevice::Slot {
    sp<android::MemoryBase> memory;
    uint8_t* data = nullptr;
    SlotState state = SlotState::Free;
    uint64_t index = 0;
    uint64_t sequence = 0;
    int64_t timestampNs = 0;
};

namespace {

constexpr int kMaxBufferCount = 32;

// The device whose capture or callback loop runs on this thread, if any.
thread_local const CameraDevice* tlRecordingDevice = nullptr;

const char* orEmpty(const char* text) {
    return text != nullptr ? text : "";
}

std::string sizeText(const android::Size& s) {
    return std::to_string(s.width) + "x" + std::to_string(s.height);
}

std::string sizesText(const std::vector<android::Size>& sizes) {
    std::string text;
    for (const auto& s : sizes) {
        if (!text.empty())
            text += ',';
        text += sizeText(s);
    }
    return text;
}

template <typename T>
std::string listText(const std::vector<T>& values) {
    std::string text;
    for (const auto& v : values) {
        if (!text.empty())
            text += ',';
        if constexpr (std::is_same_v<T, std::string>) {
            text += v;
        } else {
            text += std::to_string(v);
        }
    }
    return text;
}

bool validSize(const android::Size& s) {
    return s.width > 0 && s.height > 0 && s.width % 2 == 0 && s.height % 2 == 0;
}

bool containsSize(const std::vector<android::Size>& sizes, int width, int height) {
    return std::any_of(sizes.begin(), sizes.end(), [&](const android::Size& s) {
        return s.width == width && s.height == height;
    });
}

void checkSizes(const char* what, const std::vector<android::Size>& sizes,
                const android::Size& current) {
    if (sizes.empty())
        throw std::invalid_argument(std::string("no ") + what + " sizes");
    for (const auto& s : sizes) {
        if (!validSize(s)) {
            throw std::invalid_argument(std::string(what) + " size " + sizeText(s) +
                                        " must have positive, even sides");
        }
    }
    if (!containsSize(sizes, current.width, current.height)) {
        throw std::invalid_argument(std::string("current ") + what + " size " + sizeText(current) +
                                    " is not among the supported ones");
    }
}

void checkText(const char* what, const std::string& value) {
    if (value.empty() || value.find_first_of("=;,") != std::string::npos) {
        throw std::invalid_argument(std::string(what) + " \"" + value +
                                    "\" must be non-empty without '=', ';' or ','");
    }
}

// Keys that describe the device; a client cannot change them.
const char* const kCapabilityKeys[] = {
    CameraParameters::KEY_SUPPORTED_PREVIEW_SIZES,
    CameraParameters::KEY_SUPPORTED_VIDEO_SIZES,
    CameraParameters::KEY_SUPPORTED_PICTURE_SIZES,
    CameraParameters::KEY_SUPPORTED_PREVIEW_FRAME_RATES,
    CameraParameters::KEY_SUPPORTED_PREVIEW_FPS_RANGE,
    CameraParameters::KEY_SUPPORTED_PREVIEW_FORMATS,
    CameraParameters::KEY_SUPPORTED_PICTURE_FORMATS,
    CameraParameters::KEY_PREFERRED_PREVIEW_SIZE_FOR_VIDEO,
    CameraParameters::KEY_VIDEO_FRAME_FORMAT,
    CameraParameters::KEY_VIDEO_STABILIZATION_SUPPORTED,
    CameraParameters::KEY_ZOOM_SUPPORTED,
};

bool inList(const char* list, const char* value) {
    if (list == nullptr || value == nullptr)
        return false;
    std::string all = std::string(",") + list + ",";
    return all.find(std::string(",") + value + ",") != std::string::npos;
}

// Checks a parameter set against the device's lists; returns an empty string when it is fine.
std::string checkParameters(const CameraParameters& p) {
    int w = 0;
    int h = 0;
    p.getVideoSize(&w, &h);
    if (w <= 0 || h <= 0 || w % 2 != 0 || h % 2 != 0 ||
        !inList(p.get(CameraParameters::KEY_SUPPORTED_VIDEO_SIZES),
                (std::to_string(w) + "x" + std::to_string(h)).c_str())) {
        return std::string("video-size \"") + orEmpty(p.get(CameraParameters::KEY_VIDEO_SIZE)) +
               "\" is not supported";
    }
    p.getPreviewSize(&w, &h);
    if (!inList(p.get(CameraParameters::KEY_SUPPORTED_PREVIEW_SIZES),
                (std::to_string(w) + "x" + std::to_string(h)).c_str())) {
        return std::string("preview-size \"") + orEmpty(p.get(CameraParameters::KEY_PREVIEW_SIZE)) +
               "\" is not supported";
    }
    p.getPictureSize(&w, &h);
    if (!inList(p.get(CameraParameters::KEY_SUPPORTED_PICTURE_SIZES),
                (std::to_string(w) + "x" + std::to_string(h)).c_str())) {
        return std::string("picture-size \"") + orEmpty(p.get(CameraParameters::KEY_PICTURE_SIZE)) +
               "\" is not supported";
    }
    const char* fps = p.get(CameraParameters::KEY_PREVIEW_FRAME_RATE);
    if (p.getPreviewFrameRate() <= 0 ||
        !inList(p.get(CameraParameters::KEY_SUPPORTED_PREVIEW_FRAME_RATES), fps)) {
        return std::string("preview-frame-rate \"") + orEmpty(fps) + "\" is not supported";
    }
    const char* format = p.getPreviewFormat();
    if (!inList(p.get(CameraParameters::KEY_SUPPORTED_PREVIEW_FORMATS), format)) {
        return std::string("preview-format \"") + orEmpty(format) + "\" is not supported";
    }
    format = p.getPictureFormat();
    if (!inList(p.get(CameraParameters::KEY_SUPPORTED_PICTURE_FORMATS), format)) {
        return std::string("picture-format \"") + orEmpty(format) + "\" is not supported";
    }
    return std::string();
}

}  // namespace

std::shared_ptr<CameraDevice> CameraDevice::create(CameraSetup setup) {
    checkSizes("video", setup.videoSizes, setup.videoSize);
    checkSizes("preview", setup.previewSizes, setup.previewSize);
    checkSizes("picture", setup.pictureSizes, setup.pictureSize);
    if (setup.frameRates.empty())
        throw std::invalid_argument("no frame rates");
    for (int fps : setup.frameRates) {
        if (fps <= 0 || fps > 1000) {
            throw std::invalid_argument("frame rate " + std::to_string(fps) +
                                        " is outside 1..1000");
        }
    }
    if (std::find(setup.frameRates.begin(), setup.frameRates.end(), setup.frameRate) ==
        setup.frameRates.end()) {
        throw std::invalid_argument("current frame rate " + std::to_string(setup.frameRate) +
                                    " is not among the supported ones");
    }
    for (const auto& f : setup.previewFormats)
        checkText("preview format", f);
    for (const auto& f : setup.pictureFormats)
        checkText("picture format", f);
    if (std::find(setup.previewFormats.begin(), setup.previewFormats.end(), setup.previewFormat) ==
        setup.previewFormats.end()) {
        throw std::invalid_argument("current preview format \"" + setup.previewFormat +
                                    "\" is not among the supported ones");
    }
    if (std::find(setup.pictureFormats.begin(), setup.pictureFormats.end(), setup.pictureFormat) ==
        setup.pictureFormats.end()) {
        throw std::invalid_argument("current picture format \"" + setup.pictureFormat +
                                    "\" is not among the supported ones");
    }
    if (setup.bufferCount < 1 || setup.bufferCount > kMaxBufferCount) {
        throw std::invalid_argument("buffer count " + std::to_string(setup.bufferCount) +
                                    " is outside 1.." + std::to_string(kMaxBufferCount));
    }
    if (!setup.source)
        setup.source = std::make_shared<SyntheticFrameSource>();
    return std::shared_ptr<CameraDevice>(new CameraDevice(std::move(setup)));
}

CameraDevice::CameraDevice(CameraSetup setup) : mSetup(std::move(setup)) {
    CameraParameters& p = mParams;
    p.set(CameraParameters::KEY_SUPPORTED_VIDEO_SIZES, sizesText(mSetup.videoSizes).c_str());
    p.set(CameraParameters::KEY_SUPPORTED_PREVIEW_SIZES, sizesText(mSetup.previewSizes).c_str());
    p.set(CameraParameters::KEY_SUPPORTED_PICTURE_SIZES, sizesText(mSetup.pictureSizes).c_str());
    p.set(CameraParameters::KEY_SUPPORTED_PREVIEW_FRAME_RATES, listText(mSetup.frameRates).c_str());
    std::string ranges;
    for (int fps : mSetup.frameRates) {
        if (!ranges.empty())
            ranges += ',';
        ranges += "(" + std::to_string(fps * 1000) + "," + std::to_string(fps * 1000) + ")";
    }
    p.set(CameraParameters::KEY_SUPPORTED_PREVIEW_FPS_RANGE, ranges.c_str());
    p.set(CameraParameters::KEY_SUPPORTED_PREVIEW_FORMATS, listText(mSetup.previewFormats).c_str());
    p.set(CameraParameters::KEY_SUPPORTED_PICTURE_FORMATS, listText(mSetup.pictureFormats).c_str());
    p.set(CameraParameters::KEY_PREFERRED_PREVIEW_SIZE_FOR_VIDEO,
          sizeText(mSetup.previewSize).c_str());
    p.set(CameraParameters::KEY_VIDEO_FRAME_FORMAT, CameraParameters::PIXEL_FORMAT_YUV420SP);
    p.set(CameraParameters::KEY_VIDEO_STABILIZATION_SUPPORTED, CameraParameters::FALSE);
    p.set(CameraParameters::KEY_ZOOM_SUPPORTED, CameraParameters::FALSE);

    p.setVideoSize(mSetup.videoSize.width, mSetup.videoSize.height);
    p.setPreviewSize(mSetup.previewSize.width, mSetup.previewSize.height);
    p.setPictureSize(mSetup.pictureSize.width, mSetup.pictureSize.height);
    p.setPreviewFrameRate(mSetup.frameRate);
    std::string range =
        std::to_string(mSetup.frameRate * 1000) + "," + std::to_string(mSetup.frameRate * 1000);
    p.set(CameraParameters::KEY_PREVIEW_FPS_RANGE, range.c_str());
    p.setPreviewFormat(mSetup.previewFormat.c_str());
    p.setPictureFormat(mSetup.pictureFormat.c_str());
    p.set(CameraParameters::KEY_RECORDING_HINT, CameraParameters::FALSE);
    p.set(CameraParameters::KEY_VIDEO_STABILIZATION, CameraParameters::FALSE);
    p.set(CameraParameters::KEY_ZOOM, 0);
}

CameraDevice::~CameraDevice() {
    std::unique_lock<std::mutex> lock(mMutex);
    stopRecordingLocked(lock);
    joinThreads(lock);
}

sp<android::Camera> CameraDevice::connect() {
    std::lock_guard<std::mutex> lock(mMutex);
    if (mClient != nullptr) {
        HOST_CAMERA_LOG(ANDROID_LOG_WARN, "camera %d is in use by another client", mSetup.cameraId);
        return nullptr;
    }
    sp<android::Camera> camera = new android::Camera(shared_from_this(), mSetup.cameraField);
    mClient = camera.get();
    return camera;
}

bool CameraDevice::isClientLocked(const android::Camera* client) const {
    return client != nullptr && client == mClient;
}

bool CameraDevice::isConnected(const android::Camera* client) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return isClientLocked(client);
}

void CameraDevice::disconnect(const android::Camera* client) {
    sp<android::CameraListener> listener;
    sp<android::ICameraRecordingProxyListener> proxy;
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!isClientLocked(client))
            return;
        stopRecordingLocked(lock);
        mPreview = false;
        listener = std::move(mListener);
        proxy = std::move(mProxyListener);
        mListener.clear();
        mProxyListener.clear();
        mClient = nullptr;
        mChanged.notify_all();
    }
    // The listeners are let go here, outside the lock: their destructors may call the camera.
}

status_t CameraDevice::startPreview(const android::Camera* client) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return NO_INIT;
    mPreview = true;
    return OK;
}

void CameraDevice::stopPreview(const android::Camera* client) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return;
    // Recording needs the preview running: stopping it stops the recording first.
    stopRecordingLocked(lock);
    mPreview = false;
}

bool CameraDevice::previewEnabled(const android::Camera* client) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return isClientLocked(client) && mPreview;
}

bool CameraDevice::allocateBuffersLocked(int width, int height) {
    FrameLayout layout = FrameLayout::forSize(width, height);
    if (mHeap != nullptr && layout.width == mLayout.width && layout.height == mLayout.height) {
        return true;
    }
    for (const Slot& s : mSlots) {
        if (s.state != SlotState::Free) {
            HOST_CAMERA_LOG(ANDROID_LOG_ERROR,
                            "cannot record %dx%d: frames of the %dx%d recording are still out",
                            width, height, mLayout.width, mLayout.height);
            return false;
        }
    }
    const size_t count = static_cast<size_t>(mSetup.bufferCount);
    sp<android::MemoryHeapBase> heap =
        new android::MemoryHeapBase(layout.bytes * count, 0, "host-camera-recording");
    if (heap->getBase() == nullptr)
        return false;
    std::vector<Slot> slots(count);
    for (size_t i = 0; i < count; ++i) {
        const ssize_t offset = static_cast<ssize_t>(i * layout.bytes);
        slots[i].memory = new android::MemoryBase(heap, offset, layout.bytes);
        slots[i].data = static_cast<uint8_t*>(heap->getBase()) + offset;
    }
    mHeap = heap;
    mSlots = std::move(slots);
    mLayout = layout;
    return true;
}

status_t CameraDevice::startRecording(const android::Camera* client) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return NO_INIT;
    if (mRecording)
        return OK;
    if (tlRecordingDevice == this) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "startRecording from a recording callback refused");
        return INVALID_OPERATION;
    }
    if (mVideoBufferMode != android::hardware::ICamera::VIDEO_BUFFER_MODE_DATA_CALLBACK_YUV) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "video buffer mode %d is not available on the host",
                        mVideoBufferMode);
        return INVALID_OPERATION;
    }
    // Threads of a recording stopped from inside its own callback are finished off here.
    joinThreads(lock);
    mChanged.wait(lock, [&] { return mActiveLoops == 0; });
    if (mRecording)
        return OK;  // another thread started recording while this one waited
    int width = 0;
    int height = 0;
    mParams.getVideoSize(&width, &height);
    if (!allocateBuffersLocked(width, height)) {
        return mHeap == nullptr ? NO_MEMORY : INVALID_OPERATION;
    }
    mPreview = true;
    mRecording = true;
    mStopRequested = false;
    mSourceEnded = false;
    const uint64_t session = ++mSession;

    RecordingFormat format;
    format.width = width;
    format.height = height;
    format.framesPerSecond = mParams.getPreviewFrameRate();
    format.startMonotonicNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now().time_since_epoch())
                                  .count();
    format.firstIndex = mNextIndex;
    mSetup.source->onRecordingStart(format);

    auto self = shared_from_this();
    mActiveLoops = 2;
    mCaptureThread = std::thread([self, session] { self->runLoop(session, true); });
    mCallbackThread = std::thread([self, session] { self->runLoop(session, false); });
    HOST_CAMERA_LOG(ANDROID_LOG_INFO, "camera %d recording %dx%d at %d fps, %d buffers, %s",
                    mSetup.cameraId, width, height, format.framesPerSecond, mSetup.bufferCount,
                    mSetup.pacing == Pacing::RealTime ? "real time" : "as fast as consumed");
    return OK;
}

void CameraDevice::stopRecording(const android::Camera* client) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return;
    stopRecordingLocked(lock);
}

void CameraDevice::stopRecordingLocked(std::unique_lock<std::mutex>& lock) {
    if (mRecording) {
        mRecording = false;
        mStopRequested = true;
        mChanged.notify_all();
    }
    joinThreads(lock);
    // Another thread may be joining the loops; wait for them to end, unless this thread runs
    // one of them (a listener stopping from its callback).
    if (tlRecordingDevice != this)
        mChanged.wait(lock, [&] { return mActiveLoops == 0; });
}

// Joins the recording threads, with the lock released meanwhile. A thread that calls this on
// itself (a listener stopping the recording from its callback) is detached instead: it leaves
// its loop as soon as the callback returns, touching nothing but its own reference.
void CameraDevice::joinThreads(std::unique_lock<std::mutex>& lock) {
    std::thread capture = std::move(mCaptureThread);
    std::thread callback = std::move(mCallbackThread);
    if (!capture.joinable() && !callback.joinable())
        return;
    lock.unlock();
    for (std::thread* t : {&capture, &callback}) {
        if (!t->joinable())
            continue;
        if (t->get_id() == std::this_thread::get_id()) {
            t->detach();
        } else {
            t->join();
        }
    }
    lock.lock();
    if (!mRecording) {
        // Frames captured but not delivered go back to the pool.
        for (Slot& s : mSlots) {
            if (s.state == SlotState::Captured) {
                s.state = SlotState::Free;
                ++mCounters.discarded;
            }
        }
        mChanged.notify_all();
    }
}

bool CameraDevice::recordingEnabled(const android::Camera* client) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return isClientLocked(client) && mRecording;
}

int CameraDevice::freeSlotLocked() const {
    for (size_t i = 0; i < mSlots.size(); ++i) {
        if (mSlots[i].state == SlotState::Free)
            return static_cast<int>(i);
    }
    return -1;
}

int CameraDevice::oldestCapturedLocked() const {
    int oldest = -1;
    for (size_t i = 0; i < mSlots.size(); ++i) {
        if (mSlots[i].state == SlotState::Captured &&
            (oldest < 0 || mSlots[i].sequence < mSlots[oldest].sequence)) {
            oldest = static_cast<int>(i);
        }
    }
    return oldest;
}

void CameraDevice::runLoop(uint64_t session, bool capture) {
    tlRecordingDevice = this;
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (capture) {
            captureLoop(session, lock);
        } else {
            callbackLoop(session, lock);
        }
        --mActiveLoops;
        mChanged.notify_all();
    }
    tlRecordingDevice = nullptr;
}

// Capture thread: asks the source for frames, paces them, renders each into a free buffer.
void CameraDevice::captureLoop(uint64_t session, std::unique_lock<std::mutex>& lock) {
    const bool realTime = mSetup.pacing == Pacing::RealTime;
    FrameSource& source = *mSetup.source;
    bool haveOrigin = false;
    std::chrono::steady_clock::time_point origin;
    int64_t originTimestampNs = 0;
    auto stopping = [&] { return mStopRequested || mSession != session; };
    while (!stopping()) {
        const uint64_t index = mNextIndex++;
        FrameLayout layout = mLayout;
        lock.unlock();
        FrameInfo info;
        const bool more = source.nextFrame(index, info);
        lock.lock();
        if (!more) {
            mSourceEnded = true;
            mChanged.notify_all();
            HOST_CAMERA_LOG(ANDROID_LOG_INFO, "camera %d: frame source ended after frame %llu",
                            mSetup.cameraId, static_cast<unsigned long long>(index));
            return;
        }
        int slot = -1;
        if (realTime) {
            if (!haveOrigin) {
                haveOrigin = true;
                origin = std::chrono::steady_clock::now();
                originTimestampNs = info.timestampNs;
            }
            const auto due =
                origin + std::chrono::nanoseconds(info.timestampNs - originTimestampNs);
            if (mChanged.wait_until(lock, due, stopping))
                break;
            slot = freeSlotLocked();
            if (slot < 0) {
                ++mCounters.dropped;
                mChanged.notify_all();
                continue;
            }
        } else {
            if (mSetup.gate) {
                bool open = false;
                while (!stopping()) {
                    lock.unlock();
                    open = mSetup.gate(index, info.timestampNs);
                    lock.lock();
                    if (open)
                        break;
                    mChanged.wait_for(lock, std::chrono::milliseconds(1), stopping);
                }
                if (!open)
                    break;
            }
            mChanged.wait(lock, [&] { return stopping() || freeSlotLocked() >= 0; });
            if (stopping())
                break;
            slot = freeSlotLocked();
        }
        Slot& s = mSlots[slot];
        s.state = SlotState::Capturing;
        uint8_t* data = s.data;
        lock.unlock();

        FrameImage image;
        image.width = layout.width;
        image.height = layout.height;
        image.pitch = layout.pitch;
        image.luma = data;
        image.chroma = data + layout.chromaOffset;
        const bool rendered = source.render(index, info, image);
        if (rendered) {
            // Metadata words over the first luma bytes, little-endian.
            data[0] = static_cast<uint8_t>(info.exposureUs & 0xFF);
            data[1] = static_cast<uint8_t>(info.exposureUs >> 8);
            data[2] = static_cast<uint8_t>(info.zoomX100 & 0xFF);
            data[3] = static_cast<uint8_t>(info.zoomX100 >> 8);
        }

        lock.lock();
        if (!rendered) {
            s.state = SlotState::Free;
            mSourceEnded = true;
            mChanged.notify_all();
            sp<android::CameraListener> listener = mListener;
            lock.unlock();
            HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "camera %d: frame %llu could not be rendered",
                            mSetup.cameraId, static_cast<unsigned long long>(index));
            if (listener != nullptr)
                listener->notify(CAMERA_MSG_ERROR, CAMERA_ERROR_UNKNOWN, 0);
            listener.clear();
            lock.lock();
            return;
        }
        ++mCounters.captured;
        if (stopping()) {
            s.state = SlotState::Free;
            ++mCounters.discarded;
        } else {
            s.state = SlotState::Captured;
            s.index = index;
            s.sequence = mNextSequence++;
            s.timestampNs = info.timestampNs;
        }
        mChanged.notify_all();
    }
}

// Callback thread: hands captured frames to the listener, oldest first.
void CameraDevice::callbackLoop(uint64_t session, std::unique_lock<std::mutex>& lock) {
    auto stopping = [&] { return mStopRequested || mSession != session; };
    while (true) {
        mChanged.wait(lock, [&] { return stopping() || oldestCapturedLocked() >= 0; });
        if (stopping())
            return;
        Slot& s = mSlots[oldestCapturedLocked()];
        sp<android::ICameraRecordingProxyListener> proxy = mProxyListener;
        sp<android::CameraListener> listener = mListener;
        if (proxy == nullptr && listener == nullptr) {
            s.state = SlotState::Free;
            ++mCounters.discarded;
            mChanged.notify_all();
            continue;
        }
        s.state = SlotState::Out;
        ++mCounters.delivered;
        mLastDeliveredNs = s.timestampNs;
        const int64_t timestampNs = s.timestampNs;
        sp<android::IMemory> memory = s.memory;
        mChanged.notify_all();
        lock.unlock();
        if (proxy != nullptr) {
            proxy->dataCallbackTimestamp(timestampNs, CAMERA_MSG_VIDEO_FRAME, memory);
        } else {
            listener->postDataTimestamp(timestampNs, CAMERA_MSG_VIDEO_FRAME, memory);
        }
        // Listener references are dropped before the lock is taken again.
        proxy.clear();
        listener.clear();
        memory.clear();
        lock.lock();
    }
}

void CameraDevice::releaseRecordingFrame(const sp<android::IMemory>& mem) {
    std::lock_guard<std::mutex> lock(mMutex);
    for (Slot& s : mSlots) {
        if (s.memory.get() == mem.get() && mem != nullptr) {
            if (s.state != SlotState::Out)
                break;
            s.state = SlotState::Free;
            ++mCounters.released;
            mChanged.notify_all();
            return;
        }
    }
    ++mCounters.releaseErrors;
    HOST_CAMERA_LOG(ANDROID_LOG_ERROR,
                    "releaseRecordingFrame(%p): not a recording frame that is out (unknown, or "
                    "released already)",
                    static_cast<const void*>(mem.get()));
}

status_t CameraDevice::setParameters(const android::Camera* client, const String8& text) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return NO_INIT;
    // Reject malformed text as a whole: every non-empty entry needs a key and an '='.
    const char* p = text.string();
    const char* end = p + text.length();
    while (p < end) {
        const char* semicolon = std::find(p, end, ';');
        if (semicolon != p) {
            const char* eq = std::find(p, semicolon, '=');
            if (eq == semicolon || eq == p) {
                HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "setParameters: malformed entry \"%.*s\"",
                                static_cast<int>(semicolon - p), p);
                return BAD_VALUE;
            }
        }
        p = semicolon + 1;
    }
    CameraParameters next(text);
    for (const char* key : kCapabilityKeys) {
        const char* value = mParams.get(key);
        if (value != nullptr) {
            next.set(key, value);
        } else {
            next.remove(key);
        }
    }
    std::string problem = checkParameters(next);
    if (!problem.empty()) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "setParameters: %s", problem.c_str());
        return BAD_VALUE;
    }
    if (mRecording) {
        int w = 0;
        int h = 0;
        next.getVideoSize(&w, &h);
        if (w != mLayout.width || h != mLayout.height) {
            HOST_CAMERA_LOG(ANDROID_LOG_ERROR,
                            "setParameters: video-size cannot change while recording");
            return INVALID_OPERATION;
        }
    }
    mParams = next;
    return OK;
}

String8 CameraDevice::getParameters(const android::Camera* client) const {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return String8();
    return mParams.flatten();
}

status_t CameraDevice::setVideoBufferMode(const android::Camera* client, int32_t mode) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return NO_INIT;
    if (mode != android::hardware::ICamera::VIDEO_BUFFER_MODE_DATA_CALLBACK_YUV) {
        HOST_CAMERA_LOG(ANDROID_LOG_ERROR, "video buffer mode %d is not available on the host",
                        mode);
        return INVALID_OPERATION;
    }
    if (mRecording && mode != mVideoBufferMode)
        return INVALID_OPERATION;
    mVideoBufferMode = mode;
    return OK;
}

void CameraDevice::setListener(const android::Camera* client,
                               const sp<android::CameraListener>& l) {
    sp<android::CameraListener> old;
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return;
    old = std::move(mListener);
    mListener = l;
    // `old` is declared before the guard, so it is let go after the lock is released.
}

void CameraDevice::setRecordingProxyListener(const android::Camera* client,
                                             const sp<android::ICameraRecordingProxyListener>& l) {
    sp<android::ICameraRecordingProxyListener> old;
    std::lock_guard<std::mutex> lock(mMutex);
    if (!isClientLocked(client))
        return;
    old = std::move(mProxyListener);
    mProxyListener = l;
}

CameraCounters CameraDevice::counters() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCounters;
}

std::vector<OutstandingFrame> CameraDevice::outstandingFrames() const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::pair<uint64_t, OutstandingFrame>> out;
    for (const Slot& s : mSlots) {
        if (s.state == SlotState::Out)
            out.push_back({s.sequence, {s.index, s.timestampNs}});
    }
    std::sort(out.begin(), out.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<OutstandingFrame> frames;
    for (const auto& o : out)
        frames.push_back(o.second);
    return frames;
}

bool CameraDevice::recording() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mRecording;
}

bool CameraDevice::sourceEnded() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mSourceEnded;
}

int64_t CameraDevice::lastDeliveredTimestampNs() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mLastDeliveredNs;
}

bool CameraDevice::waitForDelivered(uint64_t count, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, timeout, [&] { return mCounters.delivered >= count; });
}

bool CameraDevice::waitUntilDrained(std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_for(lock, timeout, [&] {
        if (!mSourceEnded)
            return false;
        return std::none_of(mSlots.begin(), mSlots.end(), [](const Slot& s) {
            return s.state == SlotState::Captured || s.state == SlotState::Capturing;
        });
    });
}

// ---- camera service ----

namespace {

struct Registry {
    std::mutex mutex;
    std::map<int, std::shared_ptr<CameraDevice>> devices;
};

Registry& registry() {
    static Registry* r = new Registry;  // never destroyed: cameras may outlive static teardown
    return *r;
}

}  // namespace

void addCamera(std::shared_ptr<CameraDevice> device) {
    if (!device)
        throw std::invalid_argument("addCamera: null device");
    Registry& r = registry();
    std::shared_ptr<CameraDevice> old;
    std::lock_guard<std::mutex> lock(r.mutex);
    old = std::move(r.devices[device->setup().cameraId]);
    r.devices[device->setup().cameraId] = std::move(device);
}

void removeCamera(int cameraId) {
    Registry& r = registry();
    std::shared_ptr<CameraDevice> old;
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.devices.find(cameraId);
    if (it == r.devices.end())
        return;
    old = std::move(it->second);
    r.devices.erase(it);
}

void removeAllCameras() {
    Registry& r = registry();
    std::map<int, std::shared_ptr<CameraDevice>> old;
    std::lock_guard<std::mutex> lock(r.mutex);
    old.swap(r.devices);
}

std::shared_ptr<CameraDevice> findCamera(int cameraId) {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    auto it = r.devices.find(cameraId);
    return it == r.devices.end() ? nullptr : it->second;
}

int32_t cameraCount() {
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    return static_cast<int32_t>(r.devices.size());
}

}  // namespace host
