// The file wrapper: stream operations through a handle, refused reads, a lost
// final flush.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "kavro_rt/kfile.h"
#include "test_support.hpp"

namespace {

TEST(KFile, WriteSeekTellRead) {
    kavro::test::ScratchDir dir;
    const std::string path = dir.path() + "/data";
    EXPECT_EQ(KFILE_Init(), 1);
    KFILE *f = KFILE_Open(path.c_str(), "w+");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(KFILE_Write("0123456789", 2, 5, f), 5);
    EXPECT_EQ(KFILE_Seek(f, -4, SEEK_END), 0);
    EXPECT_EQ(KFILE_Tell(f), 6);
    char buf[16] = {};
    EXPECT_EQ(KFILE_Read(buf, 3, 5, f), 1);  // whole items only: 4 bytes hold one of 3
    EXPECT_EQ(std::string(buf, 3), "678");
    EXPECT_EQ(KFILE_Seek(f, -1, SEEK_SET), -1);
    EXPECT_EQ(KFILE_Close(f), 0);
    EXPECT_EQ(kavro::test::read_file(path), "0123456789");

    errno = 0;
    EXPECT_EQ(KFILE_Open("/nonexistent/file", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(KFILE_Open(nullptr, "r"), nullptr);
    EXPECT_EQ(KFILE_Open("/dev/null", nullptr), nullptr);
}

// Bad handles' statuses are the robustness table's; a refused read moves nothing.
TEST(KFile, RefusedReadsLeaveThePositionAlone) {
    KFILE *f = KFILE_Open("/dev/zero", "r");
    ASSERT_NE(f, nullptr);
    char buf[4];
    EXPECT_EQ(KFILE_Read(nullptr, 1, 4, f), -EIO);
    EXPECT_EQ(KFILE_Read(buf, 1, 0x80000000u, f), -EINVAL);
    EXPECT_EQ(KFILE_Tell(f), 0);
    EXPECT_EQ(KFILE_Close(f), 0);
}

TEST(KFile, CloseReportsALostFinalFlush) {
    KFILE *f = KFILE_Open("/dev/full", "w");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(KFILE_Write("x", 1, 1, f), 1);  // buffered, fails only when flushed
    EXPECT_EQ(KFILE_Close(f), -1);
}

}  // namespace
