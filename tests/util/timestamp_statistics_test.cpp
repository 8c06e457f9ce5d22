#include "TimestampStatistics.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

std::vector<std::string> printed(TimestampStatistics& s) {
    LogCapture capture;
    s.printGatheredInformation("ts");
    for (const auto& l : capture.lines()) {
        EXPECT_EQ(l.priority, 5);
        EXPECT_EQ(l.tag, "[QLMR]");
    }
    return capture.texts();
}

TEST(TimestampStatistics, PrintsOldestToNewestAcrossWrapFewerThanTwoValuesGiveNothing) {
    TimestampStatistics s(4);
    for (int i : {-1, 4})
        EXPECT_THROW(s.stack[i], std::runtime_error) << i;
    EXPECT_THROW(TimestampStatistics(0), std::runtime_error);
    // Fewer than two values leave the outputs untouched.
    float mean = -1, stddev = -2;
    int rejected = -3, kept = -4;
    s.calcStatistics(mean, stddev, rejected, kept);
    s << 10;
    s.calcStatistics(mean, stddev, rejected, kept);
    EXPECT_EQ(std::vector<double>({mean, stddev, 1.0 * rejected, 1.0 * kept}),
              std::vector<double>({-1, -2, -3, -4}));
    s << 20 << 30;
    EXPECT_EQ(printed(s), (std::vector<std::string>{"ts 10", "ts 20", "ts 30"}));
    s << 40;
    EXPECT_EQ(printed(s), (std::vector<std::string>{"ts 10", "ts 20", "ts 30", "ts 40"}));
    s << 50;
    EXPECT_EQ(printed(s), (std::vector<std::string>{"ts 20", "ts 30", "ts 40", "ts 50"}));
}

// Intervals in age order; outliers (distance to the first mean, truncated, >= half) left out.
TEST(TimestampStatistics, IntervalStatisticsLeaveOutliersOut) {
    struct Case {
        int capacity;
        std::vector<unsigned long long> values;
        float mean, stddev;
        int rejected, kept;
    };
    const Case cases[] = {
        // m0 = 1200; the double interval 2000 is 800 away, not < 600.
        {8, {0, 1000, 2000, 4000, 5000, 6000}, 1000.0f, 0.0f, 1, 4},
        // 7 is overwritten; intervals 900 1100 1000 1000 in age order, sqrt(20000 / 3).
        {5, {7, 0, 900, 2000, 3000, 4000}, 1000.0f, 81.6497f, 0, 4},
        // Intervals 1, 4: m0 2.5, distance 1.5 truncated to 1, below 1.25.
        {3, {0, 1, 5}, 2.5f, 2.1213f, 0, 2},
    };
    for (const Case& c : cases) {
        TimestampStatistics s(c.capacity);
        for (unsigned long long v : c.values)
            s << v;
        float mean, stddev;
        int rejected, kept;
        s.calcStatistics(mean, stddev, rejected, kept);
        EXPECT_EQ(mean, c.mean) << c.capacity;
        EXPECT_NEAR(stddev, c.stddev, 1e-3f) << c.capacity;
        EXPECT_EQ(rejected, c.rejected) << c.capacity;
        EXPECT_EQ(kept, c.kept) << c.capacity;
    }
}

}  // namespace
