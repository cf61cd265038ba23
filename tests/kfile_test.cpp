// The file wrapper: stream operations through a handle, refused reads, a lost final flush.
#include <gtest/gtest.h>

#include <cerrno>

#include "kavro_rt/kfile.h"
#include "test_support.hpp"

namespace {

TEST(KFile, StreamOperationsRefusalsAndALostFlush) {
    kavro::test::ScratchDir dir;
    const std::string path = dir.path() + "/data";
    EXPECT_EQ(KFILE_Init(), 1);
    KFILE *f = KFILE_Open(path.c_str(), "w+");
    ASSERT_NE(f, nullptr);
    char buf[16] = {};
    EXPECT_TRUE(KFILE_Write("0123456789", 2, 5, f) == 5 && KFILE_Seek(f, -4, SEEK_END) == 0 && KFILE_Tell(f) == 6);
    EXPECT_TRUE(KFILE_Read(buf, 3, 5, f) == 1 && std::string(buf, 3) == "678");  // whole items only
    EXPECT_TRUE(KFILE_Seek(f, -1, SEEK_SET) == -1 && KFILE_Seek(f, 2, SEEK_SET) == 0);
    EXPECT_TRUE(KFILE_Read(nullptr, 1, 4, f) == -EIO && KFILE_Read(buf, 1, 0x80000000u, f) == -EINVAL);
    EXPECT_EQ(KFILE_Tell(f), 2);  // a refused read moves nothing
    EXPECT_EQ(KFILE_Close(f), 0);
    EXPECT_EQ(kavro::test::read_file(path), "0123456789");
    errno = 0;
    EXPECT_TRUE(KFILE_Open("/nonexistent/file", "r") == nullptr && errno == ENOENT);
    EXPECT_TRUE(KFILE_Open(nullptr, "r") == nullptr && KFILE_Open("/dev/null", nullptr) == nullptr);
    f = KFILE_Open("/dev/full", "w");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(KFILE_Write("x", 1, 1, f), 1);  // buffered, fails only when flushed
    EXPECT_EQ(KFILE_Close(f), -1);
}

}  // namespace
