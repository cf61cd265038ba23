// Mailboxes: order, wrap-around, timeouts, many threads, failed creation.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Msg {
    uint32_t producer;
    uint32_t seq;
    uint8_t pad[8];
};
static_assert(sizeof(Msg) == 16);

int32_t count_of(MBX_HANDLE m) {
    int32_t c = -1;
    return MBX_GetCount(m, &c) == KAVRO_OK ? c : -1;
}
int32_t high_water(MBX_HANDLE m) {
    int32_t c = -1;
    return MBX_GetMaxCount(m, &c) == KAVRO_OK ? c : -1;
}

TEST(Mailbox, FifoAcrossWrapAroundWithHighWaterMark) {
    EXPECT_EQ(MBX_Init(), 0);
    EXPECT_EQ(MBX_Init(), 1);
    MBX_HANDLE m = nullptr;
    ASSERT_EQ(MBX_Create(&m, sizeof(Msg), 3), KAVRO_OK);
    uint32_t next_in = 0, next_out = 0;
    for (int round = 0; round < 7; ++round) {
        const int n = 1 + round % 3;  // 1..3 messages, so head and tail wrap unevenly
        for (int i = 0; i < n; ++i) {
            Msg in{0, next_in++, {}};
            ASSERT_EQ(MBX_Post(m, &in, 0), KAVRO_OK);
        }
        EXPECT_EQ(count_of(m), n);
        for (int i = 0; i < n; ++i) {
            Msg out{};
            ASSERT_EQ(MBX_Pend(m, &out, 0), KAVRO_OK);
            EXPECT_EQ(out.seq, next_out++);
        }
    }
    EXPECT_EQ(high_water(m), 3);
    EXPECT_EQ(count_of(m), 0);

    Msg msg{};
    for (int i = 0; i < 3; ++i) ASSERT_EQ(MBX_Post(m, &msg, 0), KAVRO_OK);
    const auto t0 = Clock::now();
    EXPECT_EQ(MBX_Post(m, &msg, 0), KAVRO_E_TIMEOUT);  // full: no wait at all
    EXPECT_LT(Clock::now() - t0, milliseconds(1000));
    EXPECT_EQ(count_of(m), 3);
    EXPECT_EQ(MBX_Delete(m), KAVRO_OK);
    MBX_Exit();
    MBX_Exit();
}

TEST(Mailbox, TimedWaitsNeitherReturnEarlyNorHang) {
    MBX_HANDLE m = nullptr;
    ASSERT_EQ(MBX_Create(&m, sizeof(Msg), 1), KAVRO_OK);
    Msg msg{};
    auto t0 = Clock::now();
    EXPECT_EQ(MBX_Pend(m, &msg, 80), KAVRO_E_TIMEOUT);  // empty
    EXPECT_GE(Clock::now() - t0, milliseconds(79));
    EXPECT_LT(Clock::now() - t0, milliseconds(5000));
    ASSERT_EQ(MBX_Post(m, &msg, 0), KAVRO_OK);
    t0 = Clock::now();
    EXPECT_EQ(MBX_Post(m, &msg, 80), KAVRO_E_TIMEOUT);  // full
    EXPECT_GE(Clock::now() - t0, milliseconds(79));
    EXPECT_LT(Clock::now() - t0, milliseconds(5000));
    EXPECT_EQ(count_of(m), 1);

    EXPECT_EQ(MBX_Delete(m), KAVRO_OK);
}

// Short timeouts make waiters time out, retry and lose races: still every
// message arrives once, each producer's in the order sent.
TEST(Mailbox, ManyThreadsDeliverEveryMessageOnceInProducerOrder) {
    constexpr uint32_t kProducers = 4, kConsumers = 4, kPerProducer = 4000;
    MBX_HANDLE m = nullptr;
    ASSERT_EQ(MBX_Create(&m, sizeof(Msg), 4), KAVRO_OK);
    std::vector<std::atomic<uint32_t>> seen(kProducers * kPerProducer);
    std::atomic<uint32_t> received{0};
    std::atomic<bool> order_ok{true};

    std::vector<std::thread> threads;
    for (uint32_t p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (uint32_t s = 0; s < kPerProducer;) {
                Msg msg{p, s, {}};
                std::memset(msg.pad, static_cast<int>(s), sizeof msg.pad);
                KAVRO_STATUS st = MBX_Post(m, &msg, p % 2 ? 1 : KAVRO_WAIT_FOREVER);
                if (st == KAVRO_OK) ++s;
                else ASSERT_EQ(st, KAVRO_E_TIMEOUT);
            }
        });
    for (uint32_t c = 0; c < kConsumers; ++c)
        threads.emplace_back([&, c] {
            std::vector<int64_t> last(kProducers, -1);
            while (received < kProducers * kPerProducer) {
                Msg msg{};
                KAVRO_STATUS st = MBX_Pend(m, &msg, c % 2 ? 1 : 20);
                if (st == KAVRO_E_TIMEOUT) continue;
                ASSERT_EQ(st, KAVRO_OK);
                ASSERT_LT(msg.producer, kProducers);
                ASSERT_LT(msg.seq, kPerProducer);
                if (msg.pad[7] != static_cast<uint8_t>(msg.seq)) order_ok = false;
                if (static_cast<int64_t>(msg.seq) <= last[msg.producer]) order_ok = false;
                last[msg.producer] = msg.seq;
                ++seen[msg.producer * kPerProducer + msg.seq];
                ++received;
            }
        });
    for (auto &t : threads) t.join();
    EXPECT_TRUE(order_ok);
    for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].load(), 1u) << "message " << i;
    EXPECT_EQ(count_of(m), 0);
    EXPECT_EQ(high_water(m), 4);
    EXPECT_EQ(MBX_Delete(m), KAVRO_OK);
}

TEST(Mailbox, NullHandlesAndZeroSlotsAreRefused) {
    int32_t c = 0;
    Msg msg{};
    const uint32_t deletes = mbxdelete_call;
    testing::internal::CaptureStderr();
    for (KAVRO_STATUS st : {MBX_Post(nullptr, &msg, 0), MBX_Pend(nullptr, &msg, 0), MBX_GetCount(nullptr, &c),
                            MBX_GetMaxCount(nullptr, &c), MBX_Create(nullptr, 16, 2)})
        EXPECT_EQ(st, KAVRO_E_INVALIDARG);
    EXPECT_EQ(MBX_Delete(nullptr), KAVRO_OK);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:MBX_Pend: mbx pointer is NULL\nKAVRO:MBX_Delete: mbx pointer is NULL\n");
    EXPECT_EQ(mbxdelete_call, deletes + 1);

    MBX_HANDLE m = nullptr;
    ASSERT_EQ(MBX_Create(&m, 16, 0), KAVRO_OK);
    testing::internal::CaptureStderr();
    EXPECT_EQ(MBX_Post(m, &msg, 0), KAVRO_E_FAIL);
    EXPECT_EQ(MBX_Pend(m, &msg, 0), KAVRO_E_FAIL);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:MBX_Post: the mailbox length is invalid = 0\n"
              "KAVRO:MBX_Pend: the mailbox length is invalid = 0\n");
    EXPECT_EQ(MBX_GetCount(m, nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(MBX_Delete(m), KAVRO_OK);
}

// Out of memory (an address-space limit, on every architecture): a line, what
// was taken released, no mailbox.
TEST(Mailbox, FailedAllocationLeavesNothing) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer allocators abort on a failed allocation instead of returning null";
#endif
    struct Case {
        uint32_t msgSize, slots;
        std::string log;
    };
    const Case cases[] = {
        {0x40000000u, 3, "KAVRO:MBX_Create : Failed to allocate -1073741824 bytes\n"},
        // 3 GiB of slot pointers on either architecture
        {1, static_cast<uint32_t>(0xC0000000u / sizeof(void *)),
         "KAVRO:MBX_Create: failed to allocate memory for a mailbox, size = -1073741824 bytes\n"},
    };
    for (const Case &k : cases) {
        const int rc = kavro::test::run_in_child([&] {
            rlimit lim{256u << 20, 256u << 20};
            setrlimit(RLIMIT_AS, &lim);
            const uint32_t creates = mbxcreate_call, deletes = mbxdelete_call;
            MBX_HANDLE m = &lim;
            testing::internal::CaptureStderr();
            const KAVRO_STATUS st = MBX_Create(&m, k.msgSize, k.slots);
            const std::string log = testing::internal::GetCapturedStderr();
            if (st != KAVRO_E_OUTOFMEMORY || m != nullptr) return 1;
            if (log != k.log + "KAVRO:MBX_Create : bad case .... **** \n") return 2;
            if (mbxcreate_call != creates + 1 || mbxdelete_call != deletes + 1) return 3;
            return 0;
        });
        EXPECT_EQ(rc, 0) << k.log;
    }
}

}  // namespace
