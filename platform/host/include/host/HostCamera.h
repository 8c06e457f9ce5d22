// Host camera devices: what stands behind android::Camera on Linux.
//
// A CameraDevice is one simulated camera. It owns the camera's parameters, a pool of recording
// buffers in shared memory and two threads that run while it records:
//  - the capture thread takes frames from a FrameSource, paces them (host/Pacing.h), renders
//    each into a free recording buffer and writes the frame's metadata words;
//  - the callback thread hands captured frames, in order, to the connected client's listener
//    (ICameraRecordingProxyListener::dataCallbackTimestamp, msgType CAMERA_MSG_VIDEO_FRAME).
// A frame stays out until the client calls Camera::releaseRecordingFrame(). The number of
// recording buffers is the most frames that can be out (captured or with the client) at once:
// in RealTime pacing a frame that finds every buffer taken is dropped, in AsFastAsConsumed
// pacing the capture thread waits for a buffer instead (the back-pressure that lets a replay
// run without losing a frame).
//
// Frame layout (NV21, as a Qualcomm camera writes recording frames): luma rows of
// pitch = width rounded up to a multiple of 128 bytes; the interleaved V/U plane starts at
// pitch x (height rounded up to a multiple of 32) and has height / 2 rows of the same pitch;
// the buffer is pitch x (alignedHeight + alignedHeight / 2) bytes. The first four bytes of the
// image are two little-endian 16-bit words written over the luma: the exposure time in
// microseconds, then the zoom factor times 100.
//
// Timestamps: frames carry the timestamps their source gives, unchanged. The synthetic source
// stamps them on CLOCK_MONOTONIC, as a device camera does (a client whose frame clock is
// CLOCK_BOOTTIME adds BOOTTIME - MONOTONIC itself); replay sources map recorded timestamps
// onto CLOCK_MONOTONIC through a ReplayClock.
#pragma once

#include <stdint.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <binder/MemoryBase.h>
#include <binder/MemoryHeapBase.h>
#include <camera/Camera.h>
#include <camera/CameraParameters.h>
#include <camera/ICameraRecordingProxyListener.h>

#include "host/Pacing.h"
#include "host/ReplayClock.h"

namespace host {

// Geometry of one recording frame in camera memory.
struct FrameLayout {
    int width = 0;
    int height = 0;
    int pitch = 0;            // bytes per row of either plane
    size_t chromaOffset = 0;  // start of the V/U plane, from the start of the frame
    size_t bytes = 0;         // whole buffer

    // Layout of a width x height frame; both must be positive.
    static FrameLayout forSize(int width, int height);
};

// What a source says about one frame before it is rendered.
struct FrameInfo {
    int64_t timestampNs = 0;  // capture time (CLOCK_MONOTONIC for live sources)
    uint16_t exposureUs = 0;  // written as the first metadata word
    uint16_t zoomX100 = 100;  // written as the second metadata word (100 = no zoom)
};

// Where a source renders a frame: the visible width x height of both planes. `chroma` points at
// height / 2 rows of width / 2 V,U byte pairs (NV21). Rows are `pitch` bytes apart.
struct FrameImage {
    int width = 0;
    int height = 0;
    int pitch = 0;
    uint8_t* luma = nullptr;
    uint8_t* chroma = nullptr;
};

// The recording a source is about to feed.
struct RecordingFormat {
    int width = 0;
    int height = 0;
    int framesPerSecond = 0;       // the camera's preview frame rate
    int64_t startMonotonicNs = 0;  // CLOCK_MONOTONIC when recording started
    uint64_t firstIndex = 0;       // index of the first frame this recording will ask for
};

// Produces the camera's frames. Frame indices count every frame asked for since the device was
// made (dropped ones included) and continue across recordings.
class FrameSource {
  public:
    virtual ~FrameSource() = default;

    // Called by startRecording() (on its caller's thread) before the capture thread starts.
    virtual void onRecordingStart(const RecordingFormat& format) { (void)format; }
    // Capture thread. Describes frame `index`. False: the stream has ended; the camera asks
    // for no more frames in this recording.
    virtual bool nextFrame(uint64_t index, FrameInfo& info) = 0;
    // Capture thread. Writes the picture of the frame just described. Not called for frames
    // that are dropped. False: the frame cannot be made; the camera logs it, notifies the
    // CameraListener (CAMERA_MSG_ERROR, CAMERA_ERROR_UNKNOWN) and ends the recording's stream.
    virtual bool render(uint64_t index, const FrameInfo& info, const FrameImage& image) = 0;
};

// Copies a tightly packed NV21 picture of image.width x image.height (luma, then V/U pairs)
// into `image`.
void copyPackedNv21(const uint8_t* nv21, const FrameImage& image);

struct SyntheticFrameOptions {
    int framesPerSecond = 0;  // 0: the camera's preview frame rate
    uint64_t frameLimit = 0;  // frames before the stream ends; 0: endless
    uint16_t exposureUs = 10000;
    uint16_t zoomX100 = 100;
};

// A moving test picture with known content: 32-pixel checker blocks with a 16-level ramp,
// drifting 2 pixels right and 1 pixel down per frame, and coloured bands in the chroma plane.
// Frame i of a recording is stamped startMonotonicNs + (i - firstIndex) x 1e9 / fps.
class SyntheticFrameSource : public FrameSource {
  public:
    explicit SyntheticFrameSource(SyntheticFrameOptions options = {});

    void onRecordingStart(const RecordingFormat& format) override;
    bool nextFrame(uint64_t index, FrameInfo& info) override;
    bool render(uint64_t index, const FrameInfo& info, const FrameImage& image) override;

    // The picture: luma at (x, y) and the V and U of the 2x2 block at chroma position (cx, cy)
    // of frame `index`. (The camera overwrites luma bytes 0..3 of row 0 with the metadata.)
    static uint8_t lumaAt(uint64_t index, int x, int y);
    static uint8_t chromaVAt(uint64_t index, int cx, int cy);
    static uint8_t chromaUAt(uint64_t index, int cx, int cy);

  private:
    const SyntheticFrameOptions mOptions;
    int64_t mPeriodNs = 0;  // set by onRecordingStart, read by the capture thread after
    int64_t mStartNs = 0;
    uint64_t mFirstIndex = 0;
    uint64_t mProduced = 0;  // capture thread only
};

// A recorded frame: its info and its picture as packed NV21 (width x height x 3 / 2 bytes), or
// no picture (rendered mid grey).
struct RecordedFrame {
    FrameInfo info;
    std::vector<uint8_t> nv21;
};

// Replays a list of frames once, in list order. With a ReplayClock the recorded timestamps
// are mapped onto CLOCK_MONOTONIC; without one they are delivered as recorded. The recording
// must be width x height (render() fails otherwise). Throws std::invalid_argument for a bad
// size or a picture of the wrong length.
class VectorFrameSource : public FrameSource {
  public:
    VectorFrameSource(int width, int height, std::vector<RecordedFrame> frames,
                      std::shared_ptr<ReplayClock> clock = nullptr);

    bool nextFrame(uint64_t index, FrameInfo& info) override;
    bool render(uint64_t index, const FrameInfo& info, const FrameImage& image) override;

    size_t size() const { return mFrames.size(); }

  private:
    const int mWidth;
    const int mHeight;
    const std::vector<RecordedFrame> mFrames;
    const std::shared_ptr<ReplayClock> mClock;
    size_t mNext = 0;  // capture thread only
    size_t mCurrent = 0;
};

// A source made of two functions, for tools: `next` describes frame `index` (false ends the
// stream), `render` draws it (false fails it). Both run on the capture thread.
class CallbackFrameSource : public FrameSource {
  public:
    using NextFn = std::function<bool(uint64_t index, FrameInfo& info)>;
    using RenderFn =
        std::function<bool(uint64_t index, const FrameInfo& info, const FrameImage& image)>;
    using StartFn = std::function<void(const RecordingFormat& format)>;

    CallbackFrameSource(NextFn next, RenderFn render, StartFn start = nullptr);

    void onRecordingStart(const RecordingFormat& format) override;
    bool nextFrame(uint64_t index, FrameInfo& info) override;
    bool render(uint64_t index, const FrameInfo& info, const FrameImage& image) override;

  private:
    NextFn mNext;
    RenderFn mRender;
    StartFn mStart;
};

// Capabilities and initial settings of a camera device.
struct CameraSetup {
    int cameraId = 0;
    // The 32-bit camera field kept in the sixth word of every android::Camera of this device.
    int32_t cameraField = 0;

    std::vector<android::Size> videoSizes{{3840, 2160}, {1920, 1080}, {1280, 720}, {640, 480}};
    std::vector<android::Size> previewSizes{{1920, 1080}, {1280, 720}, {640, 480}};
    std::vector<android::Size> pictureSizes{{4160, 3120}, {1920, 1080}};
    std::vector<int> frameRates{15, 24, 30, 60};
    std::vector<std::string> previewFormats{"yuv420sp", "yuv420p"};
    std::vector<std::string> pictureFormats{"jpeg"};

    android::Size videoSize{1920, 1080};
    android::Size previewSize{1920, 1080};
    android::Size pictureSize{4160, 3120};
    int frameRate = 30;
    std::string previewFormat = "yuv420sp";
    std::string pictureFormat = "jpeg";

    // Recording buffers: the most frames out (captured, or with the client) at once.
    int bufferCount = 6;
    Pacing pacing = Pacing::RealTime;
    // AsFastAsConsumed only: asked before each frame is rendered, and asked again every
    // millisecond until it returns true (or recording stops). Lets a tool hold the camera
    // back until its consumer is ready, e.g. until the engine's frame queue has room.
    // Called on the capture thread.
    std::function<bool(uint64_t index, int64_t timestampNs)> gate;

    // Null: a SyntheticFrameSource with default options.
    std::shared_ptr<FrameSource> source;
};

struct CameraCounters {
    uint64_t captured = 0;       // frames rendered into a recording buffer
    uint64_t delivered = 0;      // frames handed to a listener
    uint64_t released = 0;       // frames handed back with releaseRecordingFrame()
    uint64_t dropped = 0;        // RealTime: frames that found every recording buffer taken
    uint64_t discarded = 0;      // captured but never delivered: no listener, or stopped first
    uint64_t releaseErrors = 0;  // releases of frames that were not out
    uint64_t outstanding() const { return delivered - released; }
};

struct OutstandingFrame {
    uint64_t index;
    int64_t timestampNs;
};

class CameraDevice : public std::enable_shared_from_this<CameraDevice> {
  public:
    // Throws std::invalid_argument naming the problem when the setup is inconsistent (a size
    // with an odd or non-positive side, a current value missing from its list, a buffer count
    // outside 1..32, ...).
    static std::shared_ptr<CameraDevice> create(CameraSetup setup);
    ~CameraDevice();

    CameraDevice(const CameraDevice&) = delete;
    CameraDevice& operator=(const CameraDevice&) = delete;

    // A client connection; null while another client is connected.
    android::sp<android::Camera> connect();

    const CameraSetup& setup() const { return mSetup; }
    CameraCounters counters() const;
    // Frames delivered and not yet released, oldest first.
    std::vector<OutstandingFrame> outstandingFrames() const;
    bool recording() const;
    // True once the source has ended the stream of the current (or last) recording.
    bool sourceEnded() const;
    int64_t lastDeliveredTimestampNs() const;

    // Wait until `count` frames have been delivered in all; false on time-out.
    bool waitForDelivered(uint64_t count, std::chrono::milliseconds timeout) const;
    // Wait until the source has ended and every captured frame has been delivered or
    // discarded; false on time-out.
    bool waitUntilDrained(std::chrono::milliseconds timeout) const;

  private:
    friend class android::Camera;
    struct Slot;
    enum class SlotState;

    explicit CameraDevice(CameraSetup setup);

    // android::Camera's operations; `client` must be the connected client.
    void disconnect(const android::Camera* client);
    bool isClientLocked(const android::Camera* client) const;  // mMutex held
    bool isConnected(const android::Camera* client) const;
    android::status_t startPreview(const android::Camera* client);
    void stopPreview(const android::Camera* client);
    bool previewEnabled(const android::Camera* client) const;
    android::status_t startRecording(const android::Camera* client);
    void stopRecording(const android::Camera* client);
    bool recordingEnabled(const android::Camera* client) const;
    void releaseRecordingFrame(const android::sp<android::IMemory>& mem);
    android::status_t setParameters(const android::Camera* client, const android::String8& text);
    android::String8 getParameters(const android::Camera* client) const;
    android::status_t setVideoBufferMode(const android::Camera* client, int32_t mode);
    void setListener(const android::Camera* client, const android::sp<android::CameraListener>& l);
    void setRecordingProxyListener(const android::Camera* client,
                                   const android::sp<android::ICameraRecordingProxyListener>& l);

    void stopRecordingLocked(std::unique_lock<std::mutex>& lock);
    void joinThreads(std::unique_lock<std::mutex>& lock);
    bool allocateBuffersLocked(int width, int height);
    int freeSlotLocked() const;
    int oldestCapturedLocked() const;
    void runLoop(uint64_t session, bool capture);
    void captureLoop(uint64_t session, std::unique_lock<std::mutex>& lock);
    void callbackLoop(uint64_t session, std::unique_lock<std::mutex>& lock);

    const CameraSetup mSetup;

    mutable std::mutex mMutex;
    mutable std::condition_variable mChanged;  // any state change below
    const android::Camera* mClient = nullptr;
    android::CameraParameters mParams;
    android::sp<android::CameraListener> mListener;
    android::sp<android::ICameraRecordingProxyListener> mProxyListener;
    bool mPreview = false;
    bool mRecording = false;
    bool mStopRequested = false;
    bool mSourceEnded = false;
    int32_t mVideoBufferMode = 0;
    uint64_t mSession = 0;       // incremented by every startRecording
    uint64_t mNextIndex = 0;     // next frame index to ask the source for
    uint64_t mNextSequence = 0;  // capture order of filled buffers
    int64_t mLastDeliveredNs = 0;
    int mActiveLoops = 0;  // capture and callback loops that have not yet ended
    std::thread mCaptureThread;
    std::thread mCallbackThread;
    FrameLayout mLayout;
    android::sp<android::MemoryHeapBase> mHeap;
    std::vector<Slot> mSlots;
    CameraCounters mCounters;
};

// The host camera service: devices that android::Camera::connect() can reach by id.
// Registering an id again replaces the earlier device. Thread-safe.
void addCamera(std::shared_ptr<CameraDevice> device);
void removeCamera(int cameraId);
void removeAllCameras();
std::shared_ptr<CameraDevice> findCamera(int cameraId);
int32_t cameraCount();

}  // namespace host
