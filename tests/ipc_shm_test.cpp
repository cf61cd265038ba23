// Shared memory: creation, stamping and removal seen from several processes.
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

constexpr uint32_t kSize = 8192;

SharedMemoryRecord *rec(void *h) { return static_cast<SharedMemoryRecord *>(h); }
uint32_t first_word(void *p) { return *static_cast<uint32_t *>(p); }
bool zero_after_marker(void *p) {
    std::vector<char> zeros(kSize - 4);
    return std::memcmp(static_cast<char *>(p) + 4, zeros.data(), zeros.size()) == 0;
}

// The segment of the test's own key is removed in TearDown, whatever happened.
class SharedMem : public ::testing::Test {
protected:
    void SetUp() override {
        key_ = static_cast<uint32_t>(ftok(dir_.path().c_str(), 's'));
        ASSERT_EQ(shmget(static_cast<key_t>(key_), 0, 0), -1) << "key in use";
    }
    void TearDown() override {
        int id = shmget(static_cast<key_t>(key_), 0, 0);
        if (id != -1) shmctl(id, IPC_RMID, nullptr);
    }
    void *create(void **address, uint32_t size = kSize) {
        void *h = nullptr;
        EXPECT_EQ(IPC_SHM_Create(&h, key_, size, address, nullptr), 0u);
        return h;
    }
    kavro::test::ScratchDir dir_;
    uint32_t key_ = 0;
};

TEST_F(SharedMem, CreatorStampsAndAnotherProcessSeesTheSameSegment) {
    void *addr = nullptr;
    void *h = create(&addr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rec(h)->address, addr);
    EXPECT_EQ(first_word(addr), KAVRO_SHM_MARKER);
    EXPECT_TRUE(zero_after_marker(addr));
    uint32_t size = 0;
    EXPECT_EQ(IPC_SHM_GetCount(h, &size), 0u);
    EXPECT_EQ(size, kSize);
    std::strcpy(static_cast<char *>(addr) + 4, "old");

    // The opener sees the contents unchanged; once the creator deletes, a
    // new creation is fresh while the opener keeps its view.
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    const uint32_t key = key_;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        alarm(30);
        void *h2 = nullptr, *a2 = nullptr;
        if (IPC_SHM_Create(&h2, key, kSize, &a2, "name") != 0) _exit(1);
        if (first_word(a2) != KAVRO_SHM_MARKER || std::strcmp(static_cast<char *>(a2) + 4, "old") != 0)
            _exit(2);
        char c = 0;
        if (write(ready[1], "a", 1) != 1 || read(go[0], &c, 1) != 1) _exit(3);
        _exit(std::strcmp(static_cast<char *>(a2) + 4, "old") == 0 ? 0 : 4);
    }
    close(ready[1]);  // a child that dies early ends the read below
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);
    void *fresh_addr = nullptr;
    void *fresh = create(&fresh_addr);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(first_word(fresh_addr), KAVRO_SHM_MARKER);
    EXPECT_TRUE(zero_after_marker(fresh_addr));
    ASSERT_EQ(write(go[1], "g", 1), 1);
    EXPECT_EQ(kavro::test::reap(pid), 0);
    EXPECT_EQ(IPC_SHM_Delete(fresh), 0u);
    for (int fd : {ready[0], go[0], go[1]}) close(fd);
}

TEST_F(SharedMem, WithoutAnAddressNothingIsAttachedUntilMap) {
    void *h = create(nullptr);  // new: neither attached nor stamped
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rec(h)->address, nullptr);
    ASSERT_EQ(IPC_SHM_Map(h, nullptr), 0u);
    void *at = rec(h)->address;
    ASSERT_NE(at, nullptr);
    EXPECT_EQ(first_word(at), 0u);
    EXPECT_EQ(IPC_SHM_Map(h, nullptr), KAVRO_E_FAIL);  // already attached
    EXPECT_EQ(rec(h)->address, at);
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);

    // An existing segment is opened, so a later Map reaches it.
    void *addr = nullptr;
    void *owner = create(&addr);
    ASSERT_NE(owner, nullptr);
    void *opener = create(nullptr);
    ASSERT_NE(opener, nullptr);
    ASSERT_EQ(IPC_SHM_Map(opener, nullptr), 0u);
    EXPECT_EQ(first_word(rec(opener)->address), KAVRO_SHM_MARKER);
    shmdt(rec(opener)->address);
    KAVRO_OBJ_Free(opener, 0);
    EXPECT_EQ(IPC_SHM_Delete(owner), 0u);
}

TEST_F(SharedMem, BadInputAnswersWithAStatus) {
    void *addr = nullptr;
    EXPECT_EQ(IPC_SHM_Create(nullptr, key_, kSize, &addr, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(shmget(static_cast<key_t>(key_), 0, 0), -1);  // nothing was made
    void *h = &addr;

    // An existing segment smaller than asked for is reported and refused.
    void *owner = create(&addr, 4096);
    ASSERT_NE(owner, nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(IPC_SHM_Create(&h, key_, 3 * 4096, &addr, nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Failed to create/attach to Shared Memeory errno is 16 \n\n");  // EINVAL
    EXPECT_EQ(h, nullptr);
    // Not attached here: the detach fails, the removal still happens.
    errno = 0;
    EXPECT_EQ(detachandremove(rec(owner)->shmId, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(shmget(static_cast<key_t>(key_), 0, 0), -1);
    shmdt(addr);
    KAVRO_OBJ_Free(owner, 0);
}

}  // namespace
