#include "FSync.h"

#include <gtest/gtest.h>

#include "LogCapture.h"

namespace {

// Error lines under "NAT", in order.
std::vector<std::string> errors(const LogCapture& capture) {
    std::vector<std::string> out;
    for (const auto& l : capture.lines()) {
        EXPECT_EQ(l.priority, 6) << l.text;
        EXPECT_EQ(l.tag, "NAT");
        out.push_back(l.text);
    }
    return out;
}

TEST(FSync, FirstLapAcceptsAnyNonZeroSampleTieGoesToEarlierFarMatchIsReported) {
    LogCapture capture;
    FSync f;
    f.setExpectedDelta(1000);
    f.addSample(5000);  // stored 4000
    f.addSample(2000);  // older, still accepted: compared with a zeroed slot
    f.addSample(1000);  // stored 0: equals the zeroed slot
    EXPECT_EQ(errors(capture), std::vector<std::string>{
                                   "[VSTAB][FSync][Error] Trying to add same sample twice (0)"});
    EXPECT_EQ(f.findClosest(1100), 1000u);
    EXPECT_EQ(f.findClosest(3900), 4000u);

    // A tie goes to the earlier sample; a far match is reported.
    f = FSync();
    capture.clear();
    f.addSample(1000);
    f.addSample(3000);
    EXPECT_EQ(f.findClosest(2000), 1000u);
    EXPECT_EQ(f.getExpectedDelta(), -1000);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(f.findClosest(20000000), 3000u);
    EXPECT_EQ(errors(capture),
              std::vector<std::string>{
                  "[VSTAB][FSync][Error] Closest FSync timestamp found is more than 10ms away."});
}

TEST(FSync, FullRingDropsOldestAndLaterLapsCompareWithSlotAhead) {
    LogCapture capture;
    FSync f;
    for (unsigned long long i = 1; i <= 127; ++i)
        f.addSample(i * 1000);
    EXPECT_TRUE(capture.lines().empty());
    f.addSample(128000);  // fills the last free slot: the oldest goes
    EXPECT_EQ(errors(capture),
              std::vector<std::string>{"[VSTAB][FSync][Error] Buffer full dropping sample: 1000"});
    capture.clear();

    f.addSample(500);  // the slot ahead still holds the dropped 1000
    f.addSample(1000);
    f.addSample(129000);
    EXPECT_EQ(errors(capture),
              (std::vector<std::string>{
                  "[VSTAB][FSync][Error] Trying to add sample before last timestamp (500 < 1000)",
                  "[VSTAB][FSync][Error] Trying to add same sample twice (1000)",
                  "[VSTAB][FSync][Error] Buffer full dropping sample: 2000"}));
    EXPECT_EQ(f.findClosest(1), 3000u);  // oldest kept
}

TEST(FSync, ClosestLearnsAverageErrorDropsOlderSamplesAndChecksNewQueries) {
    LogCapture capture;
    FSync f;
    f.setExpectedDelta(500);
    for (unsigned long long t : {10500ull, 20500ull, 30500ull})
        f.addSample(t);  // 10000.. stored
    EXPECT_EQ(f.findClosest(8000), 10000u);
    EXPECT_EQ(f.getExpectedDelta(), 500 + 2000);
    EXPECT_EQ(f.findClosest(20000), 20000u);  // error 0: 0.05 * 0 + 0.95 * 2000
    EXPECT_EQ(f.getExpectedDelta(), 500 + 1900);
    EXPECT_EQ(f.findClosest(20000), 20000u);  // the same query again is not checked
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_EQ(f.findClosest(10000), 20000u);  // 10000 was dropped by the previous answer
    EXPECT_EQ(errors(capture),
              std::vector<std::string>{
                  "[VSTAB][FSync][Error] Closest FSync timestamp found is not monotonically "
                  "increasing"});
}

TEST(FSync, EmptyRingZeroQueryAndRemovedSamples) {
    LogCapture capture;
    FSync f;
    f.setExpectedDelta(7);
    EXPECT_EQ(f.findClosest(12345), 12345u);
    EXPECT_TRUE(capture.lines().empty());
    f.addSample(5007);
    EXPECT_EQ(f.findClosest(0), 0u);
    EXPECT_EQ(errors(capture), std::vector<std::string>{
                                   "[VSTAB][FSync][Error] Searching for invalid timestamp == 0"});
    EXPECT_EQ(f.getExpectedDelta(), 7);
    EXPECT_EQ(f.findClosest(6000), 5000u);  // sample still there

    // removeSamples ignores the delta and, on an empty ring, still reads the stale slot.
    f = FSync();
    f.setExpectedDelta(100);
    for (unsigned long long t : {1100ull, 2100ull, 3100ull})
        f.addSample(t);  // 1000 2000 3000
    f.removeSamples(1500);
    EXPECT_EQ(f.findClosest(1000), 2000u);  // 1000 is gone
    f.removeSamples(5000);                  // empties the ring
    EXPECT_EQ(f.findClosest(2000), 2000u);  // empty: the query comes back
    // The empty ring's read slot is still scanned: past zeroed slots to the old samples.
    f.removeSamples(500);
    EXPECT_EQ(f.findClosest(2100), 2000u);
}

}  // namespace
