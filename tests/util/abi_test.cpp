// ABI-dependent conversions (x86-64 and 32-bit ARM): Java long handles, timestamps past 2^31.
#include <gtest/gtest.h>

#include <cstdint>

#include "NativeHandle.h"
#include "TimestampStatistics.h"

namespace {

TEST(NativeHandle, AddressesRoundTripAsNonNegativeLongsOthersReadBackAsNull) {
    int object = 0;
    const std::uintptr_t addresses[] = {0x1000, 0x7ffff000u, 0x80000000u, 0xfffff000u,
                                        reinterpret_cast<std::uintptr_t>(&object)};
    for (std::uintptr_t address : addresses) {
        int* pointer = reinterpret_cast<int*>(address);
        const std::int64_t handle = qlmr::toHandle(pointer);
        EXPECT_EQ(handle, static_cast<std::int64_t>(address)) << std::hex << address;
        EXPECT_EQ(qlmr::fromHandle<int>(handle), pointer) << std::hex << address;
    }
    EXPECT_EQ(qlmr::toHandle<int>(nullptr), 0);
    // Longs that are no address read back as null.
    EXPECT_EQ(qlmr::fromHandle<int>(-1), nullptr);
    EXPECT_EQ(qlmr::fromHandle<int>(INT64_MIN), nullptr);
    const std::int64_t highHalf = std::int64_t{1} << 32 | 0x1000;
    if (sizeof(void*) == 4)
        EXPECT_EQ(qlmr::fromHandle<int>(highHalf), nullptr);
    else
        EXPECT_EQ(qlmr::toHandle(qlmr::fromHandle<int>(highHalf)), highHalf);
}

TEST(TimestampStatistics, IntervalsOfTimestampsPast32Bits) {
    // Frame times just past 2^32 ns: the intervals are taken before any narrowing.
    TimestampStatistics stats(8);
    const unsigned long long start = (1ull << 32) - 2 * 33333333ull;
    for (unsigned long long k = 0; k < 6; ++k)
        stats << start + k * 33333333ull;
    float mean = 0, stddev = -1;
    int rejected = -1, kept = 0;
    stats.calcStatistics(mean, stddev, rejected, kept);
    EXPECT_FLOAT_EQ(mean, 33333333.0f);
    EXPECT_FLOAT_EQ(stddev, 0.0f);
    EXPECT_EQ(rejected, 0);
    EXPECT_EQ(kept, 5);
}

}  // namespace
