#include "shared_ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

// Counts live instances and destructions so tests can see exactly when `delete` ran.
struct Tracked {
    static std::atomic<int> destroyed;
    int value;
    explicit Tracked(int v) : value(v) {}
    ~Tracked() { destroyed.fetch_add(1); }
};
std::atomic<int> Tracked::destroyed{0};

std::string messageOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<no exception>";
}

class SharedPtrTest : public ::testing::Test {
protected:
    void SetUp() override { Tracked::destroyed = 0; }
};

// Copies share one count; the object goes with the last owner, however it lets go.
TEST_F(SharedPtrTest, OwnsSharesAndDestroysOnLastRelease) {
    shared_ptr<Tracked> a;
    a.acquire(new Tracked(7), nullptr);
    ASSERT_NE(a.count, nullptr);
    EXPECT_EQ(*a.count, 1);
    EXPECT_EQ(a->value, 7);

    shared_ptr<Tracked> b;
    b = a;
    EXPECT_EQ(b.data, a.data);
    EXPECT_EQ(b.count, a.count);
    shared_ptr<Tracked> c(b);  // a copy shares too
    EXPECT_EQ(*a.count, 3);

    a.release();
    EXPECT_EQ(a.data, nullptr);
    EXPECT_EQ(a.count, nullptr);
    a.release();  // releasing an empty pointer again changes nothing
    shared_ptr<Tracked> empty;
    c = empty;  // assigning an empty pointer releases
    EXPECT_EQ(c.data, nullptr);
    EXPECT_EQ(Tracked::destroyed, 0);
    b.release();
    EXPECT_EQ(Tracked::destroyed, 1);

    {
        shared_ptr<Tracked> scoped;
        scoped.acquire(new Tracked(1), nullptr);
    }
    EXPECT_EQ(Tracked::destroyed, 2);  // the destructor releases

    int32_t count = 5;
    shared_ptr<Tracked> p;
    p.acquire(nullptr, &count);  // a null object leaves the pointer empty, the count untouched
    EXPECT_EQ(p.data, nullptr);
    EXPECT_EQ(p.count, nullptr);
    EXPECT_EQ(count, 5);
}

TEST_F(SharedPtrTest, MisuseThrowsFixedMessagesAndKeepsState) {
    shared_ptr<Tracked> p;
    p.acquire(new Tracked(1), nullptr);
    Tracked* owned = p.data;
    int32_t* count = p.count;

    Tracked* other = new Tracked(2);
    EXPECT_EQ(messageOf([&] { p.acquire(other, nullptr); }),
              "shared_ptr::acquire() called with data and/or count != 0");
    EXPECT_EQ(p.data, owned);  // old object kept, new one neither adopted nor deleted
    EXPECT_EQ(p.count, count);
    EXPECT_EQ(Tracked::destroyed, 0);
    delete other;
    Tracked::destroyed = 0;

    EXPECT_EQ(messageOf([&] { p = p; }), "shared_ptr cannot equal itself");
    EXPECT_EQ(p.data, owned);
    EXPECT_EQ(*p.count, 1);

    shared_ptr<Tracked> empty;
    EXPECT_EQ(messageOf([&] { empty = empty; }), "shared_ptr cannot equal itself");
    EXPECT_EQ(messageOf([&] { (void)empty->value; }), "shared_ptr data is null");
    EXPECT_EQ(messageOf([&] { Tracked* raw = empty; (void)raw; }), "shared_ptr data is null");

    // A pointer with data but no count is corrupt: release refuses and changes nothing.
    shared_ptr<Tracked> corrupt;
    Tracked stackObject(3);
    corrupt.data = &stackObject;
    EXPECT_EQ(messageOf([&] { corrupt.release(); }),
              "shared_ptr::release() has count == 0 but data != 0");
    EXPECT_EQ(corrupt.data, &stackObject);
    corrupt.data = nullptr;  // let the destructor see an empty pointer
}

TEST_F(SharedPtrTest, TwoThreadsDroppingLastCopiesDestroyExactlyOnce) {
    constexpr int kRounds = 2000;
    for (int round = 0; round < kRounds; ++round) {
        auto* a = new shared_ptr<Tracked>();
        a->acquire(new Tracked(round), nullptr);
        auto* b = new shared_ptr<Tracked>();
        *b = *a;
        std::atomic<int> ready{0};
        auto drop = [&ready](shared_ptr<Tracked>* p) {
            ready.fetch_add(1);
            while (ready.load() < 2) {
            }
            delete p;
        };
        std::thread t1(drop, a);
        std::thread t2(drop, b);
        t1.join();
        t2.join();
    }
    EXPECT_EQ(Tracked::destroyed, kRounds);
}

}  // namespace
