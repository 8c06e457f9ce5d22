#include "GLContext.h"

#include <EGL/egl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "GLTestSupport.h"

namespace {

const char kOtherThread[] = "GL Context current to another thread ... Logical Error";
const char kWrongThread[] = "GL Context clearCurrent called from wrong thread ... Logical Error";
const char kFreeClear[] = "GL Context clearCurrent invalid threadID ... Logical Error";

using gltest::thrown;

TEST(GLContext, NestedLevelsSwitchEGLOnlyAtTheOutermostLevelOwnershipPassesMisuseChangesNothing) {
    GLContext ctx(EGL_NO_CONTEXT);
    ASSERT_NE(ctx.context, EGL_NO_CONTEXT);
    EXPECT_EQ(ctx.threadId, -1);

    ASSERT_TRUE(ctx.makeCurrent(nullptr));
    EXPECT_EQ(ctx.threadId, gettid());
    EXPECT_EQ(eglGetCurrentContext(), ctx.context);

    // A nested level with another surface keeps the pbuffer current.
    EGLConfig config;
    EGLint n = 0;
    const EGLint attributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
    ASSERT_TRUE(eglChooseConfig(ctx.display, attributes, &config, 1, &n));
    const EGLint size[] = {EGL_WIDTH, 16, EGL_HEIGHT, 16, EGL_NONE};
    EGLSurface other = eglCreatePbufferSurface(ctx.display, config, size);
    ASSERT_NE(other, EGL_NO_SURFACE);
    EXPECT_TRUE(ctx.makeCurrent(other));
    EXPECT_EQ(ctx.count, 2);
    EXPECT_EQ(eglGetCurrentSurface(EGL_DRAW), ctx.surface);

    EXPECT_TRUE(ctx.clearCurrent());
    EXPECT_EQ(eglGetCurrentContext(), ctx.context);  // inner release leaves EGL alone
    EXPECT_TRUE(ctx.clearCurrent());
    EXPECT_EQ(ctx.threadId, -1);
    EXPECT_EQ(ctx.count, 0);
    EXPECT_EQ(eglGetCurrentContext(), EGL_NO_CONTEXT);
    eglDestroySurface(ctx.display, other);
    EXPECT_NE(std::string(ctx.getExtensions()).find("EGL_KHR_image_base"), std::string::npos);

    // Ownership passes between two real threads.
    ASSERT_TRUE(ctx.makeCurrent(nullptr));
    ASSERT_TRUE(ctx.makeCurrent(nullptr));

    std::string refused = gltest::onOtherThread([&] {
        std::string enter = thrown([&] { ctx.makeCurrent(nullptr); });
        std::string leave = thrown([&] { ctx.clearCurrent(); });
        std::string guard = thrown([&] { delete new GLContext::Guard(&ctx); });
        return enter + "|" + leave + "|" + guard + "|" +
               (eglGetCurrentContext() == EGL_NO_CONTEXT ? "none" : "current");
    });
    EXPECT_EQ(refused,
              std::string(kOtherThread) + "|" + kWrongThread + "|" + kOtherThread + "|none");
    EXPECT_EQ(ctx.count, 2);  // the owner's depth is untouched
    EXPECT_EQ(ctx.threadId, gettid());

    ctx.clearCurrent();
    ctx.clearCurrent();
    // Now the other thread takes it, with a guard, and this thread is refused in turn.
    std::promise<void> taken, release;
    auto holder = std::async(std::launch::async, [&] {
        auto* guard = new GLContext::Guard(&ctx);
        bool current = eglGetCurrentContext() == ctx.context;
        taken.set_value();
        release.get_future().wait();
        delete guard;
        return current && eglGetCurrentContext() == EGL_NO_CONTEXT;
    });
    ASSERT_EQ(taken.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_EQ(thrown([&] { ctx.makeCurrent(nullptr); }), kOtherThread);
    EXPECT_EQ(thrown([&] { ctx.deinit(); }), "Deinitializing GL Context while a guard is active");
    release.set_value();
    ASSERT_EQ(holder.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    EXPECT_TRUE(holder.get());
    EXPECT_EQ(ctx.threadId, -1);
    EXPECT_TRUE(ctx.makeCurrent(nullptr));
    EXPECT_TRUE(ctx.clearCurrent());

    // Misuse is thrown and changes nothing.
    EXPECT_EQ(thrown([&] { ctx.clearCurrent(); }), kFreeClear);
    EXPECT_EQ(ctx.threadId, -1);
    EXPECT_EQ(ctx.count, 0);

    // Corrupt states, set by hand: an owner at depth 0, a depth without an owner.
    ctx.threadId = gettid();
    EXPECT_EQ(thrown([&] { ctx.clearCurrent(); }),
              "GL Context clearCurrent context is not current ... Logical Error");
    ctx.threadId = -1;
    ctx.count = 2;
    EXPECT_EQ(thrown([&] { ctx.makeCurrent(nullptr); }),
              "GL Context invalid thread id but thread count positive ... Logical Error");
    EXPECT_EQ(ctx.count, 2);
    ctx.count = 0;

    auto* guard = new GLContext::Guard(&ctx);
    EXPECT_EQ(thrown([&] { ctx.deinit(); }), "Deinitializing GL Context while a guard is active");
    EXPECT_EQ(ctx.count, 1);
    delete guard;
    EXPECT_EQ(ctx.count, 0);
    EXPECT_EQ(ctx.deinit(), EGL_TRUE);
    ctx.init();  // handles are left after deinit; forget them so the destructor has nothing to do
}

TEST(GLContextDeathTest, WithoutDisplayMakeCurrentFailsButCountsALevel) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // In a fresh child process, with no EGL platform that can open a display.
    EXPECT_EXIT(
        {
            unsetenv("EGL_PLATFORM");
            unsetenv("DISPLAY");
            unsetenv("WAYLAND_DISPLAY");
            GLContext ctx(EGL_NO_CONTEXT);
            bool made = ctx.makeCurrent(nullptr);
            bool ok = ctx.context == EGL_NO_CONTEXT && !made && ctx.count == 1 &&
                      ctx.threadId == gettid();
            ctx.clearCurrent();
            _exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
