// Shared memory: creation, stamping, mapping and removal seen from several
// processes in a private IPC namespace.
#include <gtest/gtest.h>

#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

constexpr uint32_t kSize = 8192, kKey = 0x5EA10001u;

void *&address_of(void *h) { return static_cast<SharedMemoryRecord *>(h)->address; }
// The marker word, then "text" (or zeros when text is empty) at byte 4.
bool holds(void *p, const char *text) {
    static const char zeros[kSize] = {};
    const char *rest = static_cast<char *>(p) + 4;
    return *static_cast<uint32_t *>(p) == KAVRO_SHM_MARKER &&
           (*text ? std::strcmp(rest, text) == 0 : std::memcmp(rest, zeros, kSize - 4) == 0);
}
void *create(void **address, uint32_t size = kSize) {
    void *h = nullptr;
    EXPECT_EQ(IPC_SHM_Create(&h, kKey, size, address, nullptr), KAVRO_OK);
    return h;
}
void in_private_ipc(const std::function<int()> &body) {
    const int rc = kavro::test::run_in_child([&] { return unshare(CLONE_NEWIPC) != 0 ? 77 : body(); });
    if (rc == 77) GTEST_SKIP() << "no private IPC namespace";
    EXPECT_EQ(rc, 0);
}

// An opener sees the creator's contents; once the creator deletes, a new
// creation is fresh while the opener keeps its view.
TEST(SharedMem, CreatorStampsAndAnotherProcessSeesTheSameSegment) {
    in_private_ipc([] {
        void *addr = nullptr, *h = create(&addr);
        uint32_t size = 0;
        CHILD_CHECK(h != nullptr && address_of(h) == addr && holds(addr, ""));
        CHILD_CHECK(IPC_SHM_GetCount(h, &size) == KAVRO_OK && size == kSize);
        std::strcpy(static_cast<char *>(addr) + 4, "old");
        int go[2];
        CHILD_CHECK(pipe(go) == 0);
        kavro::test::ForkedChild opener([&](int fd) {
            void *h2 = nullptr, *a2 = nullptr;
            if (IPC_SHM_Create(&h2, kKey, kSize, &a2, "name") != KAVRO_OK || !holds(a2, "old")) return 1;
            char c;
            kavro::test::ForkedChild::say(fd);
            return read(go[0], &c, 1) == 1 && holds(a2, "old") ? 0 : 2;
        });
        CHILD_CHECK(opener.said() && IPC_SHM_Delete(h) == KAVRO_OK);
        void *fresh_addr = nullptr, *fresh = create(&fresh_addr);
        CHILD_CHECK(fresh != nullptr && holds(fresh_addr, ""));
        CHILD_CHECK(write(go[1], "g", 1) == 1 && opener.exit_code() == 0);
        return IPC_SHM_Delete(fresh) == KAVRO_OK && IPC_SHM_Delete(nullptr) == KAVRO_OK ? 0 : 3;
    });
}

// Without an address nothing is attached (nor stamped) until Map; an existing
// segment is opened, so a later Map reaches it.
TEST(SharedMem, WithoutAnAddressNothingIsAttachedUntilMap) {
    in_private_ipc([] {
        void *h = create(nullptr);
        CHILD_CHECK(h != nullptr && address_of(h) == nullptr && IPC_SHM_Map(h, nullptr) == KAVRO_OK);
        void *at = address_of(h);
        CHILD_CHECK(at != nullptr && *static_cast<uint32_t *>(at) == 0);
        CHILD_CHECK(IPC_SHM_Map(h, nullptr) == KAVRO_E_FAIL && address_of(h) == at);  // already attached
        CHILD_CHECK(IPC_SHM_Delete(h) == KAVRO_OK);
        void *addr = nullptr, *owner = create(&addr), *opener = create(nullptr);
        CHILD_CHECK(owner && opener && IPC_SHM_Map(opener, nullptr) == KAVRO_OK && holds(address_of(opener), ""));
        return 0;
    });
}

// An existing segment smaller than asked for is reported and refused; a
// removal still happens where the detach fails.
TEST(SharedMem, SmallerExistingSegmentIsRefused) {
    in_private_ipc([] {
        void *addr = nullptr, *h = &addr;
        CHILD_CHECK(IPC_SHM_Create(nullptr, kKey, kSize, &addr, nullptr) == KAVRO_E_INVALIDARG);
        CHILD_CHECK(shmget(key_t(kKey), 0, 0) == -1);  // nothing was made
        void *owner = create(&addr, 4096);
        CHILD_CHECK(owner != nullptr);
        testing::internal::CaptureStderr();
        CHILD_CHECK(IPC_SHM_Create(&h, kKey, 3 * 4096, &addr, nullptr) == KAVRO_E_FAIL && h == nullptr);
        CHILD_CHECK(testing::internal::GetCapturedStderr() ==
                    "Failed to create/attach to Shared Memeory errno is 16 \n\n");  // EINVAL
        errno = 0;
        const int id = static_cast<SharedMemoryRecord *>(owner)->shmId;
        CHILD_CHECK(detachandremove(id, nullptr) == -1 && errno == EINVAL);
        CHILD_CHECK(shmget(key_t(kKey), 0, 0) == -1);
        return 0;
    });
}

}  // namespace
