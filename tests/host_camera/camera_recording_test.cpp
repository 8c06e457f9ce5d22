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

TEST(CameraPacing, RealTimeSpacesDeliveriesByTheirTimestamps) {
    auto setup = smallSetup(nullptr, Pacing::RealTime, 4);
    host::SyntheticFrameOptions options;
    options.frameLimit = 10;  // nine intervals of 1/30 s
    setup.source = std::make_shared<host::SyntheticFrameSource>(options);
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
        arrivals.push_back(std::chrono::steady_clock::now());
        camera->releaseRecordingFrame(data);
    }));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitUntilDrained(10s));
    camera->stopRecording();
    ASSERT_EQ(arrivals.size(), 10u);
    // The first frame is due at once, the last nine frame periods later.
    EXPECT_GE(arrivals.back() - start, 9 * 33333333ns);
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
    EXPECT_EQ(c.released + c.outstanding(), c.delivered);
    EXPECT_EQ(c.outstanding(), 3u);
    auto outstanding = device->outstandingFrames();
    ASSERT_EQ(outstanding.size(), keptIndices.size());
    for (size_t i = 0; i < outstanding.size(); ++i) {
        EXPECT_EQ(outstanding[i].index, keptIndices[i]);
    }

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

TEST(CameraRecording, StartAndStopAreIdempotent) {
    auto device = CameraDevice::create(smallSetup(indexSource(1000000), Pacing::RealTime, 4));
    auto camera = device->connect();
    std::atomic<int> frames{0};
    std::atomic<uint64_t> lastIndex{0};
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
        lastIndex = frameIndex(data);
        ++frames;
        camera->releaseRecordingFrame(data);
    }));
    EXPECT_FALSE(camera->recordingEnabled());
    EXPECT_EQ(camera->setVideoBufferMode(1), android::INVALID_OPERATION);  // YUV data only
    EXPECT_EQ(camera->setVideoBufferMode(0), android::OK);
    camera->stopRecording();  // not recording: nothing happens
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_EQ(camera->startRecording(), android::OK);
    EXPECT_TRUE(camera->recordingEnabled());
    EXPECT_TRUE(camera->previewEnabled());
    ASSERT_TRUE(device->waitForDelivered(3, 10s));
    camera->stopRecording();
    camera->stopRecording();
    EXPECT_FALSE(camera->recordingEnabled());
    const int afterStop = frames.load();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(frames.load(), afterStop);  // nothing arrives after stopRecording returned

    // A new recording goes on with the next frame indices.
    const uint64_t before = lastIndex.load();
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitForDelivered(static_cast<uint64_t>(afterStop) + 1, 10s));
    camera->stopRecording();
    EXPECT_GT(lastIndex.load(), before);
    const host::CameraCounters c = device->counters();
    EXPECT_EQ(c.delivered, c.released);
}

TEST(CameraRecording, ListenersCanBeReplacedWhileRecording) {
    auto device = CameraDevice::create(smallSetup(indexSource(1000000), Pacing::RealTime, 4));
    auto camera = device->connect();
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    auto counting = [&](std::atomic<int>& counter) {
        return new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
            ++counter;
            camera->releaseRecordingFrame(data);
        });
    };
    camera->setRecordingProxyListener(counting(first));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitForDelivered(3, 10s));
    camera->setRecordingProxyListener(counting(second));
    const int firstTotal = first.load();
    const uint64_t delivered = device->counters().delivered;
    ASSERT_TRUE(device->waitForDelivered(delivered + 3, 10s));
    EXPECT_LE(first.load(), firstTotal + 1);  // at most the frame in flight at the swap
    EXPECT_GE(second.load(), 2);

    // Without a listener the camera takes its frames straight back.
    camera->setRecordingProxyListener(nullptr);
    const uint64_t discarded = device->counters().discarded;
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (device->counters().discarded < discarded + 3 &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_GE(device->counters().discarded, discarded + 3);
    camera->stopRecording();
    const host::CameraCounters c = device->counters();
    EXPECT_EQ(c.delivered, c.released);
    EXPECT_EQ(static_cast<uint64_t>(first.load() + second.load()), c.delivered);
}

TEST(CameraRecording, StopFromInsideACallbackDoesNotDeadlock) {
    auto device = CameraDevice::create(smallSetup(indexSource(1000000), Pacing::RealTime, 4));
    auto camera = device->connect();
    std::atomic<int> calls{0};
    camera->setRecordingProxyListener(new ProxyListener([&](nsecs_t, int32_t, const auto& data) {
        ++calls;
        camera->releaseRecordingFrame(data);
        camera->stopRecording();
        EXPECT_EQ(camera->startRecording(), android::INVALID_OPERATION);
    }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (camera->recordingEnabled() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_FALSE(camera->recordingEnabled());
    // The next start, from an ordinary thread, waits for the old callback thread to finish.
    EXPECT_TRUE(finishesWithin(5s, [&] {
        EXPECT_EQ(camera->startRecording(), android::OK);
        device->waitForDelivered(2, 5s);
        camera->setRecordingProxyListener(nullptr);
        camera->stopRecording();
    }));
    EXPECT_GE(calls.load(), 2);
}

TEST(CameraRecording, HeldFramesStallTheCaptureButNotAStop) {
    auto setup = smallSetup(indexSource(100), Pacing::AsFastAsConsumed, 2);
    setup.videoSizes = {{64, 48}, {128, 96}};
    auto device = CameraDevice::create(setup);
    auto camera = device->connect();
    std::vector<android::sp<android::IMemory>> held;  // not released while recording
    camera->setRecordingProxyListener(
        new ProxyListener([&](nsecs_t, int32_t, const auto& data) { held.push_back(data); }));
    ASSERT_EQ(camera->startRecording(), android::OK);
    ASSERT_TRUE(device->waitForDelivered(2, 10s));
    EXPECT_TRUE(finishesWithin(5s, [&] { camera->stopRecording(); }));
    EXPECT_EQ(device->counters().delivered, 2u);
    EXPECT_EQ(device->outstandingFrames().size(), 2u);

    // A recording of another size cannot start while those frames are out.
    android::CameraParameters p(camera->getParameters());
    p.setVideoSize(128, 96);
    ASSERT_EQ(camera->setParameters(p.flatten()), android::OK);
    LogCapture log;
    EXPECT_EQ(camera->startRecording(), android::INVALID_OPERATION);
    EXPECT_EQ(log.countContaining("are still out"), 1);
    for (auto& m : held)
        camera->releaseRecordingFrame(m);
    EXPECT_EQ(device->counters().outstanding(), 0u);
    held.clear();
    camera->setRecordingProxyListener(nullptr);
    EXPECT_EQ(camera->startRecording(), android::OK);
    camera->stopRecording();
}

// A listener shaped like the engine's: both listener interfaces on one reference count.
class BothListeners : public android::CameraListener,
                      public android::ICameraRecordingProxyListener {
  public:
    BothListeners(android::Camera* camera, std::atomic<int>* destroyed)
        : mCamera(camera), mDestroyed(destroyed) {}
    ~BothListeners() override { ++*mDestroyed; }

    void notify(int32_t, int32_t, int32_t) override {}
    void postData(int32_t, const android::sp<android::IMemory>&,
                  camera_frame_metadata_t*) override {}
    void postDataTimestamp(nsecs_t, int32_t, const android::sp<android::IMemory>&) override {
        ADD_FAILURE() << "frames go to the recording proxy listener when one is set";
    }
    void postRecordingFrameHandleTimestamp(nsecs_t, native_handle_t*) override {}
    void postRecordingFrameHandleTimestampBatch(const std::vector<nsecs_t>&,
                                                const std::vector<native_handle_t*>&) override {}
    void dataCallbackTimestamp(nsecs_t, int32_t,
                               const android::sp<android::IMemory>& data) override {
        ++frames;
        mCamera->releaseRecordingFrame(data);
    }
    void recordingFrameHandleCallbackTimestamp(nsecs_t, native_handle_t*) override {}
    void recordingFrameHandleCallbackTimestampBatch(const std::vector<nsecs_t>&,
                                                    const std::vector<native_handle_t*>&) override {
    }
    android::IBinder* onAsBinder() override { return nullptr; }

    std::atomic<int> frames{0};

  private:
    android::Camera* const mCamera;  // plain pointer: no reference cycle with the camera
    std::atomic<int>* mDestroyed;
};

TEST(CameraRecording, AListenerOfBothKindsIsOneObjectWithOneCount) {
    auto device = CameraDevice::create(smallSetup(indexSource(5), Pacing::AsFastAsConsumed, 2));
    auto camera = device->connect();
    std::atomic<int> destroyed{0};
    {
        BothListeners* listener = new BothListeners(camera.get(), &destroyed);
        camera->setListener(listener);
        camera->setRecordingProxyListener(listener);
        EXPECT_EQ(android::IInterface::asBinder(
                      static_cast<android::ICameraRecordingProxyListener*>(listener)),
                  nullptr);
        ASSERT_EQ(camera->startRecording(), android::OK);
        ASSERT_TRUE(device->waitUntilDrained(10s));
        camera->stopRecording();
        EXPECT_EQ(listener->frames.load(), 5);
    }
    camera->setRecordingProxyListener(nullptr);
    EXPECT_EQ(destroyed.load(), 0);  // the camera still holds it as its CameraListener
    camera->setListener(nullptr);
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(CameraService, ConnectionsAndTheCameraField) {
    auto setup = smallSetup(indexSource(10), Pacing::RealTime, 2);
    setup.cameraId = 3;
    setup.cameraField = 0x12345678;
    auto device = CameraDevice::create(setup);
    host::removeAllCameras();
    host::addCamera(device);
    EXPECT_EQ(android::Camera::getNumberOfCameras(), 1);
    EXPECT_EQ(android::Camera::connect(0, android::String16("t"), -1, -1), nullptr);

    android::sp<android::Camera> camera =
        android::Camera::connect(3, android::String16("t"), android::Camera::USE_CALLING_UID,
                                 android::Camera::USE_CALLING_PID);
    ASSERT_NE(camera, nullptr);
    EXPECT_EQ(camera->getStatus(), android::OK);
    // The sixth 32-bit word of the camera object holds the field.
    EXPECT_EQ(reinterpret_cast<const int32_t*>(camera.get())[5], 0x12345678);
    EXPECT_EQ(android::Camera::connect(3, android::String16("t"), -1, -1), nullptr);  // in use

    // The Java camera's native context hands the same camera out under its lock.
    android::JNICameraContext context;
    context.mCamera = camera;
    EXPECT_EQ(context.getCamera().get(), camera.get());

    camera->disconnect();
    EXPECT_EQ(camera->getStatus(), android::NO_INIT);
    EXPECT_EQ(camera->startRecording(), android::NO_INIT);
    EXPECT_EQ(camera->getParameters().length(), 0u);
    android::sp<android::Camera> again =
        android::Camera::connect(3, android::String16("t"), -1, -1);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(camera->startPreview(), android::NO_INIT);  // the old connection stays closed
    EXPECT_EQ(again->startPreview(), android::OK);
    again.clear();  // dropping the last reference disconnects
    EXPECT_NE(device->connect(), nullptr);
    host::removeAllCameras();
    EXPECT_EQ(android::Camera::getNumberOfCameras(), 0);
}
