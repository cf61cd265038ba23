// IPC keys: key files in the IPC directory and the per-process unique keys.

#include <set>

#include "test_support.hpp"

static uint32_t low_byte(const std::string &path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_ino & 0xFF : 0x100;
}

// The low byte of the key file's inode ("ab" + name's when 0), the same in every process; the file is open to all.
TEST(IpcKeys, SameNameSameKeyInEveryProcessUniqueKeysSearchUpwardAndWrap) {
    kavro::test::ScratchDir dir;
    const std::string prefix = dir.path() + "/pre_";  // used literally
    ASSERT_EQ(IPC_Init(prefix.c_str()), KAVRO_OK);
    uint32_t key = 0xDEAD, other = 0;
    struct stat st {};
    ASSERT_TRUE(IPC_GetKey("seg", 3, &key) == KAVRO_OK && stat((prefix + "seg").c_str(), &st) == 0);
    const uint32_t low = low_byte(prefix + "seg");
    EXPECT_TRUE(key == (low != 0 ? low : low_byte(prefix + "abseg")) && (st.st_mode & 0777) == 0777u);
    EXPECT_EQ(kavro::test::run_in_child(
                  [&] { return IPC_Init(prefix.c_str()) || IPC_GetKey("seg", 3, &other) || other != key; }),
              0);
    IPC_Init((dir.path() + "/missing/").c_str());
    EXPECT_TRUE(IPC_GetKey("k", 9, &key) == KAVRO_E_FAIL && key == 0xFFFFFFFFu);
    // Unique keys 1..4999, searched upward from the last one handed out, wrapping.
    IPC_Init("");
    uint32_t a = 0, b = 0, c = 0, d = 0, k = 0;
    ASSERT_EQ(IPC_GetUniqueKey(&a) | IPC_GetUniqueKey(&b), KAVRO_OK);
    IPC_ReturnUniqueKey(int32_t(a));  // behind the search point
    ASSERT_EQ(IPC_GetUniqueKey(&c), KAVRO_OK);
    IPC_ReturnUniqueKey(int32_t(c));  // the last one comes back
    EXPECT_TRUE(b == a % 4999 + 1 && c == b % 4999 + 1 && IPC_GetUniqueKey(&d) == KAVRO_OK && d == c);
    std::set<uint32_t> seen{b, d};
    while (IPC_GetUniqueKey(&k) == KAVRO_OK) seen.insert(k);
    EXPECT_TRUE(k == 0 && seen.size() == 4999u && *seen.begin() == 1u && *seen.rbegin() == 4999u);
    EXPECT_TRUE(IPC_ReturnUniqueKey(0) == KAVRO_OK && IPC_GetUniqueKey(&k) == KAVRO_E_FAIL);  // frees nothing
    IPC_Init("");                                                                             // frees the whole table
    EXPECT_EQ(IPC_GetUniqueKey(&k), KAVRO_OK);
}
