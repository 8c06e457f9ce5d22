// Listeners and sources shared by the host camera tests.
#pragma once

#include <camera/Camera.h>
#include <camera/ICameraRecordingProxyListener.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "FinishesWithin.h"
#include "host/HostCamera.h"

namespace camtest {

using android::IMemory;
using android::sp;

// A recording proxy listener that hands each frame to a function (on the callback thread).
class ProxyListener : public android::ICameraRecordingProxyListener {
  public:
    using Handler = std::function<void(nsecs_t, int32_t, const sp<IMemory>&)>;
    explicit ProxyListener(Handler handler) : mHandler(std::move(handler)) {}

    void dataCallbackTimestamp(nsecs_t timestamp, int32_t msgType,
                               const sp<IMemory>& data) override {
        mHandler(timestamp, msgType, data);
    }
    void recordingFrameHandleCallbackTimestamp(nsecs_t, native_handle_t*) override {
        ADD_FAILURE() << "the host camera has no native-handle recording mode";
    }
    void recordingFrameHandleCallbackTimestampBatch(const std::vector<nsecs_t>&,
                                                    const std::vector<native_handle_t*>&) override {
        ADD_FAILURE() << "the host camera has no native-handle recording mode";
    }

  protected:
    android::IBinder* onAsBinder() override { return nullptr; }

  private:
    Handler mHandler;
};

// Frames as the tests see them: the index the source wrote into the image, and the timestamp.
struct SeenFrame {
    uint64_t index;
    int64_t timestampNs;
};

// Writes the frame index as 8 little-endian bytes into luma row 0 at x = 4..11 (after the
// metadata words), and mid grey elsewhere. Timestamps: 1 ms apart from 1 s.
inline std::shared_ptr<host::FrameSource> indexSource(uint64_t limit) {
    auto next = [limit](uint64_t index, host::FrameInfo& info) {
        if (index >= limit)
            return false;
        info.timestampNs = 1000000000LL + static_cast<int64_t>(index) * 1000000;
        info.exposureUs = 5000;
        info.zoomX100 = 100;
        return true;
    };
    auto render = [](uint64_t index, const host::FrameInfo&, const host::FrameImage& image) {
        for (int y = 0; y < image.height; ++y) {
            std::memset(image.luma + static_cast<size_t>(y) * image.pitch, 128, image.width);
        }
        std::memcpy(image.luma + 4, &index, sizeof(index));
        return true;
    };
    return std::make_shared<host::CallbackFrameSource>(next, render);
}

inline uint64_t frameIndex(const sp<IMemory>& data) {
    uint64_t index = 0;
    std::memcpy(&index, static_cast<const uint8_t*>(data->pointer()) + 4, sizeof(index));
    return index;
}

// A small camera (64x48) for tests about flow rather than pictures.
inline host::CameraSetup smallSetup(std::shared_ptr<host::FrameSource> source, host::Pacing pacing,
                                    int buffers) {
    host::CameraSetup setup;
    setup.videoSizes = {{64, 48}};
    setup.previewSizes = {{64, 48}};
    setup.pictureSizes = {{64, 48}};
    setup.videoSize = {64, 48};
    setup.previewSize = {64, 48};
    setup.pictureSize = {64, 48};
    setup.frameRates = {30, 120};
    setup.frameRate = 30;
    setup.bufferCount = buffers;
    setup.pacing = pacing;
    setup.source = std::move(source);
    return setup;
}

}  // namespace camtest
