// The file wrapper: stream operations through a handle, refused reads, a lost final flush.

#include "kavro_rt/kfile.h"
#include "test_support.hpp"

TEST(KFile, StreamOperationsRefusalsAndALostFlush) {
    kavro::test::ScratchDir dir;
    KFILE *f = KFILE_Open((dir.path() + "/data").c_str(), "w+");
    ASSERT_NE(f, nullptr);
    char buf[16] = {};
    EXPECT_TRUE(KFILE_Write("0123456789", 2, 5, f) == 5 && KFILE_Seek(f, -4, SEEK_END) == 0 && KFILE_Tell(f) == 6);
    EXPECT_TRUE(KFILE_Read(buf, 3, 5, f) == 1 && std::string(buf, 3) == "678");  // whole items only
    EXPECT_TRUE(KFILE_Seek(f, -1, SEEK_SET) == -1 && KFILE_Seek(f, 2, SEEK_SET) == 0);
    EXPECT_TRUE(KFILE_Read(nullptr, 1, 4, f) == -EIO && KFILE_Read(buf, 1, 0x80000000u, f) == -EINVAL);
    EXPECT_TRUE(KFILE_Tell(f) == 2 && KFILE_Close(f) == 0);  // a refused read moves nothing
    ASSERT_NE(f = KFILE_Open("/dev/full", "w"), nullptr);
    EXPECT_TRUE(KFILE_Write("x", 1, 1, f) == 1 && KFILE_Close(f) == -1);  // buffered: fails when flushed
}
