// Recording frames: memory layout, metadata words, picture content, order and timestamps.
#include <time.h>

#include <atomic>
#include <thread>

#include "CameraTestSupport.h"
#include "LogCapture.h"

using camtest::ProxyListener;
using camtest::SeenFrame;
using host::CameraDevice;
using host::FrameLayout;
using host::SyntheticFrameSource;

namespace {

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

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
        FrameLayout l = FrameLayout::forSize(c.w, c.h);
        EXPECT_EQ(l.pitch, c.pitch) << c.w << "x" << c.h;
        EXPECT_EQ(l.chromaOffset, c.chroma) << c.w << "x" << c.h;
        EXPECT_EQ(l.bytes, c.bytes) << c.w << "x" << c.h;
    }
    EXPECT_THROW(FrameLayout::forSize(0, 1080), std::invalid_argument);
}

// One recording of two synthetic frames at the given size; every byte the engine reads is
// checked inside the callback, while the frame is the listener's.
struct FrameCase {
    android::Size size;
    int pitch;            // expected row pitch
    size_t chromaOffset;  // expected start of the V/U plane
};

class FrameContent : public ::testing::TestWithParam<FrameCase> {};

TEST_P(FrameContent, LayoutMetadataAndPicture) {
    const android::Size size = GetParam().size;
    host::SyntheticFrameOptions options;
    options.frameLimit = 2;
    options.exposureUs = 400;
    options.zoomX100 = 650;
    host::CameraSetup setup;
    setup.videoSizes = {size};
    setup.videoSize = size;
    setup.pacing = host::Pacing::AsFastAsConsumed;
    setup.source = std::make_shared<SyntheticFrameSource>(options);
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    FrameLayout layout;
    layout.pitch = GetParam().pitch;
    layout.chromaOffset = GetParam().chromaOffset;
    layout.bytes = layout.chromaOffset + layout.pitch * ((size.height + 31) / 32 * 16);

    std::atomic<int> seen{0};
    auto check = [&](nsecs_t, int32_t msgType, const android::sp<android::IMemory>& data) {
        const uint64_t index = static_cast<uint64_t>(seen.load());
        EXPECT_EQ(msgType, CAMERA_MSG_VIDEO_FRAME);
        ASSERT_EQ(data->size(), layout.bytes);
        const uint8_t* p = static_cast<const uint8_t*>(data->pointer());
        // Exposure 400 us and zoom 6.50, little-endian, over the first luma bytes.
        EXPECT_EQ(p[0], 400 & 0xFF);
        EXPECT_EQ(p[1], 400 >> 8);
        EXPECT_EQ(p[2], 650 & 0xFF);
        EXPECT_EQ(p[3], 650 >> 8);
        const int w = size.width;
        const int h = size.height;
        const int xs[] = {4, 5, 31, 32, w / 2, w - 1};
        const int ys[] = {0, 1, 33, h / 2, h - 1};
        for (int y : ys) {
            for (int x : xs) {
                ASSERT_EQ(p[static_cast<size_t>(y) * layout.pitch + x],
                          SyntheticFrameSource::lumaAt(index, x, y))
                    << "luma " << x << "," << y;
            }
        }
        const uint8_t* uv = p + layout.chromaOffset;
        for (int cy : {0, h / 4, h / 2 - 1}) {
            for (int cx : {0, w / 4, w / 2 - 1}) {
                const uint8_t* pair = uv + static_cast<size_t>(cy) * layout.pitch + 2 * cx;
                ASSERT_EQ(pair[0], SyntheticFrameSource::chromaVAt(index, cx, cy));
                ASSERT_EQ(pair[1], SyntheticFrameSource::chromaUAt(index, cx, cy));
            }
        }
        // Row padding is never written.
        if (layout.pitch > w) {
            EXPECT_EQ(p[static_cast<size_t>(h - 1) * layout.pitch + w], 0);
        }
        ++seen;
        camera->releaseRecordingFrame(data);
    };
    camera->setRecordingProxyListener(new ProxyListener(check));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(std::chrono::seconds(60)));
    camera->stopRecording();
    EXPECT_EQ(seen.load(), 2);
    // The picture drifts between frames.
    EXPECT_NE(SyntheticFrameSource::lumaAt(0, 40, 40), SyntheticFrameSource::lumaAt(1, 40, 40));
}

INSTANTIATE_TEST_SUITE_P(Widths, FrameContent,
                         ::testing::Values(FrameCase{{1920, 1080}, 1920, 1920u * 1088},
                                           FrameCase{{1080, 1920}, 1152, 1152u * 1920},
                                           FrameCase{{3840, 2160}, 3840, 3840u * 2176}),
                         [](const ::testing::TestParamInfo<FrameCase>& info) {
                             return std::to_string(info.param.size.width) + "x" +
                                    std::to_string(info.param.size.height);
                         });

TEST(FrameTimestamps, SyntheticFramesAreStampedOnMonotonicAtTheFrameRate) {
    host::SyntheticFrameOptions options;
    options.frameLimit = 20;
    auto setup = camtest::smallSetup(std::make_shared<SyntheticFrameSource>(options),
                                     host::Pacing::AsFastAsConsumed, 4);
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    std::mutex mutex;
    std::vector<int64_t> stamps;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t ts, int32_t, const auto& data) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            stamps.push_back(ts);
        }
        camera->releaseRecordingFrame(data);
    }));
    const int64_t before = nowNs(CLOCK_MONOTONIC);
    ASSERT_EQ(camera->startRecording(), android::OK);
    const int64_t after = nowNs(CLOCK_MONOTONIC);
    ASSERT_TRUE(device->waitUntilDrained(std::chrono::seconds(10)));
    camera->stopRecording();
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(stamps.size(), 20u);
    EXPECT_GE(stamps[0], before);
    EXPECT_LE(stamps[0], after);
    for (size_t i = 1; i < stamps.size(); ++i)
        EXPECT_EQ(stamps[i] - stamps[i - 1], 33333333);
    EXPECT_EQ(device->lastDeliveredTimestampNs(), stamps.back());
}

TEST(FrameTimestamps, RecordedFramesKeepTheirOrderAndTimestamps) {
    std::vector<host::RecordedFrame> frames(5);
    const int64_t recorded[] = {5000, 4000, 4000, 9000, 7000};  // out of order on purpose
    for (size_t i = 0; i < frames.size(); ++i) {
        frames[i].info.timestampNs = recorded[i];
        frames[i].info.exposureUs = static_cast<uint16_t>(1000 + i);
        frames[i].nv21.assign(64 * 48 * 3 / 2, static_cast<uint8_t>(10 * i));
    }
    auto clock = std::make_shared<host::ReplayClock>(4000);
    auto source = std::make_shared<host::VectorFrameSource>(64, 48, frames, clock);
    auto device =
        CameraDevice::create(camtest::smallSetup(source, host::Pacing::AsFastAsConsumed, 2));
    auto camera = device->connect();
    std::vector<SeenFrame> seen;
    std::vector<int> exposures;
    std::vector<int> pixels;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t ts, int32_t, const auto& data) {
        const uint8_t* p = static_cast<const uint8_t*>(data->pointer());
        seen.push_back({0, ts});
        exposures.push_back(p[0] | p[1] << 8);
        pixels.push_back(p[FrameLayout::forSize(64, 48).chromaOffset + 5]);
        camera->releaseRecordingFrame(data);
    }));
    const int64_t before = nowNs(CLOCK_MONOTONIC);
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(std::chrono::seconds(10)));
    camera->stopRecording();
    ASSERT_EQ(seen.size(), 5u);
    const int64_t anchor = clock->toHost(4000, CLOCK_MONOTONIC);
    EXPECT_GE(anchor, before);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].timestampNs, anchor + recorded[i] - 4000) << i;
        EXPECT_EQ(exposures[i], static_cast<int>(1000 + i));
        EXPECT_EQ(pixels[i], static_cast<int>(10 * i));
    }
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
    std::vector<host::RecordedFrame> frames(3);
    auto source = std::make_shared<host::VectorFrameSource>(32, 16, frames);
    auto device =
        CameraDevice::create(camtest::smallSetup(source, host::Pacing::AsFastAsConsumed, 2));
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
