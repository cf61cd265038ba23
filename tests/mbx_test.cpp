// Mailboxes: order across wrap-around, bounded waits, many threads.

#include <chrono>
#include <thread>

#include "frame/internal.hpp"
#include "test_support.hpp"

namespace {

struct Msg {
    uint32_t producer, seq;
    uint8_t pad[8];
};

int32_t count_of(MBX_HANDLE m, bool high_water = false) {
    int32_t c = -1;
    return (high_water ? MBX_GetMaxCount(m, &c) : MBX_GetCount(m, &c)) == KAVRO_OK ? c : -1;
}

// Order across wrap-around, the high-water mark, bounded waits; delete returns every block.
TEST(Mailbox, OrderWaitsDeleteAndManyThreads) {
    using Clock = std::chrono::steady_clock;
    const uint32_t allocs = memgenalloccalls, frees = kavro::detail::mem_counters().memgenfreecalls;
    MBX_HANDLE m = nullptr;
    ASSERT_EQ(MBX_Create(&m, sizeof(Msg), 3), KAVRO_OK);
    uint32_t next_in = 0, next_out = 0;
    Msg msg{};
    for (int round = 0; round < 7; ++round) {
        const int n = 1 + round % 3;  // 1..3 messages, so head and tail wrap unevenly
        for (const uint32_t end = next_in + n; next_in < end; ++next_in)
            ASSERT_TRUE((msg = Msg{0, next_in, {}}, MBX_Post(m, &msg, 0) == KAVRO_OK));
        EXPECT_EQ(count_of(m), n);
        for (Msg out{}; next_out < next_in; ++next_out)
            ASSERT_TRUE(MBX_Pend(m, &out, 0) == KAVRO_OK && out.seq == next_out);
    }
    EXPECT_TRUE(count_of(m, true) == 3 && count_of(m) == 0);
    const auto t0 = Clock::now();  // empty: waits, then gives up
    EXPECT_TRUE(MBX_Pend(m, &msg, 80) == KAVRO_E_TIMEOUT && Clock::now() - t0 >= std::chrono::milliseconds(79));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(MBX_Post(m, &msg, 0), KAVRO_OK);
    EXPECT_TRUE(MBX_Post(m, &msg, 0) == KAVRO_E_TIMEOUT && MBX_Post(m, &msg, 30) == KAVRO_E_TIMEOUT);  // full
    Msg spare{};  // a post that had to wait for room succeeds
    std::thread taker([m, &spare] { usleep(20000), MBX_Pend(m, &spare, 0); });
    EXPECT_EQ(MBX_Post(m, &msg, KAVRO_WAIT_FOREVER), KAVRO_OK);
    taker.join();
    EXPECT_TRUE(count_of(m) == 3 && MBX_Delete(m) == KAVRO_OK);
    EXPECT_EQ(kavro::detail::mem_counters().memgenfreecalls - frees, memgenalloccalls - allocs);
    // Many threads, short timeouts that make waiters lose races: every message arrives once, in its producer's order.
    constexpr uint32_t kProducers = 4, kPerProducer = 4000;
    ASSERT_EQ(MBX_Create(&m, sizeof(Msg), 4), KAVRO_OK);
    std::vector<std::atomic<uint32_t>> seen(kProducers * kPerProducer);
    std::atomic<uint32_t> received{0}, out_of_order{0};
    std::vector<std::thread> threads;
    for (uint32_t p = 0; p < kProducers; ++p)
        threads.emplace_back([&, p] {
            for (Msg sent{p, 0, {}}; sent.seq < kPerProducer; sent.pad[7] = uint8_t(sent.seq))
                sent.seq += MBX_Post(m, &sent, p % 2 ? 1 : KAVRO_WAIT_FOREVER) == KAVRO_OK;
        });
    for (uint32_t c = 0; c < 4; ++c)
        threads.emplace_back([&, c] {
            std::vector<int64_t> last(kProducers, -1);
            for (Msg got{}; received < kProducers * kPerProducer;) {
                if (MBX_Pend(m, &got, c % 2 ? 1 : 20) != KAVRO_OK || got.producer >= kProducers) continue;
                out_of_order += got.pad[7] != uint8_t(got.seq) || int64_t(got.seq) <= last[got.producer];
                last[got.producer] = got.seq;
                ++seen[got.producer * kPerProducer + got.seq % kPerProducer], ++received;
            }
        });
    for (auto &t : threads) t.join();
    for (size_t i = 0; i < seen.size(); ++i) ASSERT_EQ(seen[i].load(), 1u) << "message " << i;
    EXPECT_TRUE(out_of_order == 0u && count_of(m) == 0 && MBX_Delete(m) == KAVRO_OK);
}

}  // namespace
