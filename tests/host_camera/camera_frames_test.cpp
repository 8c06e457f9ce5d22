// Recording frames: the memory layout the engine reads, and recordings that do not fit.
#include <camera/Camera.h>
#include <gtest/gtest.h>

#include <atomic>

#include "LogCapture.h"
#include "host/HostCamera.h"

TEST(FrameLayout, PitchChromaOffsetAndSize) {
    struct Case {
        int w, h, pitch;
        size_t chroma, bytes;
    };
    const Case cases[] = {
        {1920, 1080, 1920, 1920u * 1088, 1920u * (1088 + 544)},
        {1080, 1920, 1152, 1152u * 1920, 1152u * (1920 + 960)},
        {3840, 2160, 3840, 3840u * 2176, 3840u * (2176 + 1088)},
        {128, 32, 128, 128u * 32, 128u * 48},
        {130, 34, 256, 256u * 64, 256u * 96},
    };
    for (const Case& c : cases) {
        const host::FrameLayout l = host::FrameLayout::forSize(c.w, c.h);
        EXPECT_EQ(l.pitch, c.pitch) << c.w << "x" << c.h;
        EXPECT_EQ(l.chromaOffset, c.chroma) << c.w << "x" << c.h;
        EXPECT_EQ(l.bytes, c.bytes) << c.w << "x" << c.h;
    }
    EXPECT_THROW(host::FrameLayout::forSize(0, 1080), std::invalid_argument);
}

class ErrorListener : public android::CameraListener {
  public:
    void notify(int32_t msgType, int32_t ext1, int32_t) override {
        if (msgType == CAMERA_MSG_ERROR && ext1 == CAMERA_ERROR_UNKNOWN)
            ++errors;
    }
    void postData(int32_t, const android::sp<android::IMemory>&,
                  camera_frame_metadata_t*) override {}
    void postDataTimestamp(nsecs_t, int32_t, const android::sp<android::IMemory>&) override {
        ++frames;
    }
    void postRecordingFrameHandleTimestamp(nsecs_t, native_handle_t*) override {}
    void postRecordingFrameHandleTimestampBatch(const std::vector<nsecs_t>&,
                                                const std::vector<native_handle_t*>&) override {}
    std::atomic<int> errors{0};
    std::atomic<int> frames{0};
};

TEST(FrameSources, ARecordingOfTheWrongSizeFailsWithAnError) {
    LogCapture log;
    host::CameraSetup setup;  // a 64x48 camera fed 32x16 frames
    setup.videoSizes = setup.previewSizes = setup.pictureSizes = {{64, 48}};
    setup.videoSize = setup.previewSize = setup.pictureSize = {64, 48};
    setup.frameRates = {30, 120};
    setup.frameRate = 30;
    setup.bufferCount = 2;
    setup.pacing = host::Pacing::AsFastAsConsumed;
    std::vector<host::RecordedFrame> frames(3);
    setup.source = std::make_shared<host::VectorFrameSource>(32, 16, frames);
    auto device = host::CameraDevice::create(std::move(setup));
    auto camera = device->connect();
    android::sp<ErrorListener> listener = new ErrorListener;
    camera->setListener(listener);
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(std::chrono::seconds(10)));
    camera->stopRecording();
    EXPECT_EQ(listener->errors.load(), 1);
    EXPECT_EQ(listener->frames.load(), 0);
    EXPECT_EQ(log.countContaining("recorded frames are 32x16 but the camera records 64x48"), 1);

    EXPECT_THROW(host::VectorFrameSource(64, 48, {host::RecordedFrame{{}, {1, 2, 3}}}),
                 std::invalid_argument);
}
