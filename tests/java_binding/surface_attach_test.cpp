// surface_init / surface_release on a Java Surface around a window that records each call.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <memory>
#include <stdexcept>
#include <vector>

#include "JavaVm.h"
#include "LogCapture.h"
#include "NativeHandle.h"
#include "native.h"

namespace {

// Records perform() calls as {operation, arguments...}, counts references; fails `refuse`.
struct RecordingWindow : ANativeWindow {
    std::vector<std::vector<long>> calls;
    int references = 1;  // the Java surface's
    int refuse = -1;

    RecordingWindow() {
        common.incRef = [](android_native_base_t* base) { self(base)->references++; };
        common.decRef = [](android_native_base_t* base) { self(base)->references--; };
        perform = &performHook;
    }

    static RecordingWindow* self(android_native_base_t* base) {
        return static_cast<RecordingWindow*>(reinterpret_cast<ANativeWindow*>(base));
    }

    static int performHook(ANativeWindow* window, int operation, ...) {
        auto* me = static_cast<RecordingWindow*>(window);
        std::vector<long> call{operation};
        va_list args;
        va_start(args, operation);
        switch (operation) {
            case NATIVE_WINDOW_SET_BUFFERS_DIMENSIONS:
                call.push_back(va_arg(args, int));
                call.push_back(va_arg(args, int));
                break;
            case NATIVE_WINDOW_SET_BUFFER_COUNT:
                call.push_back(static_cast<long>(va_arg(args, size_t)));
                break;
            default:
                call.push_back(va_arg(args, int));
                break;
        }
        va_end(args);
        me->calls.push_back(call);
        return operation == me->refuse ? -EINVAL : 0;
    }
};

// A host android.view.Surface owning one reference to `window` (0: a released surface).
jobject javaSurface(ANativeWindow* window) {
    JNIEnv* env = javaEnv();
    jclass surfaceClass = javaClass("android/view/Surface");
    jmethodID constructor = env->GetMethodID(surfaceClass, "<init>", "(J)V");
    jobject surface = env->NewObject(surfaceClass, constructor, qlmr::toHandle(window));
    EXPECT_NE(surface, nullptr) << takeJavaException();
    return surface;
}

using Calls = std::vector<std::vector<long>>;
constexpr long kConnect = NATIVE_WINDOW_API_CONNECT;
constexpr long kTransform = NATIVE_WINDOW_SET_BUFFERS_TRANSFORM;
constexpr long kDimensions = NATIVE_WINDOW_SET_BUFFERS_DIMENSIONS;
constexpr long kFormat = NATIVE_WINDOW_SET_BUFFERS_FORMAT;
constexpr long kUsage = NATIVE_WINDOW_SET_USAGE;
constexpr long kCount = NATIVE_WINDOW_SET_BUFFER_COUNT;
constexpr long kCpu = NATIVE_WINDOW_API_CPU;

// Every setting in order; a negative one keeps the window's own; 0 x 0 is passed on.
TEST(SurfaceAttach, ConnectsAndAppliesEverySettingInOrder) {
    const struct {
        int width, height, format, count, transform;
        Calls calls;
    } cases[] = {
        {320,
         240,
         1,
         5,
         4,
         {{kConnect, kCpu},
          {kTransform, 4},
          {kDimensions, 320, 240},
          {kFormat, 1},
          {kUsage, 0x30},
          {kCount, 5}}},
        {-1, -1, -1, 0, -1, {{kConnect, kCpu}, {kUsage, 0x30}}},
        {320,
         -1,
         0,
         1,
         0,
         {{kConnect, kCpu}, {kTransform, 0}, {kFormat, 0}, {kUsage, 0x30}, {kCount, 1}}},
        {0, 0, -1, -3, -1, {{kConnect, kCpu}, {kDimensions, 0, 0}, {kUsage, 0x30}}},
    };
    for (const auto& c : cases) {
        auto owned = std::make_unique<RecordingWindow>();  // sp<> refuses stack objects
        jobject surface = javaSurface(owned.get());
        EXPECT_EQ(surface_init(javaEnv(), nullptr, surface, c.width, c.height, c.format, c.count,
                               c.transform),
                  owned.get());
        EXPECT_EQ(owned->calls, c.calls) << c.width << "x" << c.height;
        EXPECT_EQ(owned->references, 2) << "one reference acquired for the caller";
        // Release disconnects and drops that reference, also when the window refuses (odd cases).
        owned->calls.clear();
        owned->refuse = (&c - cases) % 2 == 1 ? NATIVE_WINDOW_API_DISCONNECT : -1;
        surface_release(android::sp<ANativeWindow>(owned.get()));
        EXPECT_EQ(owned->calls, (Calls{{NATIVE_WINDOW_API_DISCONNECT, kCpu}}));
        EXPECT_EQ(owned->references, 1);
    }
}

TEST(SurfaceAttach, ARefusedSettingThrowsItsMessageAndKeepsTheReference) {
    const struct {
        long operation;
        const char* message;
    } cases[] = {
        {kConnect, "Could not API connect CPU to awnd"},
        {kTransform, "Could not set native_window_set_buffers_transform"},
        {kDimensions, "Could not set native_window_set_buffers_dimensions"},
        {kFormat, "Could not set native_window_set_buffers_format"},
        {kUsage, "Could not set native_window_set_usage"},
        {kCount, "Could not set native_window_set_buffer_count"},
    };
    for (const auto& c : cases) {
        auto owned = std::make_unique<RecordingWindow>();  // sp<> refuses stack objects
        RecordingWindow& window = *owned;
        window.refuse = static_cast<int>(c.operation);
        jobject surface = javaSurface(&window);
        LogCapture log;
        try {
            surface_init(javaEnv(), nullptr, surface, 320, 240, 1, 4, 0);
            ADD_FAILURE() << "no exception for " << c.message;
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), c.message);
        }
        EXPECT_TRUE(log.contains(c.message, ANDROID_LOG_INFO)) << c.message;
        EXPECT_EQ(window.calls.back().front(), c.operation) << "stops at the refused setting";
        EXPECT_EQ(window.references, 2) << c.message;
    }
}

TEST(SurfaceAttachDeathTest, ASurfaceWithoutAWindowAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(surface_init(javaEnv(), nullptr, javaSurface(nullptr), -1, -1, -1, 0, -1),
                 "Assert: \\[library/src/main/jni/src/native:[0-9]+\\] 0 && \"Cannot get a valid "
                 "ANativeWindow from provided Surface\"");
}

}  // namespace
