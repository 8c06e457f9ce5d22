#include "Log.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

TEST(Log, LinesCarryEngineTagAndPriorityThrowLoggedWarnsFirst) {
    LogCapture capture;
    QLOGI("info %d", 1);
    QLOGW("warn %s", "x");
    QLOGE("error");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].priority, 4);
    EXPECT_EQ(lines[1].priority, 5);
    EXPECT_EQ(lines[2].priority, 6);
    for (const auto& l : lines) EXPECT_EQ(l.tag, "[QLMR]");
    EXPECT_EQ(lines[0].text, "info 1");
    EXPECT_EQ(lines[1].text, "warn x");
    capture.clear();
    QLMR_ASSERT("util", 1 + 1 == 2);  // a passing assertion writes nothing
    EXPECT_TRUE(capture.lines().empty());
    // throwLogged logs a warning, then throws the same text.
    try {
        qlmr::throwLogged("VStab config is not valid");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "VStab config is not valid");
    }
    EXPECT_EQ(capture.count("VStab config is not valid", 5), 1);
}

TEST(LogDeathTest, AssertLogsSourceLineAndConditionThenAborts) {
    EXPECT_DEATH(QLMR_ASSERT("library/src/main/jni/src/native", 0 && "glLock Logical Error"),
                 "Assert: \\[library/src/main/jni/src/native:[0-9]+\\] 0 && \"glLock Logical "
                 "Error\"");
}

}  // namespace
