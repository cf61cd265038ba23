// IPC keys: key files in the IPC directory and the per-process unique keys.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>
#include <thread>

#include "ipc.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::ScratchDir;

ino_t inode_of(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// Makes a file named `name` in dir whose inode number ends in the byte 0 (so
// its ftok key has the low byte 0), by creating files until one qualifies.
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
    ASSERT_EQ(IPC_Init((dir.path() + "/").c_str()), 0u);
    const std::string file = dir.path() + "/seg";

    uint32_t key = 0xDEAD;
    ASSERT_EQ(IPC_GetKey("seg", 3, &key), 0u);
    // The key file stays, with every permission bit, and the mask stays 0.
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0777u);
    EXPECT_EQ(umask(022), 0u);
    umask(0);

    uint32_t expected = static_cast<uint32_t>(ftok(file.c_str(), 3)) & 0xFF;
    if (expected == 0) expected = static_cast<uint32_t>(ftok((dir.path() + "/abseg").c_str(), 3)) & 0xFF;
    EXPECT_EQ(key, expected);
    EXPECT_LE(key, 255u);

    uint32_t again = 0;
    ASSERT_EQ(IPC_GetKey("seg", 3, &again), 0u);
    EXPECT_EQ(again, key);

    // Another process, whose prefix was given separately, agrees.
    int rc = kavro::test::run_in_child([&] {
        IPC_Init((dir.path() + "/").c_str());
        uint32_t k = 0;
        if (IPC_GetKey("seg", 3, &k) != 0) return 2;
        return k == key ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
}

TEST(IpcGetKey, PrefixIsUsedLiterallyAndEmptyMeansCurrentDirectory) {
    ScratchDir dir;
    // No separator is added between prefix and name.
    ASSERT_EQ(IPC_Init((dir.path() + "/pre_").c_str()), 0u);
    uint32_t key = 0;
    ASSERT_EQ(IPC_GetKey("name", 1, &key), 0u);
    EXPECT_TRUE(exists(dir.path() + "/pre_name"));

    int rc = kavro::test::run_in_child([&] {
        if (chdir(dir.path().c_str()) != 0) return 3;
        IPC_Init("");
        uint32_t k = 0;
        if (IPC_GetKey("relative", 1, &k) != 0) return 2;
        return exists(dir.path() + "/relative") ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
}

TEST(IpcGetKey, NullOutKeyDoesNothingAndNullNameIsRefused) {
    ScratchDir dir;
    IPC_Init((dir.path() + "/").c_str());
    EXPECT_EQ(IPC_GetKey("untouched", 1, nullptr), 0u);
    EXPECT_FALSE(exists(dir.path() + "/untouched"));
    uint32_t key = 7;
    EXPECT_EQ(IPC_GetKey(nullptr, 1, &key), KAVRO_E_INVALIDARG);
}

TEST(IpcGetKey, FtokFailureStoresMinusOneAndLogsTheLine) {
    ScratchDir dir;
    const std::string prefix = dir.path() + "/missing/";
    IPC_Init(prefix.c_str());
    uint32_t key = 0;
    testing::internal::CaptureStderr();
    KAVRO_STATUS st = IPC_GetKey("k", 9, &key);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(st, KAVRO_E_FAIL);
    EXPECT_EQ(key, 0xFFFFFFFFu);
    EXPECT_EQ(err, "KAVRO:IPC_GetKey: ftok error for pathname \"" + prefix + "k\" and id 9");
}

TEST(IpcGetKey, OverlongPathIsRefused) {
    ScratchDir dir;
    IPC_Init((dir.path() + "/").c_str());
    std::string name(1100, 'n');
    uint32_t key = 0;
    EXPECT_EQ(IPC_GetKey(name.c_str(), 1, &key), KAVRO_E_FAIL);
    EXPECT_EQ(key, 0xFFFFFFFFu);
}

TEST(IpcGetKey, LowByteZeroFallsBackToTheAbFile) {
    ScratchDir dir;
    if (!make_zero_low_byte_file(dir.path(), "zero")) GTEST_SKIP() << "no inode ending in 0 could be made";
    IPC_Init((dir.path() + "/").c_str());
    uint32_t key = 0;
    ASSERT_EQ(IPC_GetKey("zero", 4, &key), 0u);
    const std::string ab = dir.path() + "/abzero";
    ASSERT_TRUE(exists(ab));
    EXPECT_EQ(key, inode_of(ab) & 0xFF);
}

TEST(IpcGetKey, BothFilesZeroWalksTheIdsAndStoresZero) {
    ScratchDir dir;
    // ftok's low byte ignores the project id, so the walk cannot help here:
    // it must end (after id 8) with 0 stored and success.
    if (!make_zero_low_byte_file(dir.path(), "abz") || !make_zero_low_byte_file(dir.path(), "z"))
        GTEST_SKIP() << "no inodes ending in 0 could be made";
    IPC_Init((dir.path() + "/").c_str());
    for (int32_t id : {1, 8, 200}) {
        uint32_t key = 99;
        EXPECT_EQ(IPC_GetKey("z", id, &key), 0u) << id;
        EXPECT_EQ(key, 0u) << id;
    }
}

uint32_t next_key(uint32_t k) { return k >= 4999 ? 1 : k + 1; }

TEST(IpcUniqueKey, SearchGoesUpwardFromTheLastKeyHandedOut) {
    IPC_Init("");
    uint32_t a = 0, b = 0, c = 0, d = 0;
    ASSERT_EQ(IPC_GetUniqueKey(&a), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&b), 0u);
    EXPECT_EQ(b, next_key(a));
    // A key returned behind the search point is not reused at once...
    ASSERT_EQ(IPC_ReturnUniqueKey(static_cast<int32_t>(a)), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&c), 0u);
    EXPECT_EQ(c, next_key(b));
    // ...but the last one handed out comes straight back once returned.
    ASSERT_EQ(IPC_ReturnUniqueKey(static_cast<int32_t>(c)), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&d), 0u);
    EXPECT_EQ(d, c);
    EXPECT_EQ(IPC_GetUniqueKey(nullptr), KAVRO_E_INVALIDARG);
}

TEST(IpcUniqueKey, FullTableFailsThenReturnedKeysWrapAround) {
    IPC_Init("");
    std::set<uint32_t> seen;
    for (int i = 1; i <= 4999; ++i) {
        uint32_t k = 0;
        ASSERT_EQ(IPC_GetUniqueKey(&k), 0u) << i;
        seen.insert(k);
    }
    ASSERT_EQ(seen.size(), 4999u);
    EXPECT_EQ(*seen.begin(), 1u);
    EXPECT_EQ(*seen.rbegin(), 4999u);

    uint32_t k = 42;
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_E_FAIL);
    EXPECT_EQ(k, 0u);

    // Return 4999 and 1: the search reaches 4999 first, then wraps to 1.
    EXPECT_EQ(IPC_ReturnUniqueKey(4999), 0u);
    EXPECT_EQ(IPC_ReturnUniqueKey(1), 0u);
    uint32_t first = 0, second = 0;
    ASSERT_EQ(IPC_GetUniqueKey(&first), 0u);
    ASSERT_EQ(IPC_GetUniqueKey(&second), 0u);
    EXPECT_EQ(std::set<uint32_t>({first, second}), std::set<uint32_t>({1u, 4999u}));
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_E_FAIL);

    EXPECT_EQ(IPC_ReturnUniqueKey(5000), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_ReturnUniqueKey(-1), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_E_FAIL);  // the refused returns freed nothing
    EXPECT_EQ(IPC_ReturnUniqueKey(0), 0u);            // accepted, never handed out
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_E_FAIL);

    // IPC_Init frees the whole table.
    IPC_Init("");
    EXPECT_EQ(IPC_GetUniqueKey(&k), 0u);
    EXPECT_NE(k, 0u);
}

TEST(IpcUniqueKey, ConcurrentCallersNeverShareAKey) {
    IPC_Init("");
    constexpr int kPerThread = 2000;
    uint32_t got[2][kPerThread] = {};
    auto take = [&](int t) {
        for (int i = 0; i < kPerThread; ++i) IPC_GetUniqueKey(&got[t][i]);
    };
    std::thread t0(take, 0), t1(take, 1);
    t0.join();
    t1.join();
    std::set<uint32_t> all;
    for (auto &row : got)
        for (uint32_t k : row) {
            EXPECT_NE(k, 0u);
            all.insert(k);
        }
    EXPECT_EQ(all.size(), 2u * kPerThread);
}

TEST(IpcKeys, ExitAndCleanDoNothing) {
    EXPECT_EQ(IPC_Exit(), 0u);
    EXPECT_EQ(IPC_Clean(), 0u);
}

}  // namespace
