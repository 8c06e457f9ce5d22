// Engine lifecycle: construction, the GL session, configuration lookup, start/stop and their
// failures, the size of the frame queue and the camera configuration read-out.
#include <EGL/egl.h>
#include <android/log.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include <host/Properties.h>

#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "LogCapture.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

const char* const kBuildOptionPieces[] = {
    "Building for platform: oem_qcom8976_board_O ",
    "Building for arch: 32 ",
    "Building for ndk: android-23 ",
    "Building for Android: 6.0 ",
    "Building for GPU: adreno ",
    "Building with GLES: 2 ",
    "Building with GLSL: 300 ",
    "Building with Android Headers for: oem_qcom8976_board_O ",
    "Building with Android Libraries for: oem_qcom8976_board_O ",
    "Flags: Platform is QCOM ",
    "Flags: Frame metadata will be read from the image itself",
};
const char kRuler[] = "[ABO] ----------------------------------------";

TEST(EngineLifecycle, ConstructionLogsTheBuildBanner) {
    LogCapture log;
    { Context context; }
    const char* const expected[] = {
        "[VStab] Built for platform: oem_qcom8976_board_O",
        "[VStab] Built for ndk : android-23",
        "[VStab] Built for Android : 6.0",
        "[VStab] Built for GPU : adreno",
        "[VStab] Built with GLES : 2",
        "[VStab] Built with GLSL : 300",
        "[VStab] Built with Android Headers for : oem_qcom8976_board_O",
        "[VStab] Built with Android Libraries for : oem_qcom8976_board_O",
    };
    std::vector<LogLine> lines = log.lines();
    ASSERT_EQ(lines.size(), 8u);
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(lines[i].text, expected[i]);
        EXPECT_EQ(lines[i].priority, kInfo);
        EXPECT_EQ(lines[i].tag, "[QLMR]");
    }
}

TEST(EngineSession, ResumeReadsTheDiagnosticPropertiesAndLogsTheBuildOptions) {
    LogCapture log;
    EngineHarness h;  // resumes with no property set
    EXPECT_EQ(eis_debug, 0);
    EXPECT_EQ(StartTimeOffsetUs, 0);

    // The whole resume, in order and nothing else of the engine's in between.
    std::vector<std::string> expected = {"onResume",
                                         "debug.camera.qlmr.EIS.log = 0",
                                         "persist.qlmr.EIS.vid.startUs = 0",
                                         "StartTimeOffsetUs = 0",
                                         "[ABO] Application build options:",
                                         kRuler};
    for (const char* piece : kBuildOptionPieces)
        expected.push_back(std::string("[ABO] ") + piece);
    expected.push_back(kRuler);
    std::vector<LogLine> lines;
    bool resumed = false;
    for (const LogLine& l : log.lines()) {
        resumed = resumed || l.text == "onResume";  // the engine's construction logs first
        if (resumed && l.tag == "[QLMR]")
            lines.push_back(l);
    }
    ASSERT_EQ(lines.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(lines[i].text, expected[i]) << i;
        EXPECT_EQ(lines[i].priority, i == 0 ? kInfo : kWarn) << expected[i];
    }

    struct Case {
        const char* debug;
        const char* startUs;
        int32_t eisDebug;
        int32_t offsetUs;
    };
    for (Case c : {Case{"1", "2500", 1, 2500}, Case{"7", "-40", 1, -40},
                   Case{"abc", "12abc", 0, 12}, Case{"0", "0", 0, 0}}) {
        h.engine->onPause();
        host::setProperty("debug.camera.qlmr.EIS.log", c.debug);
        host::setProperty("persist.qlmr.EIS.vid.startUs", c.startUs);
        Boottime_Monotonic_timerDiff_got = 1;
        log.clear();
        h.engine->onResume();
        EXPECT_EQ(eis_debug, c.eisDebug) << c.debug;
        EXPECT_EQ(StartTimeOffsetUs, c.offsetUs) << c.startUs;
        EXPECT_EQ(Boottime_Monotonic_timerDiff_got, 0) << "the clock offset is measured anew";
        EXPECT_TRUE(linesInOrder(log.lines(),
                                 {{kWarn, format("debug.camera.qlmr.EIS.log = %d", c.eisDebug)},
                                  {kWarn, format("persist.qlmr.EIS.vid.startUs = %s", c.startUs)},
                                  {kWarn, format("StartTimeOffsetUs = %d", c.offsetUs)}}));
    }

    // Outputs registered across a pause stay, and the resume says so.
    h.addOutput(1, 64, 64);
    log.clear();
    h.engine->onPause();
    h.engine->onResume();
    EXPECT_TRUE(linesInOrder(log.lines(),
                             {{kInfo, "onPause"},
                              {kInfo, "onResume"},
                              {kWarn, "onResume JSM is not empty ... surface has been reused?"}}));
    EXPECT_EQ(log.count("onResume JSM is not empty ... surface has been reused?"), 1);
}

TEST(EngineSession, LockKeepsTheEngineContextCurrentUntilUnlock) {
    EngineHarness h;
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    h.engine->lock();
    EXPECT_NE(h.engine->glGuard.data, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), h.engine->glContext->context);
    h.engine->unlock();
    EXPECT_EQ(h.engine->glGuard.data, nullptr);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    // A second round works the same: unlock left the engine ready for the next lock.
    h.engine->lock();
    EXPECT_EQ(eglGetCurrentContext(), h.engine->glContext->context);
    h.engine->unlock();
}

TEST(EngineSessionDeathTest, LockTwiceOrUnlockWithoutLockAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            EngineHarness h;
            h.engine->lock();
            h.engine->lock();
        },
        "Assert: \\[library/src/main/jni/src/Context:[0-9]+\\] 0 && \"glLock Logical Error\"");
    EXPECT_DEATH(
        {
            EngineHarness h;
            h.engine->unlock();
        },
        "Assert: \\[library/src/main/jni/src/Context:[0-9]+\\] 0 && \"glUnlock Logical Error\"");
    EXPECT_DEATH(
        {
            EngineHarness h;
            h.engine->lock();
            h.engine->unlock();
            h.engine->unlock();
        },
        "glUnlock Logical Error");
}

TEST(EngineConfig, ValueIsTheTextAfterTheFirstMatchUpToTheLineFeed) {
    auto number = [](const std::string& text, const char* key) {
        int value = 99;
        readConfigParam<int>(text, key, value, -1);
        return value;
    };
    auto text = [](const std::string& config, const char* key) {
        std::string value = "unchanged";
        readConfigParam(config, key, value, std::string("default"));
        return value;
    };
    EXPECT_EQ(number("a=1\nnative.bufferFrameCount=40\nb=2\n", "native.bufferFrameCount"), 40);
    EXPECT_EQ(number("a=1\n", "native.bufferFrameCount"), -1);
    EXPECT_EQ(text("a=1\n", "native.cameraHeight"), "default");
    // Plain substring search: prefixes, suffixes and commented-out lines all match.
    EXPECT_EQ(number("native.cameraHeight=720\n", "native.camera"), 720);
    EXPECT_EQ(number("native.cameraHeight=720\n", "Height"), 720);
    EXPECT_EQ(
        number("#native.cameraUvOffset=64\nnative.cameraUvOffset=128\n", "native.cameraUvOffset"),
        64);
    // The "=" may be on a later line; with none after the key the default stays.
    EXPECT_EQ(number("native.cameraHeight\nother=5\n", "native.cameraHeight"), 5);
    EXPECT_EQ(number("x=1\nnative.cameraHeight\n", "native.cameraHeight"), -1);
    // No trimming: the carriage return stays in the text, atof stops at it.
    EXPECT_EQ(number("native.cameraHeight=1080\r\n", "native.cameraHeight"), 1080);
    EXPECT_EQ(text("native.cameraHeight=1080\r\n", "native.cameraHeight"), "1080\r");
    EXPECT_EQ(text("k= 7 \n", "k"), " 7 ");
    EXPECT_EQ(number("k= 7 \n", "k"), 7);
    // Numbers are truncated toward zero; text that is no number reads 0; the last line needs
    // no line feed.
    EXPECT_EQ(number("k=12.9\n", "k"), 12);
    EXPECT_EQ(number("k=-3.7\n", "k"), -3);
    EXPECT_EQ(number("k=abc\n", "k"), 0);
    EXPECT_EQ(number("k=33", "k"), 33);
    EXPECT_EQ(text("k=", "k"), "");
    // The text form ends at an embedded NUL.
    EXPECT_EQ(text(std::string("k=ab\0cd\n", 8), "k"), "ab");
}

TEST(EngineLifecycle, StartAndStopLogEveryStepAndPrepareTheRecording) {
    EngineHarness h;
    h.makeCamera(idleCamera(640, 480, 30));
    LogCapture log;
    const std::string config = engineConfig("native.cameraUvOffset=-1\n");
    h.start(config);
    const int64_t startRecord = h.engine->startRecordTimestamp;
    h.stop();

    std::vector<Expected> expected = {
        {kWarn, format("[VStab] startrecordtimestamp timestamp %lld",
                       static_cast<long long>(startRecord))},
        {kWarn, "Context::start, width=640, height=480"},
        {kWarn, "VStabConfig using Java Asset Config"},
    };
    for (const char* size : {"640x480", "1920x1080"})
        expected.push_back(
            {kWarn, std::string("[VSTAB][Camera Supported Video Resolutions] ") + size});
    for (const char* size : {"1920x1080", "1280x720", "640x480"})
        expected.push_back(
            {kWarn, std::string("[VSTAB][Camera Supported Preview Resolutions] ") + size});
    for (Expected e : std::vector<Expected>{
             {kInfo, "Get current camera preview stream size: 1920x1080"},
             {kInfo, "Get current camera video stream size: 640x480"},
             {kInfo, "Setting camera video stream size to: 640x480"},
             {kWarn, "getPreviewFrameRate, fps: 30"},
             {kWarn, "frameCountMin : 16"},
             {kWarn, "VStab Using Buffer with FrameCount: 16"},
             {kInfo, "========= Sizes: jpeg | yuv420sp | 4160x3120 | 1920x1080 | 640x480"},
             {kInfo, "startRecording Status: 0"},
             {kInfo, "previewEnabled: 1"},
             {kWarn, "stopRecording ++++"},
             {kWarn, "stopRecording ----"},
             {kWarn, "Frame Queue Length ++++: 0"},
             {kWarn, "Frame Queue Length = 0, exit"},
             {kWarn, "Frame Queue Length ----: 0"},
             {kWarn, "mCamera.clear ++++"},
             {kWarn, "mCamera.clear ----"},
             {kWarn, "Native stopped recording"},
         })
        expected.push_back(e);
    EXPECT_TRUE(linesInOrder(log.lines(), expected));
    EXPECT_EQ(log.count("vsConfig ---- BEGIN ----"), 0)
        << "the configuration is dumped only in debug";
    EXPECT_EQ(log.count("forceRecordStop = 1"), 0) << "an empty queue needs no forcing";
    EXPECT_EQ(h.engine->forceRecordStop.load(), 0);

    // The library got the whole text; the camera was set to record with the engine.
    EXPECT_EQ(vstabDouble().lastConfigText, config);
    android::CameraParameters params(h.camera->getParameters());
    EXPECT_STREQ(params.get("recording-hint"), "true");
    EXPECT_EQ(h.engine->threadState.load(), 4);
    EXPECT_EQ(vstabDouble().liveHandles.load(), 0);
    EXPECT_EQ(h.engine->mCamera.get(), nullptr);
    EXPECT_EQ(h.engine->sensorManager.data, nullptr);
    EXPECT_EQ(h.engine->frameQueue.data, nullptr);
}

TEST(EngineLifecycle, StartBuildsTheUnwarpedGridAndAZeroWarpGrid) {
    EngineHarness h;
    vstabDouble().gridColumns = 4;
    vstabDouble().gridRows = 3;
    h.makeCamera(idleCamera());
    h.start();
    const float* u = h.engine->uniform_vrtxArr;
    auto at = [&](int i, int j, int c) { return u[(j * 4 + i) * 3 + c]; };
    EXPECT_FLOAT_EQ(at(0, 0, 0), -1.25f);
    EXPECT_FLOAT_EQ(at(0, 0, 1), -1.25f);
    EXPECT_FLOAT_EQ(at(3, 2, 0), 1.25f);
    EXPECT_FLOAT_EQ(at(3, 2, 1), 1.25f);
    EXPECT_FLOAT_EQ(at(1, 1, 0), (2.0f / 3.0f - 1.0f) * 1.25f);
    EXPECT_FLOAT_EQ(at(1, 1, 1), 0.0f);
    EXPECT_FLOAT_EQ(at(2, 0, 0), (4.0f / 3.0f - 1.0f) * 1.25f);
    for (int k = 0; k < 12; ++k) {
        EXPECT_EQ(at(k % 4, k / 4, 2), 0.0f);
        // No frame has been warped: the library's grid is still all zero.
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(h.engine->vstabOutput.warpVertices[k * 3 + c], 0.0f);
    }
    EXPECT_EQ(h.engine->mesh.width, 6);
    EXPECT_EQ(h.engine->mesh.height, 5);
}

TEST(EngineLifecycle, DebugModeDumpsTheConfigurationLineByLine) {
    EngineHarness h(Properties{{"debug.camera.qlmr.EIS.log", "1"}});
    h.makeCamera(idleCamera());
    LogCapture log;
    // Each logged line loses its last character (meant for CR-LF text) and gains a blank; text
    // after the last line feed is not logged.
    h.start("first=1\r\nsecond=22\r\n\r\ntail=3");
    std::vector<LogLine> lines = log.lines();
    size_t begin = 0;
    while (begin < lines.size() && lines[begin].text != "vsConfig ---- BEGIN ----")
        ++begin;
    ASSERT_LT(begin + 4, lines.size());
    const char* const expected[] = {"first=1 ", "second=22 ", " ", "vsConfig ---- END ----"};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(lines[begin + 1 + i].text, expected[i]);
        EXPECT_EQ(lines[begin + 1 + i].priority, kWarn);
    }
}

// Frames of a recording stamped `offsetNs` + n x 33 ms after the recording's start.
std::shared_ptr<host::FrameSource> framesAfterStart(std::function<int64_t()> offsetNs,
                                                    uint64_t count) {
    return scriptedSource([offsetNs, count](uint64_t n, int64_t start, host::FrameInfo& info) {
        if (n >= count)
            return false;
        info.timestampNs = start + offsetNs() + static_cast<int64_t>(n) * 33000000;
        return true;
    });
}

TEST(EngineLifecycle, StartStopCyclesRecordAgainWithFreshState) {
    EngineHarness h;
    // The first recording is stamped far ahead; later ones earlier than its last frame, so a
    // frame order kept across recordings would refuse every frame after the first stop.
    const int64_t offsets[] = {20000000000LL, 200000000LL, 1000000000LL};
    auto cycle = std::make_shared<std::atomic<int>>(0);
    host::CameraSetup setup = sourceCamera(
        320, 240, framesAfterStart([cycle, offsets] { return offsets[cycle->load()]; }, 20));
    paceByWarps(setup);
    h.makeCamera(setup);
    for (int c = 0; c < 3; ++c) {
        cycle->store(c);
        LogCapture log;
        h.start();
        ASSERT_TRUE(waitFor([&] { return vstabDouble().warpedOk.load() == 20 * (c + 1); }, 10s))
            << "cycle " << c << ": " << vstabDouble().warpedOk.load();
        EXPECT_EQ(h.engine->threadState.load(), 1);
        h.stop();
        EXPECT_EQ(h.engine->threadState.load(), 4);
        EXPECT_EQ(vstabDouble().createCalls.load(), c + 1);
        EXPECT_EQ(vstabDouble().destroyCalls.load(), c + 1);
        EXPECT_EQ(vstabDouble().liveHandles.load(), 0);
        host::CameraCounters counters = h.cameraDevice->counters();
        EXPECT_EQ(counters.delivered, 20u * (c + 1));
        EXPECT_EQ(counters.released, 20u * (c + 1));
        // First-frame bookkeeping starts again with every recording: both lines name this
        // recording's first frame.
        std::vector<int64_t> warped = vstabDouble().warpSnapshot();
        std::vector<LogLine> first =
            linesStartingWith(log.lines(), "[VStab] first frame timestamp ");
        ASSERT_EQ(first.size(), 2u);
        for (const LogLine& l : first) {
            EXPECT_EQ(l.text, format("[VStab] first frame timestamp %lld",
                                     static_cast<long long>(warped[20 * c])));
        }
        EXPECT_EQ(log.count("Native stopped recording", kWarn), 1);
    }
}

// Holds the thread that logs a line starting with `prefix` until opened (10 s at most), and
// keeps every text logged meanwhile. Installed as the process's log writer.
struct LogBarrier {
    std::string prefix;
    std::mutex mutex;
    std::condition_variable changed;
    bool holding = false;
    bool open = false;
    std::vector<std::string> texts;
};
LogBarrier* gBarrier = nullptr;

void barrierLogger(const __android_logger_data*, const char* message) {
    std::unique_lock<std::mutex> lock(gBarrier->mutex);
    gBarrier->texts.push_back(message);
    gBarrier->changed.notify_all();
    if (std::string(message).compare(0, gBarrier->prefix.size(), gBarrier->prefix) == 0) {
        gBarrier->holding = true;
        gBarrier->changed.notify_all();
        gBarrier->changed.wait_for(lock, 10s, [] { return gBarrier->open; });
    }
}

TEST(EngineLifecycle, StopBeforeTheProcessingThreadStartedStillEndsIt) {
    EngineHarness h;
    h.makeCamera(idleCamera());
    LogBarrier barrier;
    barrier.prefix = "Context Thread Run";  // logged just before the thread marks itself running
    gBarrier = &barrier;
    __android_log_set_logger(barrierLogger);
    h.start();
    std::future<void> stopping;
    {
        std::unique_lock<std::mutex> lock(barrier.mutex);
        ASSERT_TRUE(barrier.changed.wait_for(lock, 5s, [&] { return barrier.holding; }));
        stopping = std::async(std::launch::async, [&] { h.stop(); });
        // stop requests the end right after this line; give it a moment to do so.
        EXPECT_TRUE(barrier.changed.wait_for(lock, 5s, [&] {
            return std::find(barrier.texts.begin(), barrier.texts.end(),
                             "Frame Queue Length = 0, exit") != barrier.texts.end();
        }));
    }
    std::this_thread::sleep_for(50ms);
    {
        std::lock_guard<std::mutex> lock(barrier.mutex);
        barrier.open = true;
        barrier.changed.notify_all();
    }
    if (stopping.wait_for(10s) != std::future_status::ready) {
        ADD_FAILURE() << "stop did not end the processing thread";
        std::abort();  // the join cannot be undone
    }
    __android_log_set_logger(__android_log_stderr_logger);
    gBarrier = nullptr;
    EXPECT_EQ(h.engine->threadState.load(), 4);
}

TEST(EngineLifecycle, StartWhileRecordingIsRefused) {
    EngineHarness h;
    h.makeCamera(idleCamera());
    h.start();
    ASSERT_TRUE(waitFor([&] { return h.engine->threadState.load() == 1; }, 5s));
    LogCapture log;
    EXPECT_EQ(thrownMessage([&] { h.start(); }),
              "Logical Error in Context Thread state on initialization");
    EXPECT_TRUE(linesInOrder(
        log.lines(), {{kWarn, format("[VStab] startrecordtimestamp timestamp %lld",
                                     static_cast<long long>(h.engine->startRecordTimestamp))},
                      {kWarn, "Logical Error in Context Thread state on initialization"}}));
    EXPECT_EQ(log.countContaining("Context::start"), 0);
    EXPECT_EQ(vstabDouble().createCalls.load(), 1);
    EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
    h.stop();
    EXPECT_EQ(h.engine->threadState.load(), 4);
    EXPECT_EQ(vstabDouble().liveHandles.load(), 0);
}

TEST(EngineLifecycle, QueueHoldsTheLibraryLatencyAtThePreviewRatePlusThirteen) {
    struct Case {
        int fps;
        int64_t latencyNs;
        int64_t windowNs;
        int expected;
    };
    const Case cases[] = {
        {30, 100000000, 200000000, 16},   // latency rules: 3 frames
        {24, 250000000, 300000000, 19},   // 6 frames
        {30, 50000000, 800000000, 25},    // half the window rules: 12 frames
        {15, 10000000, 1300000000, 22},   // half the window: 9.75 frames, truncated
        {30, 150000000, 0, 17},           // 4.5 frames, truncated
        {60, 0, 0, 13},                   // the margin alone
        {30, -150000000, -400000000, 8},  // signed: 13 - 4.5, truncated toward zero
    };
    for (const Case& c : cases) {
        EngineHarness h;
        vstabDouble().latencyNs = c.latencyNs;
        vstabDouble().windowNs = c.windowNs;
        h.makeCamera(idleCamera(640, 480, c.fps));
        LogCapture log;
        h.start();
        EXPECT_EQ(h.engine->frameQueue->getCapacity(), c.expected) << c.fps << " " << c.latencyNs;
        EXPECT_TRUE(linesInOrder(
            log.lines(), {{kWarn, format("getPreviewFrameRate, fps: %d", c.fps)},
                          {kWarn, format("frameCountMin : %d", c.expected)},
                          {kWarn, format("VStab Using Buffer with FrameCount: %d", c.expected)}}));
        h.stop();
    }
}

TEST(EngineLifecycle, ConfiguredBufferCountAndCameraHeightShapeTheQueue) {
    struct Case {
        const char* lines;
        int capacity;
        bool tooSmall;
        int bufferHeight;
    };
    const Case cases[] = {
        {"native.bufferFrameCount=5\n", 16, true, 480},
        {"native.bufferFrameCount=16\n", 16, false, 480},
        {"native.bufferFrameCount=40\nnative.cameraHeight=360\n", 40, false, 360},
    };
    for (const Case& c : cases) {
        EngineHarness h;
        h.makeCamera(idleCamera(640, 480, 30));
        LogCapture log;
        h.start(engineConfig(c.lines));
        auto* queue = h.engine->frameQueue.data;
        ASSERT_EQ(queue->getCapacity(), c.capacity) << c.lines;
        EXPECT_EQ(log.count("Internal Buffer size set in config is too small: 5 < 16, using "
                            "minimum count",
                            kWarn),
                  c.tooSmall ? 1 : 0);
        EXPECT_EQ(log.count(format("VStab Using Buffer with FrameCount: %d", c.capacity), kWarn),
                  1);
        // Every slot got its own NV21 buffer of the video size; the queue ends up empty.
        pthread_mutex_lock(&queue->mutex.mutex);
        EXPECT_EQ(queue->readIndex, queue->writeIndex);
        EXPECT_EQ(queue->full, 0);
        for (int i = 0; i < c.capacity; ++i) {
            ASSERT_NE(queue->slots[i].buffer.data, nullptr) << i;
            const android::sp<android::GraphicBuffer>& gb = queue->slots[i].buffer->buffer;
            EXPECT_EQ(gb->getWidth(), 640u);
            EXPECT_EQ(gb->getHeight(), static_cast<uint32_t>(c.bufferHeight));
            EXPECT_EQ(gb->getPixelFormat(), 17);
            EXPECT_EQ(gb->getUsage(), 0x130u);
            for (int k = 0; k < i; ++k)
                EXPECT_NE(queue->slots[k].buffer->buffer.get(), gb.get());
        }
        pthread_mutex_unlock(&queue->mutex.mutex);
        h.stop();
    }
}

// A width that is not a multiple of 16 is refused before any slot gets a buffer; an odd
// camera height makes a buffer the graphics cannot allocate (NV21 needs an even height).
// Either way nothing later runs: no sensor thread, no recording, no processing thread.
TEST(EngineLifecycle, BuffersThatCannotBeMadeAreRefused) {
    struct Case {
        int width, height;
        const char* config;
        const char* message;
    };
    const Case cases[] = {
        {1080, 720, "", "[CPGL] allocateGB buffer width is not a multiple of 16"},
        {640, 480, "native.cameraHeight=481\n", "[CPGL] Could not initialize GraphicBuffer"},
    };
    for (const Case& c : cases) {
        EngineHarness h;
        host::CameraSetup setup = idleCamera(640, 480);
        setup.videoSizes.push_back({1080, 720});
        h.makeCamera(setup);
        LogCapture log;
        const std::string config = engineConfig(c.config);
        EXPECT_EQ(thrownMessage(
                      [&] { h.engine->start(h.camera, c.width, c.height, config.c_str()); }),
                  c.message);
        EXPECT_EQ(log.count(c.message, kWarn), 1);
        EXPECT_EQ(log.count(format("Setting camera video stream size to: %dx%d", c.width,
                                   c.height),
                            kInfo),
                  1);
        auto* queue = h.engine->frameQueue.data;
        ASSERT_NE(queue, nullptr);
        if (c.width == 1080) {
            for (int i = 0; i < queue->getCapacity(); ++i)
                EXPECT_EQ(queue->slots[i].buffer.data, nullptr) << i;
        }
        EXPECT_EQ(h.engine->sensorManager.data, nullptr);
        EXPECT_FALSE(h.cameraDevice->recording());
        EXPECT_EQ(h.engine->threadState.load(), 0);
        EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
        EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
        // A failed start undoes nothing; the test lets go of the handle and the grids itself.
        vStabDestroy(h.engine->vstabHandle);
        delete[] h.engine->uniform_vrtxArr;
        delete[] h.engine->vstabOutput.warpVertices;
    }
}

TEST(EngineLifecycle, StartFailuresAreLoggedThrownAndLeaveTheLocksFree) {
    EngineHarness h;
    h.makeCamera(idleCamera());
    const std::string config = engineConfig();

    {
        LogCapture log;
        EXPECT_EQ(thrownMessage([&] { h.engine->start(h.camera, 640, 480, nullptr); }),
                  "VStabConfig missing");
        EXPECT_TRUE(linesInOrder(
            log.lines(),
            {{kWarn, "Context::start, width=640, height=480"},
             {kWarn, "VStabConfig configuration in java assets was not found ... aborting"}}));
        EXPECT_EQ(log.countContaining("VStabConfig missing"), 0);
        EXPECT_EQ(vstabDouble().createCalls.load(), 0);
    }
    {
        vstabDouble().createStatus = 7;
        LogCapture log;
        EXPECT_EQ(thrownMessage([&] { h.engine->start(h.camera, 640, 480, config.c_str()); }),
                  "Could not create VStab with given configuration");
        EXPECT_EQ(log.count("Could not create VStab with given configuration", kWarn), 1);
        EXPECT_EQ(vstabDouble().createCalls.load(), 1);
        vstabDouble().createStatus = 0;
    }
    {
        vstabDouble().configNull = true;
        LogCapture log;
        EXPECT_EQ(thrownMessage([&] { h.engine->start(h.camera, 640, 480, config.c_str()); }),
                  "VStab config is not valid");
        EXPECT_EQ(log.count("VStab config is not valid", kWarn), 1);
        vstabDouble().configNull = false;
        vStabDestroy(h.engine->vstabHandle);  // a failed start keeps the handle it made
    }
    EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
    EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
    EXPECT_EQ(h.engine->threadState.load(), 0);
    EXPECT_FALSE(h.cameraDevice->recording());

    // The engine is still usable.
    h.start(config);
    EXPECT_TRUE(h.cameraDevice->recording());
    h.stop();
}

TEST(EngineLifecycle, LibraryDestroyFailureIsThrownByStop) {
    EngineHarness h;
    h.makeCamera(idleCamera());
    h.start();
    vstabDouble().destroyStatus = 9;
    LogCapture log;
    EXPECT_EQ(thrownMessage([&] { h.stop(); }), "Could not destroy VStab");
    EXPECT_EQ(log.count("Could not destroy VStab", kWarn), 1);
    EXPECT_EQ(log.count("Native stopped recording"), 0);
    EXPECT_EQ(h.engine->threadState.load(), 4);
    EXPECT_TRUE(freeForOtherThreads(h.engine->stateMutex));
    EXPECT_TRUE(freeForOtherThreads(h.engine->vstabMutex));
    vstabDouble().destroyStatus = 0;
    vStabDestroy(h.engine->vstabHandle);  // the handle the failed destroy kept
}

TEST(EngineLifecycle, CamConfigReportsVideoSizeFrameRateAndCameraField) {
    EngineHarness h;
    host::CameraSetup setup = idleCamera(1280, 720, 24);
    setup.cameraField = 0x5A5A1234;
    h.makeCamera(setup);
    LogCapture log;
    int width = 0, height = 0, fps = 0, field = 0;
    h.engine->getCamConfig(h.camera, width, height, fps, field);
    EXPECT_EQ(width, 1280);
    EXPECT_EQ(height, 720);
    EXPECT_EQ(fps, 24);
    EXPECT_EQ(field, 0x5A5A1234);
    EXPECT_TRUE(linesInOrder(log.lines(), {{kInfo, "getCamConfig, getVideoSize: 1280x720"},
                                           {kInfo, "getCamConfig, getPreviewFrameRate: 24"}}));
}

}  // namespace
