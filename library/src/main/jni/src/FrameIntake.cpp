// Frame intake: every camera recording frame enters here on the camera service's callback
// thread, is brought into the frame clock, filtered by time, copied into a free queue slot with
// its frame description and handed back to the camera. The camera's frame is released before
// the callback returns on every path but the set-up error of a slot without a buffer.
#include <cmath>
#include <cstring>

#include "Context.h"
#include "Log.h"
#include "cTTiming.h"

namespace {

// Longest exposure the library is told about, ns.
constexpr int64_t kMaxExposureNs = 300000000;
// Image data below this size is a metadata-only buffer, not a picture.
constexpr size_t kMinImageBytes = 1000;
// GRALLOC_USAGE_SW_WRITE_OFTEN | GRALLOC_USAGE_HW_TEXTURE.
constexpr uint32_t kSlotLockUsage = 0x130;

// Exposure of the previous frame, ns, before clamping. Lives for the whole process.
int64_t lastSeenExposureNs = 0;

uint32_t roundUp(uint32_t value, uint32_t multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

}  // namespace

unsigned char* memcpy_stride(unsigned char* dst, const unsigned char* src, unsigned int width,
                             unsigned int rows, unsigned int dstStride, unsigned int srcStride) {
    if (width == dstStride && width == srcStride) {
        std::memcpy(dst, src, static_cast<size_t>(rows) * width);
        return dst;
    }
    unsigned char* d = dst;
    for (unsigned int r = 0; r < rows; ++r) {
        std::memcpy(d, src, width);
        src += srcStride;
        d += dstStride;
    }
    return dst;
}

void Context::metaCallbackTimestamp(long long, float, VStabGridRotation, long long) {
    throw std::runtime_error("Make sure used timestamp is corrected for gyro frame offset");
}

void Context::dataCallbackTimestamp(long long timestamp, int msgType,
                                    const android::sp<android::IMemory>& data) {
    cTTiming timing("dataCallbackTimestamp()");
    auto* bytes = static_cast<unsigned char*>(data->pointer());
    int dataSize = static_cast<int>(data->size());

    if (eis_debug) {
        QLOGI("First byte from camera buffer: %d", bytes[0]);
        QLOGI("dataCallbackTimestamp (%lld, %d, %p %d)", timestamp, msgType, bytes, dataSize);
    }

    if (data->size() < kMinImageBytes) {
        uint32_t firstWord = 0;
        std::memcpy(&firstWord, bytes, std::min<size_t>(sizeof(firstWord), data->size()));
        QLOGI("%d %p %d", static_cast<int>(firstWord), bytes, dataSize);
        QLOGI("dataCallbackTimestamp2 (%lld, %d, %p %d)", timestamp, msgType, bytes, dataSize);
        QLOGW("[Error] dataCallbackTimestamp returned camera proxy buffer has metadata");
    }

    if (!Boottime_Monotonic_timerDiff_got && clockIdFrame == CLOCK_BOOTTIME) {
        // A failed measurement leaves the offset in store as it was, and still counts: it is
        // not tried again before the next resume.
        long long delta = Boottime_Monotonic_timerDiff;
        if (getDeltaTime(CLOCK_BOOTTIME, CLOCK_MONOTONIC, &delta))
            Boottime_Monotonic_timerDiff = delta;
        Boottime_Monotonic_timerDiff_got = 1;
        QLOGW("[VStab] got Boottime_Monotonic_timerDiff: %lld",
              static_cast<long long>(Boottime_Monotonic_timerDiff));
    }
    // Wraps around like the device's add instead of overflowing: the camera's timestamp is
    // not trusted to leave room for the offset.
    timestamp = static_cast<long long>(static_cast<uint64_t>(timestamp) +
                                       static_cast<uint64_t>(Boottime_Monotonic_timerDiff));
    if (eis_debug) {
        QLOGW("[VStab] Boottime_Monotonic_timerDiff: %lld",
              static_cast<long long>(Boottime_Monotonic_timerDiff));
    }
    timing("clocks");
    if (eis_debug)
        QLOGW("[VStab] Frame: %lld", timestamp);

    if (firstFrameTimestamp == 0) {
        QLOGW("[VStab] first frame timestamp %lld", timestamp);
        firstFrameTimestamp = timestamp;
    }

    // The product is formed in 32 bits and then widened, as the offset is a 32-bit µs value.
    int32_t startOffsetNs = static_cast<int32_t>(static_cast<uint32_t>(StartTimeOffsetUs) * 1000u);
    if (timestamp < startRecordTimestamp + static_cast<int64_t>(startOffsetNs)) {
        if (eis_debug) {
            QLOGW("[VStab] frame timestamp within StartTimeOffsetUs(%d), skip this frame",
                  StartTimeOffsetUs);
        }
        mCamera->releaseRecordingFrame(data);
        return;
    }

    if (lastFrameTimestamp == 0) {
        QLOGW("[VStab] first frame timestamp %lld", timestamp);
    } else if (lastFrameTimestamp >= timestamp) {
        if (eis_debug)
            QLOGW("[VStab] error, duplicate frame timestamp, ignore this frame");
        mCamera->releaseRecordingFrame(data);
        return;
    }
    lastFrameTimestamp = timestamp;

    VStabFrame* slot = nullptr;
    if (!frameQueue->pushLock(slot)) {
        mCamera->releaseRecordingFrame(data);
        QLOGW("[Warning] Dropping new frame, internal buffer queue is full");
        return;
    }
    if (slot->buffer.data == nullptr) {
        QLOGW("[Error] Empty GraphicBuffer found in frame queue");
        throw std::runtime_error("Empty GraphicBuffer found in frame queue");
    }

    VStabFrameInfo& info = slot->info;
    info.reserved1 = 0;
    info.recordSize = sizeof(VStabFrameInfo);
    info.recordKind = 2;
    info.timestampNs = timestamp;
    info.zoom = 1.0f;
    timing("pushFrame");

    android::sp<android::GraphicBuffer> gb = slot->buffer->buffer;
    void* vaddr = nullptr;
    gb->lock(kSlotLockUsage, &vaddr);
    timing("lock");

    // The camera writes exposure (µs) and zoom (x100) as little-endian 16-bit words at the
    // start of the image.
    uint16_t exposureUs = static_cast<uint16_t>(bytes[0] | (bytes[1] << 8));
    uint16_t zoomWord = static_cast<uint16_t>(bytes[2] | (bytes[3] << 8));
    int64_t exposureNs = static_cast<int64_t>(exposureUs) * 1000;
    float zoom = static_cast<float>(zoomWord) * 0.01f;
    info.scale = 1.0f;
    info.reserved0 = 0;

    if (lastSeenExposureNs != 0) {
        int32_t jump = std::abs(static_cast<int32_t>(static_cast<uint32_t>(lastSeenExposureNs) -
                                                     static_cast<uint32_t>(exposureNs)));
        if (jump > 0.05 * static_cast<double>(exposureNs)) {
            QLOGW(
                "[Warning] Big exposure jump or exposure not written in the frames, please "
                "capture in good light - through a window - and see whether this error will "
                "stay");
            if (exposureNs > kMaxExposureNs) {
                QLOGW(
                    "[Warning] VSTab frame has long exposure or exposure not written in the "
                    "frames, please capture in bright light - through a window - and see "
                    "whether this error will stay");
            }
        }
    }
    lastSeenExposureNs = exposureNs;

    if (zoom < 1.0f || zoom > 5.0f)
        QLOGW("[Warning] VStab frame zoom is not written in the frames");
    if (eis_debug) {
        QLOGW("Frame Metadata Zoom %.2f Exposure %lld", static_cast<double>(zoom),
              static_cast<long long>(exposureNs));
    }
    info.exposureNs = std::min(std::max(exposureNs, int64_t{0}), kMaxExposureNs);
    info.zoom = std::min(std::max(zoom, 1.0f), 5.0f);

    uint32_t width = gb->getWidth();
    uint32_t height = gb->getHeight();
    uint32_t stride = gb->getStride();
    if (eis_debug)
        QLOGW("[JJJ] W: %d S: %d H: %d", width, stride, height);
    uint32_t pitch = roundUp(width, 128);
    uint32_t uvOffset =
        cameraUvOffset == -1 ? pitch * roundUp(height, 32) : stride * height + cameraUvOffset;
    uint32_t uvOffsetGb = stride * height;
    if (eis_debug) {
        QLOGW("[JJJ] UVOffset: %d UVOffsetGB: %d", uvOffset, uvOffsetGb);
        QLOGW("[JJJ] dataPtr->size(): %d", dataSize);
        QLOGW("[MMM] w: %d, h: %d, ss: %d, sd: %d, dataPtr->size(): %d", width, height, pitch,
              stride, dataSize);
        QLOGW("camera buf=%p, eis buf=%p", bytes, vaddr);
    }

    auto* dst = static_cast<unsigned char*>(vaddr);
    memcpy_stride(dst, bytes, width, height, stride, pitch);
    memcpy_stride(dst + uvOffsetGb, bytes + uvOffset, width, height / 2, stride, pitch);
    timing("copy");

    gb->unlock();
    timing("unlock");
    frameQueue->unlock(slot);
    mCamera->releaseRecordingFrame(data);
    timing("release");
}

void MyCameraListener::notify(int32_t msgType, int32_t ext1, int32_t ext2) {
    QLOGI("notify(%d, %d, %d)", msgType, ext1, ext2);
}

void MyCameraListener::postData(int32_t msgType, const android::sp<android::IMemory>& dataPtr,
                                camera_frame_metadata_t*) {
    QLOGI("postData(%d, %p %d, ...)", msgType, dataPtr->pointer(),
          static_cast<int>(dataPtr->size()));
}

void MyCameraListener::postDataTimestamp(nsecs_t timestamp, int32_t msgType,
                                         const android::sp<android::IMemory>& dataPtr) {
    QLOGI("postDataTimestamp(%lld, %d, %p %d)", static_cast<long long>(timestamp), msgType,
          dataPtr->pointer(), static_cast<int>(dataPtr->size()));
}

void MyCameraListener::postRecordingFrameHandleTimestamp(nsecs_t timestamp, native_handle_t*) {
    QLOGI("postRecordingFrameHandleTimestamp(%lld)", static_cast<long long>(timestamp));
}

void MyCameraListener::postRecordingFrameHandleTimestampBatch(
    const std::vector<nsecs_t>&, const std::vector<native_handle_t*>&) {
    QLOGI("postRecordingFrameHandleTimestampBatch");
}

void MyCameraListener::dataCallbackTimestamp(nsecs_t timestamp, int32_t msgType,
                                             const android::sp<android::IMemory>& data) {
    context->dataCallbackTimestamp(timestamp, msgType, data);
}

void MyCameraListener::recordingFrameHandleCallbackTimestamp(nsecs_t, native_handle_t*) {
    QLOGI("recordingFrameHandleCallbackTimestamp");
}

void MyCameraListener::recordingFrameHandleCallbackTimestampBatch(
    const std::vector<nsecs_t>&, const std::vector<native_handle_t*>&) {
    QLOGI("recordingFrameHandleCallbackTimestampBatch");
}
