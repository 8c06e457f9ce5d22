// The engine's log (timing and frame-fate lines, from every thread), metrics.json and report.html.
#include "FinishesWithin.h"
#include "TestUtil.h"
#include "measure/EngineLog.h"
#include "measure/Metrics.h"
#include "media/Ffmpeg.h"
#include "media/ImageIo.h"
#include "report/Report.h"

#include <android/log.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <limits>
#include <set>
#include <thread>

using namespace qlmr::replay;

TEST(Report, IsSelfContainedQuotesTheCommandAndListsWarningsNotesAndEngineLinesApart) {
    EXPECT_EQ(base64({'M', 'a', 'n'}), "TWFu");
    EXPECT_EQ(base64({'M', 'a'}), "TWE=");
    EXPECT_EQ(base64({'M'}), "TQ==");
    ReplayMetrics m;
    m.inputDescription = "a \"quoted\" <input>\n";
    m.framesIn = 2;
    m.framesPerSurface = {3, 4};
    m.pixelJitterRatio = std::numeric_limits<double>::infinity();
    m.crop.minCropping = std::nan("");
    m.warnings = {"12 input frame pairs could not be registered"};
    m.notes = {"engine session: 103 frames delivered, 0 dropped by the camera"};
    m.engine.warnings = 2;
    m.engine.expectedLines = {{"gyro_clock_ahead", 1712}, {"gl_buffer_setup", 3}};
    // metrics.json: unknown figures are null, no ground truth without a synthetic recording.
    const auto j = nlohmann::json::parse(metricsJson(m));
    EXPECT_EQ(j["input"]["description"], m.inputDescription);
    EXPECT_EQ(j["frames"]["per_surface"], nlohmann::json({3, 4}));
    EXPECT_TRUE(j["pixel_motion"]["jitter_ratio"].is_null());
    EXPECT_TRUE(j["cropping"]["min_cropping"].is_null());
    EXPECT_TRUE(j["ground_truth"].is_null());
    EXPECT_EQ(j["notes"], nlohmann::json(m.notes));
    EXPECT_EQ(j["warnings"], nlohmann::json(m.warnings));
    EXPECT_EQ(j["engine_log"]["expected_lines"]["gyro_clock_ahead"], 1712);
    m.hasTruth = true;
    m.truth.actual.t = {0, 1};
    m.truth.actual.x = {0, 1};
    m.truth.actual.y = {0, 1};
    m.truth.actual.roll = {0, 1};
    FramePair pair;
    pair.before = replay_test::gradient(32, 16);
    pair.after = replay_test::gradient(32, 16);
    const std::string html = reportHtml(
        m, {pair},
        ReportContext{
            "qlmr_replay --dry-run", {{"metrics.json", "figures"}}, "vstab.lensK1=0.1 # <b>\n"});
    EXPECT_THAT(html, HasSubstr("a &quot;quoted&quot; &lt;input&gt;"));
    EXPECT_THAT(html, HasSubstr("vstab.lensK1=0.1 # &lt;b&gt;"));  // the configuration
    EXPECT_THAT(html, HasSubstr("data:image/jpeg;base64,/9j/"));   // JPEG magic in base64
    // Everything is inline: no element loads a file or an address.
    for (const char* loads : {"src=\"http", "href=\"http", "<script src", "<link"})
        EXPECT_EQ(html.find(loads), std::string::npos) << loads;
    EXPECT_THAT(html, HasSubstr("Residual jitter (ground truth)"));
    // The plot data: three camera-path plots (with ground truth) and three from the pixels and
    // the latency; each div names its entry.
    const std::string open = "<script type=\"application/json\" id=\"plot-data\">";
    const size_t begin = html.find(open) + open.size();
    ASSERT_NE(begin, std::string::npos + open.size());
    const auto plots =
        nlohmann::json::parse(html.substr(begin, html.find("</script>", begin) - begin));
    ASSERT_EQ(plots.size(), 7u);
    EXPECT_THAT(html, HasSubstr("<div class=\"plot\" data-plot=\"6\">"));
    EXPECT_EQ(plots[0]["title"], "Camera path: horizontal (x)");
    EXPECT_EQ(plots[0]["series"][0]["y"], nlohmann::json({0, 1}));
    EXPECT_EQ(plots[0]["series"][2]["dashed"], true);  // the intended path
    // Each list holds its own lines only.
    const size_t warnings = html.find("<h2>Warnings</h2>");
    const size_t notes = html.find("<h2>Notes</h2>");
    ASSERT_NE(warnings, std::string::npos);
    ASSERT_NE(notes, std::string::npos);
    const size_t warning = html.find(m.warnings[0]), note = html.find(m.notes[0]);
    EXPECT_TRUE(warning > warnings && (warning < notes || notes < warnings));
    EXPECT_TRUE(note > notes && (note < warnings || warnings < notes));
    EXPECT_EQ(html.find(m.notes[0], note + 1), std::string::npos);
    EXPECT_THAT(html, HasSubstr("<td>2 / 0</td><td class=\"note\">expected lines, not counted: 3 "
                                "gl_buffer_setup, 1712 gyro_clock_ahead</td>"));
    const struct {
        std::vector<std::string> args;
        const char* quoted;
    } cases[] = {
        {{"qlmr_replay", "--out", "/tmp/a-b_c/x.y", "--size=320x240"},
         "qlmr_replay --out /tmp/a-b_c/x.y --size=320x240"},
        {{"qlmr_replay", "--input", "my recording"}, "qlmr_replay --input 'my recording'"},
        {{"a", ""}, "a ''"},
        {{"it's"}, "'it'\\''s'"},
        {{"$HOME", "*.png", "a;b", "x\"y"}, "'$HOME' '*.png' 'a;b' 'x\"y'"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(shellQuote(c.args), c.quoted);
    const char* argv[] = {"qlmr_replay", "--scene", "a b.png"};
    EXPECT_EQ(shellQuote(3, argv), "qlmr_replay --scene 'a b.png'");
}

// Requests the browser made for the page (network isolation key file://) in a NetLog file.
static std::vector<std::string> pageRequests(const std::string& netLogPath) {
    const auto log = nlohmann::json::parse(replay_test::readText(netLogPath));
    const int startJob = log["constants"]["logEventTypes"]["URL_REQUEST_START_JOB"];
    std::vector<std::string> urls;
    for (const auto& e : log["events"]) {
        const auto& p = e.value("params", nlohmann::json::object());
        if (e["type"] == startJob && p.value("network_isolation_key", "").rfind("file://", 0) == 0)
            urls.push_back(p.value("url", ""));
    }
    return urls;
}

TEST(Report, RendersInHeadlessChromiumWithoutNetwork) {
    const std::string chromium = findProgram("chromium");
    if (chromium.empty())
        GTEST_SKIP() << "chromium is not installed (Debian package chromium)";
    replay_test::TempDir dir;
    const std::string cmd =
        std::string(QLMR_REPLAY_BIN) +
        " --dry-run --quiet --no-mp4 --seconds 1 --size 320x240 --scene procedural --out " +
        dir.file("out");
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    // Opens a page with extra options; the page's DOM after its scripts ran goes to `dom`.
    auto browse = [&](const std::string& page, const std::string& options, const std::string& dom) {
        const std::string cmd = "timeout 120 " + chromium +
                                " --headless --no-sandbox --disable-gpu --disable-quic "
                                "--no-first-run --disable-background-networking "
                                "--disable-component-update --disable-sync --user-data-dir=" +
                                dir.file("profile") + " --window-size=1200,2400 " + options +
                                " file://" + page + " >" + dom + " 2>/dev/null";
        ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    };
    // The page loads nothing over the network; the check does see a page that does.
    browse(dir.file("out/report.html"), "--dump-dom --log-net-log=" + dir.file("net.json"),
           dir.file("dom.html"));
    EXPECT_EQ(pageRequests(dir.file("net.json")), std::vector<std::string>{});
    replay_test::writeText(dir.file("fetching.html"), "<img src=\"http://example.invalid/a.png\">");
    browse(dir.file("fetching.html"), "--dump-dom --log-net-log=" + dir.file("net2.json"),
           dir.file("dom2.html"));
    EXPECT_EQ(pageRequests(dir.file("net2.json")),
              std::vector<std::string>{"http://example.invalid/a.png"});

    // uPlot drew all 11 plots (camera path 3, from pixels 3, picture kept 1, gyro 3, latency 1).
    const std::string dom = replay_test::readText(dir.file("dom.html"));
    for (const std::string what : {"data-plot=", "<canvas", "class=\"u-legend"}) {
        size_t n = 0;
        for (size_t p = dom.find(what); p != std::string::npos; p = dom.find(what, p + 1))
            ++n;
        EXPECT_EQ(n, 11u) << what;
    }

    browse(dir.file("out/report.html"), "--screenshot=" + dir.file("shot.png"),
           dir.file("screenshot.log"));
    const RgbImage shot = readImage(dir.file("shot.png"));
    EXPECT_EQ(shot.height, 2400);
    std::set<uint32_t> colours;
    for (size_t i = 0; i < shot.data.size(); i += 3)
        colours.insert(shot.data[i] << 16 | shot.data[i + 1] << 8 | shot.data[i + 2]);
    EXPECT_GT(colours.size(), 500u);  // a blank or error page has few
    EXPECT_TRUE(colours.count(0xd62728) && colours.count(0x1f77b4));  // the red and blue series
}

TEST(EngineLog, ParsesAndCountsTheLinesTheTapCapturesFromEveryThread) {
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
    EngineLogStats all;
    for (const auto& l : lines) {
        EngineLogStats s;
        s.add(l.priority, l.text);
        all.add(l.priority, l.text);
        int expected = 0;
        for (const auto& [kind, n] : s.expectedLines)
            expected += n;
        EXPECT_EQ(s.warnings, l.counted == 'w' ? 1 : 0) << l.text;
        EXPECT_EQ(s.errors, l.counted == 'e' ? 1 : 0) << l.text;
        EXPECT_EQ(expected, l.counted == 'x' ? 1 : 0) << l.text;
    }
    EXPECT_EQ(all.expectedLines,
              (std::map<std::string, int>{{"gl_buffer_setup", 1}, {"gyro_clock_ahead", 1}}));

    EngineLogStats s;
    s.add(ANDROID_LOG_WARN, "[Warning] Dropping new frame, internal buffer queue is full");
    s.add(ANDROID_LOG_WARN, "[Warning] Dropping new frame, internal buffer queue is full");
    s.add(ANDROID_LOG_INFO, "[VStab][Status] use uniform_vrtxArr to Render");
    s.add(ANDROID_LOG_INFO,
          "[VStab][Status] frameQueue almost full, use uniform_vrtxArr to Render");
    s.add(ANDROID_LOG_INFO, "[VStab][Status] no Gyro Information before Frame 5 (1)");  // not again
    s.add(ANDROID_LOG_WARN, "[Exception] VStab returned error in main loop");
    s.add(ANDROID_LOG_ERROR, " void Context::Render() 12 (1282)");
    for (double ms : {1.0, 2.0, 3.0, 4.0})
        s.add(ANDROID_LOG_WARN, "[cTTiming][Render()] Render(" + std::to_string(ms) + ") ");
    EXPECT_EQ(s.droppedQueueFull, 2);
    EXPECT_EQ(s.renderedUnstabilized, 2);
    EXPECT_EQ(s.exceptions, 1);
    EXPECT_EQ(s.exceptionTexts, std::vector<std::string>{"VStab returned error in main loop"});
    EXPECT_EQ(s.errors, 1);
    const auto p = s.stagePercentiles();
    ASSERT_EQ(p.count("Render()/Render"), 1u);
    EXPECT_DOUBLE_EQ(p.at("Render()/Render").p50, 2.0);
    EXPECT_DOUBLE_EQ(p.at("Render()/Render").max, 4.0);
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
    for (const char* bad :
         {"[VStab] Frame: 12", "[cTTiming][x] label(abc) ", "[cTTiming][x] label "})
        EXPECT_FALSE(parseTimingLine(bad, t)) << bad;
    // The tap captures lines from every thread and writes the log.
    replay_test::TempDir dir;
    EngineLogStats tapped;
    ASSERT_TRUE(finishesWithin(std::chrono::seconds(30), [&] {
        EngineLogTap tap(dir.file("engine.log"));
        EXPECT_THROW(EngineLogTap second, ReplayError);  // one at a time
        std::vector<std::thread> threads;
        for (int k = 0; k < 4; ++k) {
            threads.emplace_back([] {
                for (int i = 0; i < 50; ++i) {
                    __android_log_print(ANDROID_LOG_WARN, "[QLMR]",
                                        "[cTTiming][gyroCallbackTimestamp()] deltaTime(%d) \n", i);
                }
            });
        }
        for (auto& thread : threads)
            thread.join();
        __android_log_print(ANDROID_LOG_WARN, "[QLMR]", "%s",
                            "[Warning] Dropping new frame, internal buffer queue is full");
        tapped = tap.stats();
    }));
    ASSERT_EQ(tapped.stageMs.count("gyroCallbackTimestamp()/deltaTime"), 1u);
    EXPECT_EQ(tapped.stageMs.at("gyroCallbackTimestamp()/deltaTime").size(), 200u);
    EXPECT_EQ(tapped.droppedQueueFull, 1);
    const std::string log = replay_test::readText(dir.file("engine.log"));
    EXPECT_NE(log.find("5 [QLMR] [Warning] Dropping new frame"), std::string::npos);
    // After the tap is gone a new one may be installed.
    EngineLogTap again;
}
