#include "Log.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

TEST(Log, LinesCarryEngineTagAndPriorityThrowLoggedWarnsFirst) {
    LogCapture capture;
    QLOGI("info %d", 1);
    QLOGW("warn %s", "x");
    QLOGE("error");
    EXPECT_EQ(capture.texts("[QLMR]"), (std::vector<std::string>{"info 1", "warn x", "error"}));
    for (int priority = 4; priority <= 6; ++priority)
        EXPECT_EQ(capture.lines().at(priority - 4).priority, priority);
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
