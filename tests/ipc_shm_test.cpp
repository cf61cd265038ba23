// Shared memory: creation, stamping, mapping and removal seen from several processes.

#include <sys/shm.h>

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
    return IPC_SHM_Create(&h, kKey, size, address, nullptr) == KAVRO_OK ? h : nullptr;
}
// Openers see the creator's contents, keep their view past a delete; no address: unmapped, unstamped until Map.
TEST(SharedMem, CreatorStampsOthersSeeTheSegmentMapLater) {
    const int rc = kavro::test::run_in_child([] {
        if (unshare(CLONE_NEWIPC) != 0) return 77;
        void *addr = nullptr, *h = create(&addr);
        uint32_t size = 0;
        CHILD_CHECK(h && address_of(h) == addr && holds(addr, "") && IPC_SHM_GetCount(h, &size) == 0 && size == kSize);
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
        CHILD_CHECK(write(go[1], "g", 1) == 1 && opener.exit_code() == 0 && IPC_SHM_Delete(fresh) == KAVRO_OK);
        CHILD_CHECK((h = create(nullptr)) && address_of(h) == nullptr && IPC_SHM_Map(h, nullptr) == KAVRO_OK);
        void *at = address_of(h);  // mapped, not stamped; a second Map is refused
        CHILD_CHECK(at && *static_cast<uint32_t *>(at) == 0 && IPC_SHM_Map(h, nullptr) == KAVRO_E_FAIL);
        CHILD_CHECK(address_of(h) == at && IPC_SHM_Delete(h) == KAVRO_OK);
        void *owner = create(&addr, 4096);
        CHILD_CHECK(owner != nullptr && create(&addr, 3 * 4096) == nullptr && IPC_SHM_Delete(owner) == KAVRO_OK);
        return shmget(key_t(kKey), 0, 0) == -1 ? 0 : 4;
    });
    if (rc == 77) GTEST_SKIP() << "no private IPC namespace";
    EXPECT_EQ(rc, 0);
}

}  // namespace
