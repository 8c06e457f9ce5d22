// A Y4M stream past 2 GiB: on 32-bit ARM a long file offset ends there. The file is sparse (only
// the headers are written), so it takes no room and no time.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "TestUtil.h"
#include "media/Y4m.h"

using namespace qlmr::replay;
using replay_test::TempDir;

TEST(Y4m, SkipsFramesPastTwoGibibytes) {
    TempDir dir;
    const std::string path = dir.file("large.y4m");
    const std::string header = "YUV4MPEG2 W16384 H16384 F30:1 C420jpeg\n";
    const off_t frameBytes = off_t{16384} * 16384 * 3 / 2;
    const int frames = 6;  // 2.4 GB
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    off_t at = 0;
    ASSERT_EQ(pwrite(fd, header.data(), header.size(), at), static_cast<ssize_t>(header.size()));
    at += static_cast<off_t>(header.size());
    for (int k = 0; k < frames; ++k, at += 6 + frameBytes)
        ASSERT_EQ(pwrite(fd, "FRAME\n", 6, at), 6);
    ASSERT_EQ(ftruncate(fd, at), 0);
    ::close(fd);
    ASSERT_GT(at, off_t{1} << 31);

    Y4mReader reader;
    reader.open(path);
    for (int k = 0; k < frames; ++k)
        ASSERT_TRUE(reader.skip()) << "frame " << k;
    EXPECT_FALSE(reader.skip());
}
