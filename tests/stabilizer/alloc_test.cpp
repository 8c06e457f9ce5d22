// The library allocates only while creating a handle: counted by replacing the global allocator.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "zef_gyro_vstab.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QLMR_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QLMR_SANITIZED 1
#endif
#endif

namespace {
std::atomic<long> gAllocations{0};
}

#ifndef QLMR_SANITIZED
// The C allocator, which operator new calls too (the sanitizers own it: nothing is counted there).
extern "C" void* __libc_malloc(std::size_t);
extern "C" void* __libc_calloc(std::size_t, std::size_t);
extern "C" void* __libc_realloc(void*, std::size_t);
extern "C" void* malloc(std::size_t n) {
    ++gAllocations;
    return __libc_malloc(n);
}
extern "C" void* calloc(std::size_t n, std::size_t s) {
    ++gAllocations;
    return __libc_calloc(n, s);
}
extern "C" void* realloc(void* p, std::size_t n) {
    ++gAllocations;
    return __libc_realloc(p, n);
}
#endif

namespace {

TEST(VStabAllocation, NoHeapUseAfterCreation) {
#ifdef QLMR_SANITIZED
    GTEST_SKIP() << "the sanitizer owns the allocator";
#endif
    // Adaptive crop (the default) and lens distortion on: every per-frame path.
    const char config[] = "vstab.readoutNs=30000000\nvstab.gyroRateMaxHz=200\nvstab.lensK1=-0.1\n";
    void* h = nullptr;
    char message[512];
    unsigned int size = sizeof message;
    ASSERT_EQ(vStabCreateUseCharCnfgBuff(&h, config, sizeof config - 1, message, &size), 0);
    const VStabConfigRecord* c = vStabConfig(h);
    std::vector<float> vertices(static_cast<size_t>(c->gridColumns) * c->gridRows * 3);
    VStabOutput out{0, 0, vertices.data()};
    const long before = gAllocations.load();

    constexpr long long kMs = 1000000;
    const long long start = 50000 * kMs;
    int statuses[3] = {0, 0, 0};
    long long nextFrame = start + 200 * kMs;
    // Smooth and violent motion, a gap, bad samples, repeated and stale frames, a wrapped history.
    for (long long t = start; t < start + 6000 * kMs; t += 2500000) {
        if (t > start + 4000 * kMs && t < start + 4300 * kMs) {
            continue;  // gap
        }
        const double s = static_cast<double>(t - start) * 1e-9;
        const float amp = (s > 2.0 && s < 3.0) ? 8.0f : 0.3f;
        const float rate[3] = {amp * static_cast<float>(std::sin(12 * s)),
                               amp * static_cast<float>(std::cos(15 * s)), 0.2f};
        vStabAddAngularVelocity(h, t, rate);
        const float bad[3] = {NAN, 0.0f, INFINITY};
        vStabAddAngularVelocity(h, t - 1000, bad);
        if (t >= nextFrame + 700 * kMs) {
            VStabFrameInfo info{40, 2, nextFrame, 8 * kMs, 1.5f, 1.0f, 0, 0};
            const int status = vStabWarpGrid(h, &info, &out);
            ASSERT_TRUE(status >= 0 && status <= 2) << status;
            ++statuses[status];
            vStabWarpGrid(h, &info, &out);  // repeated
            info.timestampNs = start;       // stale
            vStabWarpGrid(h, &info, &out);
            nextFrame += 33 * kMs;
        }
    }
    EXPECT_EQ(gAllocations.load() - before, 0);
    EXPECT_GT(statuses[0], 100);
    EXPECT_EQ(vStabDestroy(h), 0);
    // The counter works: creating a handle allocates.
    const long beforeCreate = gAllocations.load();
    size = sizeof message;
    ASSERT_EQ(vStabCreateUseCharCnfgBuff(&h, config, sizeof config - 1, message, &size), 0);
    EXPECT_GT(gAllocations.load(), beforeCreate);
    vStabDestroy(h);
}

}  // namespace
