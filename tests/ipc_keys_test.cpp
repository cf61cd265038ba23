// IPC keys: key files in the IPC directory and the per-process unique keys.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::ScratchDir;

ino_t inode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

// Makes dir/name with an inode number ending in the byte 0, so that its
// ftok key has the low byte 0.
bool make_zero_low_byte_file(const std::string &dir, const std::string &name) {
    for (int i = 0; i < 20000; ++i) {
        std::string p = dir + "/fill" + std::to_string(i);
        if (!kavro::test::write_file(p, "")) return false;
        if ((inode_of(p) & 0xFF) == 0) return rename(p.c_str(), (dir + "/" + name).c_str()) == 0;
    }
    return false;
}

TEST(IpcGetKey, SameNameGivesTheSameKeyInEveryProcess) {
    ScratchDir dir;
    const std::string prefix = dir.path() + "/pre_";  // used literally
    ASSERT_EQ(IPC_Init(prefix.c_str()), 0u);
    EXPECT_EQ(IPC_GetKey("seg", 3, nullptr), 0u);
    EXPECT_NE(access((prefix + "seg").c_str(), F_OK), 0);  // nothing done

    uint32_t key = 0xDEAD;
    ASSERT_EQ(IPC_GetKey("seg", 3, &key), 0u);
    struct stat st {};
    ASSERT_EQ(stat((prefix + "seg").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    EXPECT_EQ(umask(0), 0u);
    uint32_t low = inode_of(prefix + "seg") & 0xFF;
    EXPECT_EQ(key, low != 0 ? low : inode_of(prefix + "abseg") & 0xFF);

    int rc = kavro::test::run_in_child([&] {
        IPC_Init(prefix.c_str());
        uint32_t k = 0;
        return IPC_GetKey("seg", 3, &k) == 0 && k == key ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
}

TEST(IpcGetKey, FtokFailureStoresMinusOneAndLogsTheLine) {
    ScratchDir dir;
    const std::string prefix = dir.path() + "/missing/";
    IPC_Init(prefix.c_str());
    uint32_t key = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(IPC_GetKey("k", 9, &key), KAVRO_E_FAIL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:IPC_GetKey: ftok error for pathname \"" + prefix + "k\" and id 9");
    EXPECT_EQ(key, 0xFFFFFFFFu);
    EXPECT_EQ(IPC_GetKey(std::string(1100, 'n').c_str(), 1, &key), KAVRO_E_FAIL);
}

TEST(IpcGetKey, LowByteZeroFallsBackToTheAbFileThenWalksTheIds) {
    ScratchDir dir;
    if (!make_zero_low_byte_file(dir.path(), "zero") || !make_zero_low_byte_file(dir.path(), "z") ||
        !make_zero_low_byte_file(dir.path(), "abz"))
        GTEST_SKIP() << "no inode ending in 0 could be made";
    IPC_Init((dir.path() + "/").c_str());
    uint32_t key = 0;
    ASSERT_EQ(IPC_GetKey("zero", 4, &key), 0u);
    EXPECT_EQ(key, inode_of(dir.path() + "/abzero") & 0xFF);
    // Both files end in 0: the id walk cannot change ftok's low byte, so it
    // must end with 0 stored, whatever id it starts from.
    for (int32_t id : {1, 8, 200}) {
        key = 99;
        EXPECT_EQ(IPC_GetKey("z", id, &key), 0u) << id;
        EXPECT_EQ(key, 0u) << id;
    }
}

TEST(IpcUniqueKey, SearchGoesUpwardWrapsAndFails) {
    IPC_Init("");
    auto next = [](uint32_t k) { return k >= 4999 ? 1u : k + 1; };
    uint32_t a = 0, b = 0, c = 0, d = 0;
    ASSERT_EQ(IPC_GetUniqueKey(&a), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&b), 0u);
    EXPECT_EQ(b, next(a));
    IPC_ReturnUniqueKey(static_cast<int32_t>(a));  // behind the search point
    ASSERT_EQ(IPC_GetUniqueKey(&c), 0u);
    EXPECT_EQ(c, next(b));
    IPC_ReturnUniqueKey(static_cast<int32_t>(c));  // the last one comes back
    ASSERT_EQ(IPC_GetUniqueKey(&d), 0u);
    EXPECT_EQ(d, c);

    std::set<uint32_t> seen{b, d};
    uint32_t k = 0;
    while (IPC_GetUniqueKey(&k) == 0) seen.insert(k);
    EXPECT_EQ(k, 0u);
    EXPECT_EQ(seen.size(), 4999u);
    EXPECT_EQ(*seen.begin(), 1u);
    EXPECT_EQ(*seen.rbegin(), 4999u);

    EXPECT_EQ(IPC_ReturnUniqueKey(5000), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_ReturnUniqueKey(0), 0u);  // accepted, frees nothing
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_ReturnUniqueKey(4999), 0u);
    EXPECT_EQ(IPC_ReturnUniqueKey(1), 0u);
    uint32_t x = 0, y = 0;
    ASSERT_EQ(IPC_GetUniqueKey(&x), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&y), 0u);
    EXPECT_EQ(std::set<uint32_t>({x, y}), std::set<uint32_t>({1u, 4999u}));
    IPC_Init("");  // frees the whole table
    EXPECT_EQ(IPC_GetUniqueKey(&k), 0u);
}

}  // namespace
