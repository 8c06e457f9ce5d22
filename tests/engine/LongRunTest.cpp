// Long runs checked for growth; each prints its "[long-run]" figures for docs/reliability.md.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <fstream>
#include <string>

#include "EngineHarness.h"
#include "EngineTestSupport.h"

namespace {

using namespace std::chrono_literals;
using namespace enginetest;

struct ProcessFigures {
    long rssKiB = 0;
    int threads = 0;
    int fds = 0;
};

int entriesIn(const char* directory) {
    int count = 0;
    if (DIR* dir = opendir(directory)) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.')
                ++count;
        }
        closedir(dir);
    }
    return count;
}

ProcessFigures processFigures() {
    ProcessFigures figures;
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0)
            figures.rssKiB = std::stol(line.substr(6));
    }
    figures.threads = entriesIn("/proc/self/task");
    figures.fds = entriesIn("/proc/self/fd") - 1;  // less the directory stream itself
    return figures;
}

// Counts what a window receives, keeping no pixels, and the timestamps that do not rise.
struct CountingSink : host::FrameSink {
    std::atomic<size_t> count{0};
    std::atomic<size_t> outOfOrder{0};
    int64_t last = INT64_MIN;  // the window's consumer thread's own
    void onFrame(const host::Frame& frame) override {
        outOfOrder += frame.timestampNs <= last ? 1 : 0;
        last = frame.timestampNs;
        ++count;
    }
};

// Resident memory may move by allocator caching; threads and descriptors must come back.
constexpr long kRssSlackKiB = 4096;

// 200 recordings in one GL session (one window: the session caches its buffers), 100 sessions.
TEST(EngineLongRun, StartStopAndPauseResumeCyclesGrowNothing) {
    for (bool sessions : {false, true}) {
        ScopedGyro gyro(std::make_shared<host::SyntheticGyroSource>(), 2500);
        EngineHarness h;
        host::CameraSetup setup = sourceCamera(320, 240, periodicSource(5, 20000000));
        paceByWarps(setup);
        h.makeCamera(setup);
        const int kCycles = sessions ? 100 : 200, kWarmUp = 10;
        auto sink = std::make_shared<CountingSink>();
        ProcessFigures warm;
        android::sp<ANativeWindow> shared = sessions ? nullptr : connectedWindow(sink, 160, 96);
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            if (sessions && cycle > 0)
                h.engine->onResume();
            android::sp<ANativeWindow> window = sessions ? connectedWindow(sink, 160, 96) : shared;
            h.engine->jsm.addSurface(1, window);
            h.start();
            ASSERT_TRUE(waitFor([&] { return sink->count.load() >= 5u * (cycle + 1); }, 20s))
                << cycle;
            finishesWithin(20000ms, "stop", [&] { h.stop(); });
            h.engine->jsm.remSurface(1);
            if (sessions)
                native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_CPU);
            vstabDouble().clearRecords();
            if (cycle + 1 == kWarmUp)
                warm = processFigures();
            if (sessions && cycle + 1 < kCycles)
                h.engine->onPause();  // the last pause is the harness's
        }
        const ProcessFigures end = processFigures();
        std::printf(
            "[long-run] %s: %d cycles; after warm-up rss %ld KiB, threads %d, fds %d; "
            "at the end rss %ld KiB (%+ld), threads %d, fds %d\n",
            sessions ? "onPause/onResume" : "start/stop", kCycles, warm.rssKiB, warm.threads,
            warm.fds, end.rssKiB, end.rssKiB - warm.rssKiB, end.threads, end.fds);
        EXPECT_EQ(sink->count.load(), 5u * kCycles);
        EXPECT_EQ(h.cameraDevice->counters().released, 5u * kCycles);
        EXPECT_EQ(vstabDouble().liveHandles.load(), 0);
        EXPECT_LE(end.threads, warm.threads);  // a thread still ending at warm-up may be gone
        EXPECT_EQ(end.fds, warm.fds);
        EXPECT_LT(end.rssKiB - warm.rssKiB, kRssSlackKiB);
    }
}

// 50,000 paced frames: memory flat after the first 5,000, every frame out once, in order.
TEST(EngineLongRun, FiftyThousandFrameRecordingKeepsMemoryFlatAndLosesNoFrame) {
    constexpr uint64_t kFrames = 50000, kStep = 5000;
    ScopedGyro gyro(std::make_shared<host::SyntheticGyroSource>(), 2500);
    EngineHarness h;
    host::CameraSetup setup = sourceCamera(160, 96, periodicSource(kFrames, 20000000));
    paceByWarps(setup);
    h.makeCamera(setup);
    auto sink = std::make_shared<CountingSink>();
    android::sp<ANativeWindow> window = connectedWindow(sink, 160, 96);
    h.engine->jsm.addSurface(1, window);
    h.start();
    ProcessFigures warm;
    ProcessFigures most;  // the largest figures seen after the warm-up, while frames flow
    for (uint64_t done = kStep; done <= kFrames; done += kStep) {
        ASSERT_TRUE(waitFor([&] { return sink->count.load() >= done; }, 300s)) << done;
        vstabDouble().clearRecords();
        const ProcessFigures now = processFigures();
        std::printf("[long-run] %llu frames: rss %ld KiB, threads %d, fds %d\n",
                    static_cast<unsigned long long>(done), now.rssKiB, now.threads, now.fds);
        if (done == kStep) {
            warm = now;
        } else if (done < kFrames) {  // at the last frame the camera's thread has ended
            most.rssKiB = std::max(most.rssKiB, now.rssKiB);
            most.threads = std::max(most.threads, now.threads);
            most.fds = std::max(most.fds, now.fds);
        }
    }
    finishesWithin(20000ms, "stop", [&] { h.stop(); });
    h.engine->jsm.remSurface(1);
    native_window_api_disconnect(window.get(), NATIVE_WINDOW_API_CPU);
    host::CameraCounters counters = h.cameraDevice->counters();
    EXPECT_EQ(counters.delivered, kFrames);
    EXPECT_EQ(counters.released, kFrames);
    EXPECT_EQ(sink->count.load(), kFrames);
    EXPECT_EQ(sink->outOfOrder.load(), 0u);
    EXPECT_LT(most.rssKiB - warm.rssKiB, kRssSlackKiB);
    EXPECT_EQ(most.threads, warm.threads);
    EXPECT_EQ(most.fds, warm.fds);
}

}  // namespace
