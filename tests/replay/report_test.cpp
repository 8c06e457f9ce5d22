// metrics.json, SVG plots and report.html, and a headless-browser screenshot of a report.
#include "Ffmpeg.h"
#include "Metrics.h"
#include "ImageIo.h"
#include "Report.h"
#include "Svg.h"
#include "TestUtil.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <set>

using namespace qlmr::replay;

TEST(MetricsJson, WritesUnknownFiguresAsNull) {
    ReplayMetrics m;
    m.inputDescription = "a \"quoted\" name\n";
    m.framesPerSurface = {3, 4};
    m.pixelJitterRatio = std::numeric_limits<double>::infinity();
    m.crop.minCropping = std::nan("");
    const auto j = nlohmann::json::parse(metricsJson(m));
    EXPECT_EQ(j["input"]["description"], m.inputDescription);
    EXPECT_EQ(j["frames"]["per_surface"], nlohmann::json({3, 4}));
    EXPECT_TRUE(j["pixel_motion"]["jitter_ratio"].is_null());
    EXPECT_TRUE(j["cropping"]["min_cropping"].is_null());
    EXPECT_TRUE(j["ground_truth"].is_null());  // no ground truth without a synthetic recording
}

TEST(SvgPlot, DrawsSeriesLegendAndTicks) {
    EXPECT_EQ(niceTicks(0, 10, 5), (std::vector<double>{0, 2, 4, 6, 8, 10}));
    EXPECT_EQ(niceTicks(-0.3, 0.3, 3), (std::vector<double>{-0.2, 0, 0.2}));
    EXPECT_TRUE(niceTicks(1, 1, 5).empty());
    PlotSpec layout;
    layout.title = "a < b & c";
    layout.series.push_back({"raw", "#f00", {0, 1, 2, 3, 4}, {0, 1, std::nan(""), 3, 4}, false});
    layout.series.push_back({"flat", "#00f", {0, 4}, {2, 2}, true});
    const std::string svg = svgLinePlot(layout);
    EXPECT_EQ(svg.rfind("<svg", 0), 0u);
    EXPECT_NE(svg.find("a &lt; b &amp; c"), std::string::npos);
    // The NaN splits the first series in two lines; the second is dashed.
    size_t polylines = 0;
    for (size_t p = svg.find("<polyline"); p != std::string::npos; p = svg.find("<polyline", p + 1))
        ++polylines;
    EXPECT_EQ(polylines, 3u);
    EXPECT_NE(svg.find("stroke-dasharray"), std::string::npos);
    EXPECT_NE(svg.find(">raw<"), std::string::npos);
    // Empty plots still render.
    EXPECT_NE(svgLinePlot(PlotSpec{}).find("</svg>"), std::string::npos);
}

TEST(Report, IsSelfContained) {
    EXPECT_EQ(base64({'M', 'a', 'n'}), "TWFu");
    EXPECT_EQ(base64({'M', 'a'}), "TWE=");
    EXPECT_EQ(base64({'M'}), "TQ==");
    ReplayMetrics m;
    m.inputDescription = "test <input>";
    m.framesIn = 2;
    m.hasTruth = true;
    m.truth.actual.t = {0, 1};
    m.truth.actual.x = {0, 1};
    m.truth.actual.y = {0, 1};
    m.truth.actual.roll = {0, 1};
    FramePair pair;
    pair.before = replay_test::gradient(32, 16);
    pair.after = replay_test::gradient(32, 16);
    const std::string html = reportHtml(
        m, {pair}, ReportContext{"qlmr_replay --dry-run", {{"metrics.json", "figures"}}});
    EXPECT_NE(html.find("test &lt;input&gt;"), std::string::npos);
    EXPECT_NE(html.find("data:image/jpeg;base64,/9j/"), std::string::npos);  // JPEG magic in base64
    EXPECT_EQ(html.find("<script"), std::string::npos);
    EXPECT_EQ(html.find("http://"),
              html.find("http://www.w3.org/2000/svg"));  // only the SVG namespace
    EXPECT_EQ(html.find("https://"), std::string::npos);
    EXPECT_NE(html.find("Residual jitter (ground truth)"), std::string::npos);
}

TEST(Report, RendersInHeadlessChromium) {
    const std::string chromium = findProgram("chromium");
    if (chromium.empty())
        GTEST_SKIP() << "chromium is not installed (Debian package chromium)";
    replay_test::TempDir dir;
    const std::string cmd =
        std::string(QLMR_REPLAY_BIN) +
        " --dry-run --quiet --no-mp4 --seconds 1 --size 320x240 --scene procedural --out " +
        dir.file("out");
    ASSERT_EQ(std::system(cmd.c_str()), 0) << cmd;
    std::string err;
    const int status = runProgram(
        {chromium, "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
         "--no-first-run", "--disable-background-networking", "--disable-component-update",
         "--disable-sync", "--user-data-dir=" + dir.file("profile"), "--window-size=1200,2400",
         "--screenshot=" + dir.file("shot.png"), "file://" + dir.file("out/report.html")},
        &err);
    ASSERT_EQ(status, 0) << err;
    const RgbImage shot = readImage(dir.file("shot.png"));
    EXPECT_EQ(shot.width, 1200);
    EXPECT_EQ(shot.height, 2400);
    // A rendered page with plots and pictures has many colours; a blank or error page does not.
    std::set<uint32_t> colours;
    for (size_t i = 0; i < shot.data.size(); i += 3 * 7) {
        colours.insert(shot.data[i] << 16 | shot.data[i + 1] << 8 | shot.data[i + 2]);
    }
    EXPECT_GT(colours.size(), 500u);
    // The plots' red and blue lines are drawn.
    bool red = false, blue = false;
    for (size_t i = 0; i < shot.data.size(); i += 3) {
        red |= shot.data[i] == 0xd6 && shot.data[i + 1] == 0x27 && shot.data[i + 2] == 0x28;
        blue |= shot.data[i] == 0x1f && shot.data[i + 1] == 0x77 && shot.data[i + 2] == 0xb4;
    }
    EXPECT_TRUE(red);
    EXPECT_TRUE(blue);
}
