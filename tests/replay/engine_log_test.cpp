// Reading the engine's log: timing probe lines and the frame-fate lines, through liblog's
// logger hook from several threads.
#include "TestUtil.h"
#include "measure/EngineLog.h"

#include <android/log.h>

#include <chrono>
#include <future>
#include <thread>

using namespace qlmr::replay;

TEST(EngineLog, ParsesTimingLines) {
    TimingLine t;
    ASSERT_TRUE(parseTimingLine("[cTTiming][Render()] Render(8.25) popFrame(1.52) ", t));
    EXPECT_EQ(t.probe, "Render()");
    EXPECT_EQ(t.stages,
              (std::vector<std::pair<std::string, double>>{{"Render", 8.25}, {"popFrame", 1.52}}));

    ASSERT_TRUE(parseTimingLine("[cTTiming]VStab(0.031) sleep(1e-05) ", t));  // no probe name
    EXPECT_EQ(t.probe, "");
    EXPECT_EQ(t.stages.back(), std::make_pair(std::string("sleep"), 1e-05));

    ASSERT_TRUE(parseTimingLine("[cTTiming][MainThread()] ", t));  // no stages
    EXPECT_EQ(t.probe, "MainThread()");
    EXPECT_TRUE(t.stages.empty());

    EXPECT_FALSE(parseTimingLine("[VStab] Frame: 12", t));
    EXPECT_FALSE(parseTimingLine("[cTTiming][x] label(abc) ", t));
    EXPECT_FALSE(parseTimingLine("[cTTiming][x] label ", t));
}

TEST(EngineLog, CountsFrameFatesAndCollectsStageTimes) {
    EngineLogStats s;
    s.add(ANDROID_LOG_WARN, "[Warning] Dropping new frame, internal buffer queue is full");
    s.add(ANDROID_LOG_WARN, "[Warning] Dropping new frame, internal buffer queue is full");
    s.add(ANDROID_LOG_INFO, "[VStab][Status] use uniform_vrtxArr to Render");
    s.add(ANDROID_LOG_INFO,
          "[VStab][Status] frameQueue almost full, use uniform_vrtxArr to Render");
    // Counted once, by the line above.
    s.add(ANDROID_LOG_INFO, "[VStab][Status] no Gyro Information before Frame 5 (1)");
    s.add(ANDROID_LOG_WARN, "[Exception] VStab returned error in main loop");
    s.add(ANDROID_LOG_ERROR, " void Context::Render() 12 (1282)");
    for (double ms : {1.0, 2.0, 3.0, 4.0}) {
        s.add(ANDROID_LOG_WARN, "[cTTiming][Render()] Render(" + std::to_string(ms) + ") ");
    }
    EXPECT_EQ(s.droppedQueueFull, 2);
    EXPECT_EQ(s.renderedUnstabilized, 2);
    EXPECT_EQ(s.exceptions, 1);
    EXPECT_EQ(s.exceptionTexts, std::vector<std::string>{"VStab returned error in main loop"});
    EXPECT_EQ(s.errors, 1);
    const auto p = s.stagePercentiles();
    ASSERT_EQ(p.count("Render()/Render"), 1u);
    EXPECT_DOUBLE_EQ(p.at("Render()/Render").p50, 2.0);
    EXPECT_DOUBLE_EQ(p.at("Render()/Render").max, 4.0);
}

TEST(EngineLog, CountsExpectedLinesApartFromWarningsAndErrors) {
    // (priority, line, counted as): w warning, e error, x expected, - neither (diagnostics).
    const struct {
        int priority;
        const char* text;
        char counted;
    } lines[] = {
        {ANDROID_LOG_WARN, "[Warning] Gyro and system clock deviate with more than 200ms, ", 'x'},
        {ANDROID_LOG_ERROR, "GBM creating new GLGB for 0x7feb9c0017e0", 'x'},
        {ANDROID_LOG_WARN, "[Warning] Received invalid gyro sample timestamp (ignoring sample)",
         'w'},
        {ANDROID_LOG_WARN, "[Error] Could not query clockIdGyro timer", 'w'},
        {ANDROID_LOG_WARN, "[Exception] VStab returned error in main loop", 'w'},
        {ANDROID_LOG_ERROR, "[Warning] Gyro and system clock deviate with more than 200ms", 'e'},
        {ANDROID_LOG_ERROR, " void Context::Render() 12 (1282)", 'e'},
        {ANDROID_LOG_WARN, "GBM creating new GLGB for 0x1", '-'},
        {ANDROID_LOG_WARN, "[VStab] Gyro: 1000 ( 0.1 0.2 0.3 )", '-'},
        {ANDROID_LOG_WARN, "[cTTiming][Render()] Render(1.5) ", '-'},
        {ANDROID_LOG_INFO, "[Warning] at info level", '-'},
    };
    for (const auto& l : lines) {
        EngineLogStats s;
        s.add(l.priority, l.text);
        int expected = 0;
        for (const auto& [kind, n] : s.expectedLines)
            expected += n;
        EXPECT_EQ(s.warnings, l.counted == 'w' ? 1 : 0) << l.text;
        EXPECT_EQ(s.errors, l.counted == 'e' ? 1 : 0) << l.text;
        EXPECT_EQ(expected, l.counted == 'x' ? 1 : 0) << l.text;
    }
    EngineLogStats s;
    for (const auto& l : lines)
        s.add(l.priority, l.text);
    EXPECT_EQ(s.expectedLines,
              (std::map<std::string, int>{{"gl_buffer_setup", 1}, {"gyro_clock_ahead", 1}}));
}

TEST(EngineLogTap, CapturesLinesFromEveryThreadAndWritesTheLog) {
    replay_test::TempDir dir;
    auto run = [&] {
        EngineLogTap tap(dir.file("engine.log"));
        EXPECT_THROW(EngineLogTap second, ReplayError);  // one at a time
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([] {
                for (int i = 0; i < 50; ++i) {
                    __android_log_print(ANDROID_LOG_WARN, "[QLMR]",
                                        "[cTTiming][gyroCallbackTimestamp()] deltaTime(%d) \n", i);
                }
            });
        }
        for (auto& t : threads)
            t.join();
        __android_log_print(ANDROID_LOG_WARN, "[QLMR]", "%s",
                            "[Warning] Dropping new frame, internal buffer queue is full");
        return tap.stats();
    };
    auto f = std::async(std::launch::async, run);
    ASSERT_EQ(f.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    const EngineLogStats s = f.get();
    ASSERT_EQ(s.stageMs.count("gyroCallbackTimestamp()/deltaTime"), 1u);
    EXPECT_EQ(s.stageMs.at("gyroCallbackTimestamp()/deltaTime").size(), 200u);
    EXPECT_EQ(s.droppedQueueFull, 1);
    const std::string log = replay_test::readText(dir.file("engine.log"));
    EXPECT_NE(log.find("5 [QLMR] [Warning] Dropping new frame"), std::string::npos);
    // After the tap is gone a new one may be installed.
    EngineLogTap again;
}
