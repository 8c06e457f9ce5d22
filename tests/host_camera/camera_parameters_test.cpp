// Camera parameter text and size lists; camera setups the host camera refuses.
#include <camera/CameraParameters.h>
#include <gtest/gtest.h>

#include <string>

#include "LogCapture.h"
#include "host/HostCamera.h"

using android::CameraParameters;
using android::Size;
using android::String8;
using android::Vector;

TEST(CameraParameters, TextRoundTripsSortedByKeyMalformedEntriesAreRefusedSizesAndLists) {
    CameraParameters p(String8("video-size=1920x1080;recording-hint=true;a=b=c"));
    EXPECT_STREQ(p.get("video-size"), "1920x1080");
    EXPECT_STREQ(p.get("recording-hint"), "true");
    EXPECT_STREQ(p.get("a"), "b=c");  // the value runs from the first '=' to the ';'
    EXPECT_EQ(p.get("missing"), nullptr);
    EXPECT_EQ(std::string(p.flatten().string()), "a=b=c;recording-hint=true;video-size=1920x1080");

    p.set("recording-hint", "false");
    p.remove("a");
    EXPECT_EQ(std::string(p.flatten().string()), "recording-hint=false;video-size=1920x1080");

    // Malformed entries and values are refused, the rest kept.
    LogCapture log;
    CameraParameters m(String8("a=1;junk;=3;;b=2;"));
    EXPECT_EQ(std::string(m.flatten().string()), "a=1;b=2");
    EXPECT_EQ(log.countContaining("malformed camera parameter"), 2);

    // Sizes, numbers and lists.
    p = CameraParameters();
    int w = 0;
    int h = 0;
    p.getVideoSize(&w, &h);
    EXPECT_EQ(w * 10000 + h, -10001);  // -1 x -1 when missing
    EXPECT_EQ(p.getPreviewFrameRate(), -1);

    p.setVideoSize(1080, 1920);
    p.setPreviewFrameRate(24);
    EXPECT_STREQ(p.get(CameraParameters::KEY_VIDEO_SIZE), "1080x1920");
    p.getVideoSize(&w, &h);
    EXPECT_EQ(w * 10000 + h, 1080 * 10000 + 1920);
    EXPECT_EQ(p.getPreviewFrameRate(), 24);
    for (const char* bad : {"1920x", "x1080", "1920*1080", "1920x1080x3", "-2x4", "0x1080"}) {
        p.set(CameraParameters::KEY_PICTURE_SIZE, bad);
        p.getPictureSize(&w, &h);
        EXPECT_EQ(w * 10000 + h, -10001) << bad;
    }
    p.set(CameraParameters::KEY_SUPPORTED_VIDEO_SIZES, "3840x2160,1920x1080,1080x1920");
    Vector<Size> sizes;
    p.getSupportedVideoSizes(sizes);
    ASSERT_EQ(sizes.size(), 3u);
    EXPECT_EQ(sizes[2].width * 10000 + sizes[2].height, 1080 * 10000 + 1920);
    // A list is read up to its first bad entry.
    p.set(CameraParameters::KEY_SUPPORTED_PREVIEW_SIZES, "1280x720,big,640x480");
    p.getSupportedPreviewSizes(sizes);
    ASSERT_EQ(sizes.size(), 1u);
    EXPECT_EQ(sizes[0].height, 720);
}

TEST(CameraSetup, InconsistentSetupsAreRefused) {
    const struct {
        void (*change)(host::CameraSetup&);
        const char* part;  // of the error message
    } cases[] = {
        {[](host::CameraSetup& s) {
             s.videoSizes.push_back({1921, 1080});
         },
         "1921x1080"},
        {[](host::CameraSetup& s) {
             s.videoSize = {800, 600};
         },
         "800x600"},
        {[](host::CameraSetup& s) { s.bufferCount = 0; }, "buffer count 0"},
        {[](host::CameraSetup& s) { s.frameRate = 25; }, "frame rate 25"},
        {[](host::CameraSetup& s) { s.previewFormats = {"yuv;420"}; }, "yuv;420"},
    };
    for (const auto& c : cases) {
        host::CameraSetup setup;
        c.change(setup);
        try {
            host::CameraDevice::create(std::move(setup));
            ADD_FAILURE() << "accepted a setup with " << c.part;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.part), std::string::npos) << e.what();
        }
    }
}
