// Output surface registry: registration rules, the dequeue/queue cycle and its assertions.
#include "JavaSurfaceManager.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "host/Window.h"

namespace {

using android::sp;
using std::chrono::milliseconds;
using std::chrono::seconds;

const char* const kAssertPrefix =
    "Assert: \\[library/src/main/jni/src/JavaSurfaceManager:[0-9]+\\] ";

class SurfaceManager : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    // A connected host window of 32 x 16 RGBA feeding `sink`.
    sp<ANativeWindow> connectedWindow(std::shared_ptr<host::MemorySink> sink) {
        host::WindowConfig config;
        config.defaultWidth = 32;
        config.defaultHeight = 16;
        sp<ANativeWindow> w = host::createWindow(std::move(sink), config);
        EXPECT_EQ(native_window_api_connect(w.get(), NATIVE_WINDOW_API_CPU), 0);
        return w;
    }

    std::shared_ptr<host::MemorySink> sink_ = std::make_shared<host::MemorySink>();
};

TEST_F(SurfaceManager, FirstRegistrationOfAnIdWinsMapIsOrderedAndRemovalHandsItBack) {
    JavaSurfaceManager jsm;
    // The registry lock holds adders off until unlocked.
    jsm.lock();
    auto adder = std::async(std::launch::async, [&] { jsm.addSurface(4, connectedWindow(sink_)); });
    EXPECT_EQ(adder.wait_for(milliseconds(100)), std::future_status::timeout);
    EXPECT_TRUE(jsm.windows.empty());
    jsm.unlock();
    ASSERT_EQ(adder.wait_for(seconds(10)), std::future_status::ready);
    EXPECT_NE(jsm.remSurface(4), nullptr);
    sp<ANativeWindow> first = connectedWindow(sink_);
    sp<ANativeWindow> second = connectedWindow(sink_);
    ANativeWindow* secondRaw = second.get();
    jsm.addSurface(7, first);
    jsm.addSurface(7, second);
    jsm.addSurface(-3, connectedWindow(sink_));
    second.clear();
    host::WindowCounters c;
    EXPECT_FALSE(host::windowCounters(secondRaw, &c));  // the registry kept no reference
    ASSERT_EQ(jsm.windows.size(), 2u);
    EXPECT_EQ(jsm.windows.begin()->first, -3);
    EXPECT_EQ(jsm.windows.at(7).window.get(), first.get());
    // Removal hands the window back, or null for an unknown id.
    EXPECT_EQ(jsm.remSurface(2), nullptr);
    EXPECT_EQ(jsm.remSurface(7).get(), first.get());
    EXPECT_EQ(jsm.windows.size(), 1u);
    EXPECT_EQ(jsm.remSurface(7), nullptr);
}

// Frames keep their timestamps; the mutex is held from dequeue to queue; a copy gets its own.
TEST_F(SurfaceManager, DequeueQueueCycleDeliversFramesWithTimestamps) {
    JavaSurfaceManager jsm;
    jsm.addSurface(1, connectedWindow(sink_));
    JavaSurfaceManager::Window& window = jsm.windows.at(1);
    for (long long i = 0; i < 4; ++i) {
        sp<android::GraphicBuffer> buffer = window.dequeue();
        ASSERT_NE(buffer, nullptr);
        EXPECT_EQ(window.lastDequeued.get(), buffer.get());
        EXPECT_EQ(buffer->getWidth(), 32u);
        window.queue(buffer, 1000000000LL + i);
        EXPECT_EQ(window.lastDequeued, nullptr);
    }
    sp<android::GraphicBuffer> buffer = window.dequeue();
    auto probe = std::async(std::launch::async, [&] {
        const int busy = pthread_mutex_trylock(&window.mutex);
        if (busy == 0)
            pthread_mutex_unlock(&window.mutex);
        return busy;
    });
    ASSERT_EQ(probe.wait_for(seconds(10)), std::future_status::ready);
    EXPECT_EQ(probe.get(), EBUSY);
    {
        JavaSurfaceManager::Window copy(window);
        EXPECT_EQ(pthread_mutex_trylock(&copy.mutex), 0);  // a fresh mutex
        pthread_mutex_unlock(&copy.mutex);
        EXPECT_EQ(copy.lastDequeued.get(), buffer.get());
        copy.lastDequeued.clear();  // the copy must not outlive a dequeued buffer
    }
    window.queue(buffer, NATIVE_WINDOW_TIMESTAMP_AUTO);
    ASSERT_TRUE(sink_->waitForCount(5, seconds(10)));
    auto frames = sink_->frames();
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(frames[i].timestampNs, 1000000000LL + i);
    EXPECT_TRUE(frames[4].autoTimestamp);
}

// Every misuse of the registry or of a window is a logic error that aborts.
TEST_F(SurfaceManager, MisuseAborts) {
    EXPECT_DEATH(
        {
            JavaSurfaceManager jsm;
            jsm.addSurface(1, nullptr);
        },
        std::string(kAssertPrefix) + "0 && \"Trying to add an invalid ANativeWindow\"");
    EXPECT_DEATH(
        {
            JavaSurfaceManager jsm;
            jsm.addSurface(1, connectedWindow(sink_));
            JavaSurfaceManager::Window& window = jsm.windows.at(1);
            window.dequeue();
            sp<android::GraphicBuffer> other(
                new android::GraphicBuffer(32, 16, HAL_PIXEL_FORMAT_RGBA_8888, 0x30));
            window.queue(other, 0);
        },
        std::string(kAssertPrefix) +
            "0 && \"Trying to queue graphicBuffer different from the one dequeued!\"");
    EXPECT_DEATH(
        {
            JavaSurfaceManager jsm;
            jsm.addSurface(1, connectedWindow(sink_));
            jsm.windows.at(1).dequeue();
            jsm.remSurface(1);
        },
        std::string(kAssertPrefix) +
            "lastDequeued == 0 && \"Cannot destroy window if a buffer is dequeued, logic "
            "error\"");
    EXPECT_DEATH(
        {
            JavaSurfaceManager jsm;
            jsm.addSurface(1, host::createWindow(sink_));  // never connected: no buffers
            jsm.windows.at(1).dequeue();
        },
        std::string(kAssertPrefix) + "0 && \"Cannot dequeue buffer from ANativeWindow\"");
}

}  // namespace
