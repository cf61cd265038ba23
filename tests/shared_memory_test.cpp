// Shared memory: creation, stamping and removal seen from several processes.
#include <gtest/gtest.h>

#include <poll.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "ipc.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::test::run_in_child;

constexpr uint32_t kSize = 8192;

SharedMemoryRecord *rec(void *h) { return static_cast<SharedMemoryRecord *>(h); }

bool all_zero(const void *p, size_t from, size_t to) {
    const auto *b = static_cast<const unsigned char *>(p);
    for (size_t i = from; i < to; ++i)
        if (b[i] != 0) return false;
    return true;
}

char read_byte(int fd, int timeout_ms) {
    pollfd p{fd, POLLIN, 0};
    char c = 0;
    if (poll(&p, 1, timeout_ms) != 1 || read(fd, &c, 1) != 1) return 0;
    return c;
}

// Every segment made under the test's key is removed in TearDown.
class SharedMem : public ::testing::Test {
protected:
    void SetUp() override {
        for (int proj = 1; proj < 256 && key_ == 0; ++proj) {
            key_t k = ftok(dir_.path().c_str(), proj);
            if (k != -1 && shmget(k, 0, 0) == -1 && errno == ENOENT) key_ = static_cast<uint32_t>(k);
        }
        ASSERT_NE(key_, 0u);
    }
    void TearDown() override {
        int id = shmget(static_cast<key_t>(key_), 0, 0);
        if (id != -1) shmctl(id, IPC_RMID, nullptr);
        for (int32_t i : ids_) shmctl(i, IPC_RMID, nullptr);
    }
    void *create(void **address, uint32_t size = kSize) {
        void *h = nullptr;
        EXPECT_EQ(IPC_SHM_Create(&h, key_, size, address, nullptr), 0u);
        if (h != nullptr) ids_.push_back(rec(h)->shmId);
        return h;
    }

    kavro::test::ScratchDir dir_;
    uint32_t key_ = 0;
    std::vector<int32_t> ids_;
};

TEST_F(SharedMem, CreatorStampsAndAnotherProcessSeesTheSameSegment) {
    void *addr = nullptr;
    void *h = create(&addr);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(addr, nullptr);
    EXPECT_EQ(rec(h)->address, addr);
    EXPECT_EQ(*static_cast<uint32_t *>(addr), KAVRO_SHM_MARKER);
    EXPECT_TRUE(all_zero(addr, 4, kSize));
    uint32_t size = 0;
    EXPECT_EQ(IPC_SHM_GetCount(h, &size), 0u);
    EXPECT_EQ(size, kSize);
    std::strcpy(static_cast<char *>(addr) + 4, "from the creator");

    // The opener attaches the segment unchanged and writes back into it.
    const uint32_t key = key_;
    int rc = run_in_child([key] {
        void *h2 = nullptr, *a2 = nullptr;
        if (IPC_SHM_Create(&h2, key, kSize, &a2, "name") != 0) return 1;
        if (*static_cast<uint32_t *>(a2) != KAVRO_SHM_MARKER) return 2;
        if (std::strcmp(static_cast<char *>(a2) + 4, "from the creator") != 0) return 3;
        std::strcpy(static_cast<char *>(a2) + 100, "from the opener");
        return 0;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_STREQ(static_cast<char *>(addr) + 100, "from the opener");
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);
}

TEST_F(SharedMem, RecreationAfterDeleteIsFreshWhileOldViewsStay) {
    void *addr = nullptr;
    void *h = create(&addr);
    ASSERT_NE(h, nullptr);
    std::strcpy(static_cast<char *>(addr) + 4, "old contents");

    int up[2], down[2];
    ASSERT_EQ(pipe(up), 0);
    ASSERT_EQ(pipe(down), 0);
    const uint32_t key = key_;
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        void *h2 = nullptr, *a2 = nullptr;
        char c = IPC_SHM_Create(&h2, key, kSize, &a2, nullptr) == 0 ? 'a' : 'x';
        if (write(up[1], &c, 1) != 1) _exit(2);
        if (read_byte(down[0], 30000) != 'd') _exit(3);
        // Still attached to the removed segment: its contents remain.
        _exit(std::strcmp(static_cast<char *>(a2) + 4, "old contents") == 0 ? 0 : 1);
    }
    ASSERT_EQ(read_byte(up[0], 30000), 'a');
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);

    void *fresh_addr = nullptr;
    void *fresh = create(&fresh_addr);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(*static_cast<uint32_t *>(fresh_addr), KAVRO_SHM_MARKER);
    EXPECT_TRUE(all_zero(fresh_addr, 4, kSize));

    char go = 'd';
    ASSERT_EQ(write(down[1], &go, 1), 1);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(IPC_SHM_Delete(fresh), 0u);
    for (int fd : {up[0], up[1], down[0], down[1]}) close(fd);
}

TEST_F(SharedMem, WithoutAnAddressNothingIsAttachedUntilMap) {
    // A new segment made without an out address is neither attached nor
    // stamped.
    void *h = create(nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rec(h)->address, nullptr);
    ASSERT_EQ(IPC_SHM_Map(h, nullptr), 0u);
    void *at = rec(h)->address;
    ASSERT_NE(at, nullptr);
    EXPECT_TRUE(all_zero(at, 0, kSize));
    // A second Map changes nothing.
    EXPECT_EQ(IPC_SHM_Map(h, nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(rec(h)->address, at);
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);
}

TEST_F(SharedMem, ExistingSegmentOpenedWithoutAnAddressCanBeMappedLater) {
    void *addr = nullptr;
    void *owner = create(&addr);
    ASSERT_NE(owner, nullptr);
    void *h = create(nullptr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(rec(h)->shmId, rec(owner)->shmId);
    ASSERT_EQ(IPC_SHM_Map(h, nullptr), 0u);
    EXPECT_EQ(*static_cast<uint32_t *>(rec(h)->address), KAVRO_SHM_MARKER);
    shmdt(rec(h)->address);
    KAVRO_OBJ_Free(h, 0);
    EXPECT_EQ(IPC_SHM_Delete(owner), 0u);
}

TEST_F(SharedMem, ExistingSegmentTooSmallIsReportedAndRefused) {
    void *addr = nullptr;
    void *owner = create(&addr, 4096);
    ASSERT_NE(owner, nullptr);
    void *h = reinterpret_cast<void *>(1);
    void *a2 = nullptr;
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    KAVRO_STATUS st = IPC_SHM_Create(&h, key_, 3 * 4096, &a2, nullptr);
    testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(st, KAVRO_E_FAIL);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(err, "Failed to create/attach to Shared Memeory errno is 16 \n\n");  // EINVAL
    EXPECT_EQ(IPC_SHM_Delete(owner), 0u);
}

TEST_F(SharedMem, BadArgumentsAnswerWithAStatus) {
    void *addr = nullptr;
    EXPECT_EQ(IPC_SHM_Create(nullptr, key_, kSize, &addr, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(shmget(static_cast<key_t>(key_), 0, 0), -1);  // nothing was made
    void *h = nullptr;
    EXPECT_EQ(IPC_SHM_Create(&h, key_, 0, &addr, nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(h, nullptr);

    uint32_t size = 0;
    EXPECT_EQ(IPC_SHM_GetCount(nullptr, &size), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_SHM_Map(nullptr, nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_SHM_Delete(nullptr), 0u);
    uint32_t foreign[4] = {KAVRO_TAG_SEM, 0, 0, 0};
    EXPECT_EQ(IPC_SHM_Delete(foreign), KAVRO_E_FAIL);
    EXPECT_EQ(IPC_SHM_GetCount(foreign, &size), KAVRO_E_FAIL);

    h = create(&addr);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(IPC_SHM_GetCount(h, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(IPC_SHM_Delete(h), 0u);
    EXPECT_EQ(IPC_SHM_Init(), 0u);
    EXPECT_EQ(IPC_SHM_Exit(), 0u);
}

TEST_F(SharedMem, DetachAndRemoveReportsTheFirstFailure) {
    int id = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ASSERT_NE(id, -1);
    ids_.push_back(id);
    void *at = shmat(id, nullptr, 0);
    ASSERT_NE(at, reinterpret_cast<void *>(-1));
    EXPECT_EQ(detachandremove(id, at), 0);
    shmid_ds ds{};
    EXPECT_EQ(shmctl(id, IPC_STAT, &ds), -1);

    // Nothing attached: the detach fails, the removal still happens.
    int id2 = shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
    ASSERT_NE(id2, -1);
    ids_.push_back(id2);
    errno = 0;
    EXPECT_EQ(detachandremove(id2, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(shmctl(id2, IPC_STAT, &ds), -1);
}

}  // namespace
