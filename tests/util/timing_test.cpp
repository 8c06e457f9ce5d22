#include "cTTiming.h"

#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "LogCapture.h"

// The engine defines the switch; this test program stands in for it.
int32_t eis_debug = 0;

namespace {

using namespace std::chrono_literals;

class cTTimingTest : public ::testing::Test {
  protected:
    void SetUp() override { eis_debug = 1; }
    void TearDown() override { eis_debug = 0; }

    // The single report line written while `body` runs (empty when none).
    template <typename F>
    std::string report(F body) {
        LogCapture capture;
        body();
        auto lines = capture.lines();
        if (lines.empty())
            return "";
        EXPECT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].priority, 5);
        EXPECT_EQ(lines[0].tag, "[QLMR]");
        return lines[0].text;
    }
};

TEST_F(cTTimingTest, ReportListsStagesInLabelOrderAsMilliseconds) {
    const struct {
        const char* name;
        std::map<std::string, int64_t> stages;  // us
        const char* line;
    } cases[] = {
        {"Render()",
         {{"popFrame", 1520}, {"Render", 8250}},
         "[cTTiming][Render()] Render(8.25) popFrame(1.52) "},
        // Six significant digits, no fixed notation.
        {"p",
         {{"a", 1234567}, {"b", 0}, {"c", 1000000000}},
         "[cTTiming][p] a(1234.57) b(0) c(1e+06) "},
        {"MainThread()", {}, "[cTTiming][MainThread()] "},
        {nullptr, {}, "[cTTiming]"},
        {nullptr, {{"x", 2000}}, "[cTTiming]x(2) "},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(report([&] { cTTiming(c.name).stages = c.stages; }), c.line);
    }
    eis_debug = 0;  // nothing is logged when debug is off
    EXPECT_EQ(report([] { cTTiming("Render()")("Render"); }), "");
}

TEST_F(cTTimingTest, MeasuredStagesAreMicrosecondsAndPrintedSorted) {
    std::string line = report([] {
        cTTiming t("triggerVStab()");
        std::this_thread::sleep_for(30ms);
        t("sleep");
        t("VStab");
        EXPECT_GE(t.stages["sleep"], 30000);
        EXPECT_LT(t.stages["sleep"], 30000000);  // not nanoseconds
        EXPECT_LT(t.stages["VStab"], 30000);
    });
    std::smatch m;
    ASSERT_TRUE(std::regex_match(
        line, m,
        std::regex(
            R"(\[cTTiming\]\[triggerVStab\(\)\] VStab\(([0-9.e+-]+)\) sleep\(([0-9.]+)\) )")))
        << line;
    EXPECT_GE(std::stof(m[2].str()), 30.0f);

    // A null label restarts the clock; a repeated label keeps only the latest duration.
    cTTiming t("p");
    std::this_thread::sleep_for(60ms);
    t(nullptr);
    EXPECT_TRUE(t.stages.empty());
    t("a");
    EXPECT_LT(t.stages["a"], 60000);  // the sleep was not charged

    std::this_thread::sleep_for(60ms);
    t("b");
    t("b");
    EXPECT_EQ(t.stages.size(), 2u);
    EXPECT_LT(t.stages["b"], 60000);  // second duration replaced, not added to, the first
}

}  // namespace
