// Recording control, pacing and back-pressure, frame accounting, listeners, and the camera
// service.
#include <atomic>
#include <deque>
#include <thread>

#include "CameraTestSupport.h"
#include "LogCapture.h"
#include "host/JavaCameraContext.h"

using camtest::frameIndex;
using camtest::indexSource;
using camtest::ProxyListener;
using camtest::smallSetup;
using host::CameraDevice;
using host::Pacing;
using namespace std::chrono_literals;

TEST(CameraPacing, BackPressureLosesNoFrameToASlowConsumer) {
    auto device = CameraDevice::create(smallSetup(indexSource(60), Pacing::AsFastAsConsumed, 2));
    auto camera = device->connect();
    std::vector<uint64_t> indices;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
        indices.push_back(frameIndex(data));
        std::this_thread::sleep_for(2ms);  // slower than the source by far
        camera->releaseRecordingFrame(data);
    }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(20s));
    camera->stopRecording();
    const host::CameraCounters c = device->counters();
    EXPECT_EQ(c.dropped, 0u);
    EXPECT_EQ(c.discarded, 0u);
    EXPECT_EQ(c.delivered, 60u);
    ASSERT_EQ(indices.size(), 60u);
    for (uint64_t i = 0; i < indices.size(); ++i)
        ASSERT_EQ(indices[i], i);
}

TEST(CameraPacing, GateHoldsTheCameraBack) {
    auto setup = smallSetup(indexSource(1000), Pacing::AsFastAsConsumed, 4);
    std::atomic<uint64_t> allowed{5};
    setup.gate = [&](uint64_t index, int64_t) { return index < allowed.load(); };
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    camera->setRecordingProxyListener(new ProxyListener(
        [&](nsecs_t, int32_t, const auto& data) { camera->releaseRecordingFrame(data); }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitForDelivered(5, 10s));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(device->counters().delivered, 5u);
    allowed = 12;
    ASSERT_TRUE(device->waitForDelivered(12, 10s));
    // Stopping does not wait for a gate that stays closed.
    EXPECT_TRUE(finishesWithin(5s, [&] { camera->stopRecording(); }));
    EXPECT_EQ(device->counters().delivered, 12u);
}

TEST(CameraPacing, RealTimeDropsFramesThatFindEveryBufferTaken) {
    auto setup = smallSetup(nullptr, Pacing::RealTime, 2);
    host::SyntheticFrameOptions options;
    options.frameLimit = 40;
    options.framesPerSecond = 120;
    setup.source = std::make_shared<host::SyntheticFrameSource>(options);
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    std::vector<int64_t> stamps;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t ts, int32_t, const auto& data) {
        stamps.push_back(ts);
        std::this_thread::sleep_for(30ms);  // a frame takes longer than three frame periods
        camera->releaseRecordingFrame(data);
    }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(20s));
    camera->stopRecording();
    const host::CameraCounters c = device->counters();
    EXPECT_GT(c.dropped, 10u);
    EXPECT_EQ(c.captured + c.dropped, 40u);
    EXPECT_EQ(c.delivered + c.discarded, c.captured);
    EXPECT_EQ(c.delivered, stamps.size());
    // The frames that did arrive are in order, with the gaps of the lost ones.
    for (size_t i = 1; i < stamps.size(); ++i) {
        EXPECT_GT(stamps[i], stamps[i - 1]);
        EXPECT_EQ((stamps[i] - stamps[i - 1]) % 8333333, 0);
    }
}

TEST(CameraAccounting, EveryDeliveredFrameIsReleasedOrOutstanding) {
    constexpr uint64_t kFrames = 1500;
    auto device =
        CameraDevice::create(smallSetup(indexSource(kFrames), Pacing::AsFastAsConsumed, 8));
    auto camera = device->connect();
    // Every seventh frame is kept; the consumer holds at most three kept frames, releasing the
    // oldest when a fourth arrives.
    std::deque<android::sp<android::IMemory>> kept;
    std::deque<uint64_t> keptIndices;
    uint64_t next = 0;
    bool inOrder = true;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
        const uint64_t index = frameIndex(data);
        inOrder = inOrder && index == next++;
        if (index % 7 != 0) {
            camera->releaseRecordingFrame(data);
            return;
        }
        kept.push_back(data);
        keptIndices.push_back(index);
        if (kept.size() > 3) {
            camera->releaseRecordingFrame(kept.front());
            kept.pop_front();
            keptIndices.pop_front();
        }
    }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(60s));
    camera->stopRecording();
    EXPECT_TRUE(inOrder);

    host::CameraCounters c = device->counters();
    EXPECT_EQ(c.delivered, kFrames);
    EXPECT_EQ(c.outstanding(), 3u);
    auto outstanding = device->outstandingFrames();
    ASSERT_EQ(outstanding.size(), keptIndices.size());
    EXPECT_EQ(outstanding.front().index, keptIndices.front());

    // Frames still out may be handed back after the recording stopped; a second release of
    // the same frame is an error, counted and logged.
    LogCapture log;
    android::sp<android::IMemory> last = kept.back();
    for (auto& m : kept)
        camera->releaseRecordingFrame(m);
    camera->releaseRecordingFrame(last);
    c = device->counters();
    EXPECT_EQ(c.outstanding(), 0u);
    EXPECT_EQ(c.released, kFrames);
    EXPECT_EQ(c.releaseErrors, 1u);
    EXPECT_EQ(log.countContaining("not a recording frame that is out"), 1);
}

TEST(CameraRecording, HeldFramesStallTheCaptureButNotAStop) {
    auto setup = smallSetup(indexSource(100), Pacing::AsFastAsConsumed, 2);
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    std::vector<android::sp<android::IMemory>> held;  // not released while recording
    camera->setRecordingProxyListener(
        new ProxyListener([&](nsecs_t, int32_t, const auto& data) { held.push_back(data); }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitForDelivered(2, 10s));
    EXPECT_TRUE(finishesWithin(5s, [&] { camera->stopRecording(); }));
    EXPECT_EQ(device->counters().delivered, 2u);
    for (auto& m : held)
        camera->releaseRecordingFrame(m);
    EXPECT_EQ(device->counters().outstanding(), 0u);
}

TEST(CameraService, ConnectionsAndTheCameraField) {
    auto setup = smallSetup(indexSource(10), Pacing::RealTime, 2);
    setup.cameraId = 3;
    setup.cameraField = 0x12345678;
    auto device = CameraDevice::create(setup);
    host::removeAllCameras();
    host::addCamera(device);
    EXPECT_EQ(android::Camera::connect(0, android::String16("t"), -1, -1), nullptr);

    android::sp<android::Camera> camera =
        android::Camera::connect(3, android::String16("t"), android::Camera::USE_CALLING_UID,
                                 android::Camera::USE_CALLING_PID);
    ASSERT_NE(camera, nullptr);
    // The sixth 32-bit word of the camera object holds the field.
    EXPECT_EQ(reinterpret_cast<const int32_t*>(camera.get())[5], 0x12345678);
    EXPECT_EQ(android::Camera::connect(3, android::String16("t"), -1, -1), nullptr);  // in use

    // The Java camera's native context hands the same camera out under its lock.
    android::JNICameraContext context;
    context.mCamera = camera;
    EXPECT_EQ(context.getCamera().get(), camera.get());

    camera->disconnect();
    EXPECT_EQ(camera->startRecording(), android::NO_INIT);
    EXPECT_NE(android::Camera::connect(3, android::String16("t"), -1, -1), nullptr);
    host::removeAllCameras();
}
