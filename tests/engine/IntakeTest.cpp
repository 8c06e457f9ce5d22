// Frame intake: which frames are queued, their release, clock, metadata and copy into the slots.
#include <binder/MemoryBase.h>
#include <binder/MemoryHeapBase.h>
#include <gtest/gtest.h>
#include <ui/GraphicBuffer.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>

#include "EngineHarness.h"
#include "EngineTestSupport.h"
#include "SystemHooks.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

constexpr int64_t kMs = 1000000;
constexpr int64_t kFramePeriodNs = 33333333;

// Frame timestamps as the camera produced them (CLOCK_MONOTONIC), in production order.
struct Produced {
    std::mutex mutex;
    std::vector<int64_t> timestamps;
    void add(int64_t ns) {
        std::lock_guard<std::mutex> lock(mutex);
        timestamps.push_back(ns);
    }
    std::vector<int64_t> snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return timestamps;
    }
};

// Camera memory of a `width` x `height` frame (or `bytes` of it): exposure 5000 us, zoom 150.
android::sp<android::IMemory> cameraMemory(int width, int height, size_t bytes = 0) {
    const host::FrameLayout layout = host::FrameLayout::forSize(width, height);
    android::sp<android::MemoryHeapBase> heap = new android::MemoryHeapBase(layout.bytes);
    const uint8_t metadata[4] = {0x88, 0x13, 0x96, 0x00};
    std::memcpy(heap->getBase(), metadata, 4);
    return new android::MemoryBase(heap, 0, bytes == 0 ? layout.bytes : bytes);
}

// The harness's periodic source 100 ms into the recording, whose timestamps go to `produced`.
std::shared_ptr<host::FrameSource> producedSource(uint64_t frames,
                                                  const std::shared_ptr<Produced>& produced,
                                                  FrameMeta meta = nullptr,
                                                  PaintFrame paint = nullptr) {
    return periodicSource(
        frames, 100 * kMs,
        [produced, meta](uint64_t n, host::FrameInfo& info) {
            if (meta)
                meta(n, info);
            produced->add(info.timestampNs);
        },
        std::move(paint));
}

enum class Fate { Skipped, Accepted, Refused, Dropped };

struct PlannedFrame {
    int64_t relativeNs;  // to the end of the start offset, in the frame clock
    Fate fate;
    bool holdStart = false;  // the library starts keeping every frame: the queue fills up
    bool inHold = false;
    bool holdEnd = false;  // the library lets frames go again
    int acceptedBefore = 0;
};

// Frames inside the start offset, accepted, duplicate, older, and five rounds of a full queue.
std::vector<PlannedFrame> planFrames(int capacity) {
    std::vector<PlannedFrame> plan;
    for (int i = 0; i < 8; ++i)
        plan.push_back({-400 * kMs + i * 40 * kMs, Fate::Skipped});
    int64_t t = 50 * kMs;
    int64_t last = 0;
    for (int round = 0; round < 5; ++round) {
        for (int step = 0; step < 200; ++step) {
            plan.push_back({t, Fate::Accepted});
            last = t;
            t += kFramePeriodNs;
            if (step % 7 == 3)
                plan.push_back({last, Fate::Refused});
            if (step % 11 == 5)
                plan.push_back({last - 10 * kMs, Fate::Refused});
        }
        for (int k = 0; k < capacity + 6; ++k) {
            plan.push_back({t, k < capacity ? Fate::Accepted : Fate::Dropped});
            plan.back().holdStart = k == 0;
            plan.back().inHold = true;
            last = t;
            t += kFramePeriodNs;
        }
        plan.push_back({last, Fate::Refused});
        plan.back().inHold = true;
        plan.back().holdEnd = true;
    }
    int accepted = 0;
    for (PlannedFrame& f : plan) {
        f.acceptedBefore = accepted;
        accepted += f.fate == Fate::Accepted ? 1 : 0;
    }
    return plan;
}

TEST(EngineIntake, EveryFrameGoesBackToTheCameraOnceWhateverBecomesOfIt) {
    constexpr int kCapacity = 16;
    constexpr int kStartOffsetUs = 300000;
    EngineHarness h(Properties{{"debug.camera.qlmr.EIS.log", "1"},
                               {"persist.qlmr.EIS.vid.startUs", std::to_string(kStartOffsetUs)}});
    const std::vector<PlannedFrame> plan = planFrames(kCapacity);
    ASSERT_GT(plan.size(), 1000u);
    const int64_t bootMinusMonotonic = clockNs(CLOCK_BOOTTIME) - clockNs(CLOCK_MONOTONIC);
    Context* engine = h.engine.get();
    auto produced = std::make_shared<Produced>();

    host::CameraSetup setup =
        sourceCamera(160, 120,
                     scriptedSource([&plan, engine, produced, bootMinusMonotonic](
                                        uint64_t n, int64_t, host::FrameInfo& info) {
                         if (n >= plan.size())
                             return false;
                         // Relative to the end of the start offset, sent on CLOCK_MONOTONIC.
                         info.timestampNs = engine->startRecordTimestamp + kStartOffsetUs * 1000LL -
                                            bootMinusMonotonic + plan[n].relativeNs;
                         produced->add(info.timestampNs);
                         return true;
                     }));
    // Each frame goes once the engine is where the plan needs it (a gate stuck for 15 s opens).
    struct GateState {
        size_t waitingFor = SIZE_MAX;
        std::chrono::steady_clock::time_point since;
        std::atomic<bool> timedOut{false};
    };
    auto gate = std::make_shared<GateState>();
    setup.gate = [&plan, &h, engine, gate](uint64_t n, int64_t) {
        if (n >= plan.size() || gate->timedOut.load())
            return true;  // once the plan is off, let the rest through to fail fast
        const PlannedFrame& f = plan[n];
        const int warped = vstabDouble().warpedOk.load();
        bool open = f.inHold && !f.holdStart && !f.holdEnd;
        if (f.holdStart) {
            open = warped == f.acceptedBefore && engine->frameQueue->size() == 0;
        } else if (f.holdEnd) {
            // Only once every frame captured earlier has met the full queue.
            open = h.cameraDevice->counters().released >= n;
        } else if (!f.inHold) {
            open = f.acceptedBefore - warped <= kCapacity - 4;
        }
        auto now = std::chrono::steady_clock::now();
        if (!open && gate->waitingFor != n) {
            gate->waitingFor = n;
            gate->since = now;
        } else if (!open && now - gate->since > 15s) {
            gate->timedOut = true;
            open = true;
        }
        if (open && f.holdStart)
            vstabDouble().hold = true;
        if (open && f.holdEnd)
            vstabDouble().hold = false;
        return open;
    };
    h.makeCamera(setup);

    LogCapture log;
    h.start();
    ASSERT_EQ(h.engine->frameQueue->getCapacity(), kCapacity);
    auto planned = [&plan](Fate fate) {
        return std::count_if(plan.begin(), plan.end(),
                             [&](const auto& f) { return f.fate == fate; });
    };
    EXPECT_TRUE(h.cameraDevice->waitUntilDrained(120s));
    EXPECT_TRUE(waitFor([&] { return h.cameraDevice->counters().released >= plan.size(); }, 10s));
    EXPECT_TRUE(
        waitFor([&] { return vstabDouble().warpedOk.load() >= planned(Fate::Accepted); }, 10s));
    h.stop();
    EXPECT_FALSE(gate->timedOut.load()) << "the engine did not reach the planned state";

    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.delivered, plan.size());
    EXPECT_EQ(counters.released, plan.size());
    EXPECT_EQ(counters.releaseErrors, 0u);

    // Exactly the accepted frames reached the library, in order, in the frame clock.
    const int64_t diff = Boottime_Monotonic_timerDiff;
    EXPECT_LT(std::llabs(diff - bootMinusMonotonic), 1 * kMs);
    std::vector<int64_t> sent = produced->snapshot();
    ASSERT_EQ(sent.size(), plan.size());
    std::vector<int64_t> expected;
    for (size_t n = 0; n < plan.size(); ++n) {
        if (plan[n].fate == Fate::Accepted)
            expected.push_back(sent[n] + diff);
    }
    std::vector<int64_t> warped = snapshot(vstabDouble().warpTimestamps);
    warped.erase(std::unique(warped.begin(), warped.end()), warped.end());  // retries folded
    EXPECT_EQ(warped, expected);

    EXPECT_EQ(log.count("[VStab] frame timestamp within StartTimeOffsetUs(" +
                            std::to_string(kStartOffsetUs) + "), skip this frame",
                        kWarn),
              planned(Fate::Skipped));
    EXPECT_EQ(log.count("[VStab] error, duplicate frame timestamp, ignore this frame", kWarn),
              planned(Fate::Refused));
    EXPECT_EQ(log.count("[Warning] Dropping new frame, internal buffer queue is full", kWarn),
              planned(Fate::Dropped));
}

// Frames fed to the listener directly; a failed measurement counts as one and keeps the offset.
TEST(EngineIntake, FailedOffsetMeasurementKeepsTheStoredOffset) {
    EngineHarness h;  // resumed: the offset is to be measured again
    h.makeCamera(idleCamera(640, 480));
    {
        LogCapture log;
        EXPECT_EQ(thrownMessage([&] {
                      h.engine->metaCallbackTimestamp(1000, 1.0f, VSTAB_GRID_ROTATION_90, 33000000);
                  }),
                  "Make sure used timestamp is corrected for gyro frame offset");
        EXPECT_TRUE(log.lines().empty());
        EXPECT_EQ(vstabDouble().createCalls.load() + vstabDouble().warpCalls.load() +
                      vstabDouble().addCalls.load(),
                  0);
    }
    h.start();
    ASSERT_EQ(Boottime_Monotonic_timerDiff_got, 0);
    constexpr int64_t kStored = 123456789;
    Boottime_Monotonic_timerDiff = kStored;
    const int64_t first = clockNs(CLOCK_BOOTTIME) + 500 * kMs;
    const std::string metadataOnly =
        "[Error] dataCallbackTimestamp returned camera proxy buffer has metadata";
    const struct {
        size_t size;
        bool reported;
    } cases[] = {{0, false}, {512, true}, {999, true}, {1000, false}};
    LogCapture log;
    int reported = 0;
    for (size_t k = 0; k < std::size(cases); ++k) {
        systemhooks::failBoottimeReadsOnThisThread(k == 0);
        h.engine->listener->dataCallbackTimestamp(first + static_cast<int64_t>(k) * kFramePeriodNs,
                                                  CAMERA_MSG_VIDEO_FRAME,
                                                  cameraMemory(640, 480, cases[k].size));
        systemhooks::failBoottimeReadsOnThisThread(false);
        reported += cases[k].reported;
        EXPECT_EQ(log.count(metadataOnly, kWarn), reported) << cases[k].size;
        // Handed back once (the host camera does not know this memory: a release error).
        const int taken = static_cast<int>(k) + 1;
        ASSERT_TRUE(waitFor([&] { return vstabDouble().warpedOk.load() == taken; }, 5s));
        EXPECT_EQ(h.cameraDevice->counters().releaseErrors, k + 1);
    }
    EXPECT_EQ(Boottime_Monotonic_timerDiff_got, 1);
    EXPECT_EQ(Boottime_Monotonic_timerDiff, kStored);
    EXPECT_EQ(log.countContaining("got Boottime_Monotonic_timerDiff"), 1);
    std::vector<VStabFrameInfo> infos = snapshot(vstabDouble().warpInfos);
    ASSERT_EQ(infos.size(), std::size(cases));
    for (size_t k = 0; k < infos.size(); ++k) {
        EXPECT_EQ(infos[k].timestampNs, first + static_cast<int64_t>(k) * kFramePeriodNs + kStored);
        EXPECT_EQ(infos[k].exposureNs, 5000000);
        EXPECT_FLOAT_EQ(infos[k].zoom, 1.5f);
    }
    EXPECT_EQ(h.cameraDevice->counters().released, 0u);
}

// Metadata read from the image; the clock offset measured once per resume, on CLOCK_BOOTTIME.
TEST(EngineIntake, ExposureAndZoomAreReadFromTheImageCheckedAndClamped) {
    struct Meta {
        uint16_t exposureUs;
        uint16_t zoomX100;
        bool jumpWarning;  // against the frame before (not checked for the first frame)
        bool zoomWarning;
        int64_t exposureNs;
        float zoom;
    };
    const Meta frames[] = {
        {10000, 100, false, false, 10000000, 1.0f},
        {10000, 0, false, true, 10000000, 1.0f},    // zoom not written
        {10400, 99, false, true, 10400000, 1.0f},   // 4 % jump: tolerated
        {11000, 100, true, false, 11000000, 1.0f},  // 5.5 % jump
        {65535, 500, true, false, 65535000, 5.0f},
        {65535, 501, false, true, 65535000, 5.0f},
        {1, 650, true, true, 1000, 5.0f},
        {0, 100, true, false, 0, 1.0f},
        {0, 250, false, false, 0, 2.5f},
        {20000, 100, false, false, 20000000, 1.0f},  // after a zero exposure: no comparison
    };
    constexpr size_t kFrames = sizeof(frames) / sizeof(frames[0]);
    EngineHarness h(Properties{{"debug.camera.qlmr.EIS.log", "1"}});
    auto produced = std::make_shared<Produced>();
    host::CameraSetup setup = sourceCamera(
        320, 240, producedSource(kFrames, produced, [&frames](uint64_t n, host::FrameInfo& info) {
            info.exposureUs = frames[n].exposureUs;
            info.zoomX100 = frames[n].zoomX100;
        }));
    paceByWarps(setup);
    h.makeCamera(setup);
    const int64_t bootMinusMonotonic = clockNs(CLOCK_BOOTTIME) - clockNs(CLOCK_MONOTONIC);
    const std::string jump =
        "[Warning] Big exposure jump or exposure not written in the frames, please capture in "
        "good light - through a window - and see whether this error will stay";
    const std::string zoom = "[Warning] VStab frame zoom is not written in the frames";

    constexpr int64_t kMeasured = INT64_MIN;  // expected shift: the offset in store afterwards
    const struct {
        int frameClock;
        bool resume;
        int64_t stored;  // set before the recording; 0: left as it is
        int64_t expectedDiff;
        int measurements;
    } cases[] = {
        {CLOCK_BOOTTIME, false, 777777, kMeasured, 1},
        {CLOCK_BOOTTIME, false, 0, kMeasured, 0},
        {CLOCK_MONOTONIC, true, 5000, 5000, 0},
        {CLOCK_BOOTTIME, true, 0, kMeasured, 1},
    };
    size_t recordings = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "recording " << recordings);
        vstabDouble().clockIdFrame = c.frameClock;
        if (c.resume) {
            h.engine->onPause();
            h.engine->onResume();
        }
        if (c.stored != 0)
            Boottime_Monotonic_timerDiff = c.stored;
        const int64_t before = Boottime_Monotonic_timerDiff;
        LogCapture log;
        h.start();
        ++recordings;
        ASSERT_TRUE(waitFor(
            [&] {
                return static_cast<size_t>(vstabDouble().warpedOk.load()) == kFrames * recordings;
            },
            10s));
        h.stop();
        EXPECT_EQ(log.countContaining("[VStab] got Boottime_Monotonic_timerDiff: "),
                  c.measurements);
        if (c.measurements == 1) {
            EXPECT_LT(std::llabs(Boottime_Monotonic_timerDiff - bootMinusMonotonic), 1 * kMs);
        } else {
            EXPECT_EQ(Boottime_Monotonic_timerDiff, before);
        }
        const int64_t diff =
            c.expectedDiff == kMeasured ? Boottime_Monotonic_timerDiff : c.expectedDiff;
        std::vector<VStabFrameInfo> infos = snapshot(vstabDouble().warpInfos);
        std::vector<int64_t> sent = produced->snapshot();
        ASSERT_EQ(infos.size(), kFrames * recordings);
        ASSERT_EQ(sent.size(), infos.size());
        for (size_t i = 0; i < kFrames; ++i) {
            const size_t n = infos.size() - kFrames + i;
            EXPECT_EQ(infos[n].timestampNs, sent[n] + diff) << i;
            EXPECT_EQ(infos[n].exposureNs, frames[i].exposureNs) << i;
            EXPECT_FLOAT_EQ(infos[n].zoom, frames[i].zoom) << i;
        }

        // Intake logs its warnings for a frame before that frame's metadata line.
        int jumps = 0, zooms = 0;
        size_t frame = 0;
        for (const LogLine& l : log.lines()) {
            jumps += l.text == jump;
            zooms += l.text == zoom;
            if (l.text.compare(0, 20, "Frame Metadata Zoom ") == 0 && frame < kFrames) {
                if (frame > 0) {  // the first frame has no frame before it to compare with
                    EXPECT_EQ(jumps, frames[frame].jumpWarning ? 1 : 0) << "frame " << frame;
                }
                EXPECT_EQ(zooms, frames[frame].zoomWarning ? 1 : 0) << "frame " << frame;
                jumps = zooms = 0;
                ++frame;
            }
        }
        EXPECT_EQ(frame, kFrames);
    }
}

// A byte of camera frame memory, padding included, unlike its neighbours' and other frames'.
uint8_t cameraByte(size_t offset, uint64_t frame) {
    return static_cast<uint8_t>(offset * 31 + (offset >> 8) * 7 + (offset >> 16) * 3 + frame * 13);
}

TEST(EngineIntake, SlotBuffersHoldTheCameraPictureWhateverTheCameraPitch) {
    struct Case {
        int width;
        int height;
        int configuredUvOffset;  // -1: not configured
    };
    // Camera pitch 640 or 1152 (slot 1088); chroma after padding rows; offset from the slot's.
    for (Case c :
         {Case{640, 360, -1}, Case{1088, 720, -1}, Case{640, 360, 1280}, Case{1088, 720, 1280}}) {
        SCOPED_TRACE(testing::Message()
                     << c.width << "x" << c.height << " uv " << c.configuredUvOffset);
        EngineHarness h;
        struct ReleaseHold {
            ~ReleaseHold() { vstabDouble().hold = false; }
        } releaseHold;
        vstabDouble().hold = true;  // frames stay in their slots
        const host::FrameLayout layout = host::FrameLayout::forSize(c.width, c.height);
        auto produced = std::make_shared<Produced>();
        h.makeCamera(sourceCamera(c.width, c.height,
                                  producedSource(
                                      3, produced,
                                      [](uint64_t n, host::FrameInfo& info) {
                                          info.exposureUs = static_cast<uint16_t>(8000 + n);
                                          info.zoomX100 = 120;
                                      },
                                      [layout](uint64_t n, const host::FrameImage& image) {
                                          for (size_t offset = 0; offset < layout.bytes; ++offset)
                                              image.luma[offset] = cameraByte(offset, n);
                                      })));
        h.start(c.configuredUvOffset == -1
                    ? engineConfig()
                    : engineConfig("native.cameraUvOffset=" + std::to_string(c.configuredUvOffset) +
                                   "\n"));
        ASSERT_TRUE(waitFor([&] { return h.cameraDevice->counters().released == 3; }, 10s));
        std::vector<int64_t> sent = produced->snapshot();

        auto* queue = h.engine->frameQueue.data;
        int checked = 0;
        for (int s = 0; s < queue->getCapacity(); ++s) {
            Context::VStabFrame& slot = queue->slots[s];
            pthread_mutex_lock(&slot.mutex.mutex);
            uint64_t frame = 3;
            for (uint64_t n = 0; n < 3; ++n) {
                if (slot.info.timestampNs == sent[n] + Boottime_Monotonic_timerDiff)
                    frame = n;
            }
            if (frame < 3) {
                const android::sp<android::GraphicBuffer>& gb = slot.buffer->buffer;
                const size_t stride = gb->getStride();
                void* vaddr = nullptr;
                ASSERT_EQ(gb->lock(GRALLOC_USAGE_SW_READ_OFTEN, &vaddr), 0);
                const auto* pixels = static_cast<const uint8_t*>(vaddr);
                auto camera = [&](size_t offset) {
                    const uint8_t metadata[4] = {static_cast<uint8_t>((8000 + frame) & 0xFF),
                                                 static_cast<uint8_t>((8000 + frame) >> 8), 120, 0};
                    return offset < 4 ? metadata[offset] : cameraByte(offset, frame);
                };
                const size_t uvOffset = c.configuredUvOffset == -1
                                            ? layout.chromaOffset
                                            : stride * c.height + c.configuredUvOffset;
                // The first of `rows` rows that differs from the camera's, or -1.
                auto firstWrongRow = [&](int rows, size_t slotOffset, size_t cameraOffset) {
                    for (int y = 0; y < rows; ++y) {
                        for (int x = 0; x < c.width; ++x) {
                            if (pixels[slotOffset + y * stride + x] !=
                                camera(cameraOffset + y * layout.pitch + x))
                                return y;
                        }
                    }
                    return -1;
                };
                EXPECT_EQ(firstWrongRow(c.height, 0, 0), -1) << "luma of frame " << frame;
                EXPECT_EQ(firstWrongRow(c.height / 2, stride * c.height, uvOffset), -1)
                    << "chroma of frame " << frame;
                gb->unlock();
                ++checked;
            }
            pthread_mutex_unlock(&slot.mutex.mutex);
        }
        EXPECT_EQ(checked, 3);
    }
}

}  // namespace
