// Host native window: what the engine relies on: queue order, timestamps, blocking, buffer shape.
#include <gtest/gtest.h>
#include <system/window.h>
#include <ui/GraphicBuffer.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>

#include "host/Window.h"

namespace {

using android::GraphicBuffer;
using android::sp;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Holds every frame in onFrame until opened, so tests control the consumer.
class GateSink : public host::FrameSink {
  public:
    void onFrame(const host::Frame&) override {
        std::unique_lock<std::mutex> lock(mutex_);
        ++entered_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return open_; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    bool waitEntered(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, seconds(10), [&] { return entered_ >= count; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
    int entered_ = 0;
};

class Window : public ::testing::Test {
  protected:
    sp<ANativeWindow> make(std::shared_ptr<host::FrameSink> sink, size_t buffers = 3,
                           int64_t timeoutMs = 1000) {
        host::WindowConfig config;
        config.defaultWidth = 32;
        config.defaultHeight = 16;
        config.bufferCount = buffers;
        config.dequeueTimeoutMs = timeoutMs;
        sp<ANativeWindow> w = host::createWindow(std::move(sink), config);
        EXPECT_NE(w, nullptr);
        return w;
    }
    static ANativeWindowBuffer* dequeue(const sp<ANativeWindow>& w) {
        ANativeWindowBuffer* b = nullptr;
        EXPECT_EQ(w->dequeueBuffer_DEPRECATED(w.get(), &b), 0);
        return b;
    }
    static void fill(ANativeWindowBuffer* native, uint8_t value) {
        sp<GraphicBuffer> b = GraphicBuffer::from(native);
        void* address = nullptr;
        ASSERT_EQ(b->lock(GraphicBuffer::USAGE_SW_WRITE_OFTEN, &address), 0);
        std::memset(address, value, b->getSize());
        ASSERT_EQ(b->unlock(), 0);
    }

    std::shared_ptr<host::MemorySink> sink_ = std::make_shared<host::MemorySink>();
};

TEST_F(Window, FramesArriveInOrderWithContentTimestampAndTransform) {
    sp<ANativeWindow> w = make(sink_);
    ASSERT_EQ(native_window_api_connect(w.get(), NATIVE_WINDOW_API_CPU), 0);
    ASSERT_EQ(native_window_set_buffers_transform(w.get(), NATIVE_WINDOW_TRANSFORM_ROT_90), 0);
    for (int i = 0; i < 6; ++i) {
        ANativeWindowBuffer* b = dequeue(w);
        ASSERT_NE(b, nullptr);
        fill(b, static_cast<uint8_t>(10 + i));
        ASSERT_EQ(native_window_set_buffers_timestamp(w.get(), 5000000000LL + i * 33000000LL), 0);
        ASSERT_EQ(w->queueBuffer(w.get(), b, -1), 0);
    }
    ASSERT_TRUE(sink_->waitForCount(6, seconds(10)));
    auto frames = sink_->frames();
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(frames[i].frameNumber, static_cast<uint64_t>(i + 1));
        EXPECT_EQ(frames[i].timestampNs, 5000000000LL + i * 33000000LL);
        EXPECT_FALSE(frames[i].autoTimestamp);
        EXPECT_EQ(frames[i].pixels[0], 10 + i);
        EXPECT_EQ(frames[i].width, 32u);
        EXPECT_EQ(frames[i].format, HAL_PIXEL_FORMAT_RGBA_8888);
        EXPECT_EQ(frames[i].transform, static_cast<uint32_t>(NATIVE_WINDOW_TRANSFORM_ROT_90));
    }
    ASSERT_TRUE(host::waitForIdle(w.get(), seconds(10)));
    host::WindowCounters c;
    ASSERT_TRUE(host::windowCounters(w.get(), &c));
    EXPECT_EQ(c.allocations, 3u);  // three slots, reused round-robin
    EXPECT_EQ(c.delivered, 6u);
}

TEST_F(Window, DequeueWaitsForTheConsumerThenTimesOut) {
    auto gate = std::make_shared<GateSink>();
    sp<ANativeWindow> w = make(gate, 2, 400);
    ASSERT_EQ(native_window_api_connect(w.get(), NATIVE_WINDOW_API_CPU), 0);
    ASSERT_EQ(w->queueBuffer(w.get(), dequeue(w), -1), 0);
    ASSERT_TRUE(gate->waitEntered(1));  // consumer holds frame 1
    ASSERT_EQ(w->queueBuffer(w.get(), dequeue(w), -1), 0);
    ANativeWindowBuffer* b = nullptr;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(w->dequeueBuffer_DEPRECATED(w.get(), &b), -ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(390));
    // A dequeue that is waiting gets the slot as soon as the consumer frees it.
    auto waiting = std::async(std::launch::async, [&] {
        ANativeWindowBuffer* got = nullptr;
        return w->dequeueBuffer_DEPRECATED(w.get(), &got);
    });
    EXPECT_EQ(waiting.wait_for(milliseconds(50)), std::future_status::timeout);
    gate->open();
    ASSERT_EQ(waiting.wait_for(seconds(10)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), 0);
    host::WindowCounters c;
    ASSERT_TRUE(host::windowCounters(w.get(), &c));
    EXPECT_EQ(c.dequeueTimeouts, 1u);
}

TEST_F(Window, SizeFormatAndUsageShapeTheBuffers) {
    sp<ANativeWindow> w = make(sink_);
    ASSERT_EQ(native_window_api_connect(w.get(), NATIVE_WINDOW_API_CPU), 0);
    ASSERT_EQ(native_window_set_buffers_dimensions(w.get(), 48, 8), 0);
    ASSERT_EQ(native_window_set_buffers_format(w.get(), HAL_PIXEL_FORMAT_BGRA_8888), 0);
    ASSERT_EQ(native_window_set_usage(w.get(), GRALLOC_USAGE_SW_WRITE_OFTEN), 0);
    EXPECT_EQ(ANativeWindow_getWidth(w.get()), 48);
    EXPECT_EQ(ANativeWindow_getFormat(w.get()), HAL_PIXEL_FORMAT_BGRA_8888);
    sp<GraphicBuffer> b = GraphicBuffer::from(dequeue(w));
    EXPECT_EQ(b->getWidth(), 48u);
    EXPECT_EQ(b->getHeight(), 8u);
    EXPECT_EQ(b->getPixelFormat(), HAL_PIXEL_FORMAT_BGRA_8888);
    EXPECT_EQ(b->getUsage(),
              static_cast<uint64_t>(GRALLOC_USAGE_SW_WRITE_OFTEN | GRALLOC_USAGE_SW_READ_OFTEN));
}

TEST_F(Window, LastReleaseDeliversQueuedFramesBeforeTheWindowGoes) {
    sp<ANativeWindow> w = make(sink_);
    ASSERT_EQ(native_window_api_connect(w.get(), NATIVE_WINDOW_API_CPU), 0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(w->queueBuffer(w.get(), dequeue(w), -1), 0);
    ANativeWindow* raw = w.get();
    ANativeWindow_acquire(raw);
    w.clear();
    host::WindowCounters c;
    EXPECT_TRUE(host::windowCounters(raw, &c));  // still alive: one reference left
    ANativeWindow_release(raw);
    EXPECT_FALSE(host::windowCounters(raw, &c));
    EXPECT_EQ(sink_->count(), 3u);
}

}  // namespace
