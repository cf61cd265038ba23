// The runtime frame: family objects, the log sink, the counted heap.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::detail::mem_counters;

TEST(Object, AllocStampsTagZeroesRestAndFreeMarksReleased) {
    const uint32_t allocs = memalloccalls, gen = memgenalloccalls;
    const auto before = mem_counters();

    auto *obj = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(16, KAVRO_TAG_SHM, 0));
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj[0], KAVRO_TAG_SHM);
    EXPECT_EQ(obj[1] | obj[2] | obj[3], 0u);
    EXPECT_EQ(memalloccalls, allocs + 1);
    EXPECT_EQ(memgenalloccalls, gen + 1);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt + 16);

    // The tag may sit anywhere the family wants it.
    auto *mid = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(12, KAVRO_TAG_TMR, 8));
    ASSERT_NE(mid, nullptr);
    EXPECT_EQ(mid[0] | mid[1], 0u);
    EXPECT_EQ(mid[2], KAVRO_TAG_TMR);
    KAVRO_OBJ_Free(mid, 8);

    KAVRO_OBJ_Free(obj, 0);
    const auto after = mem_counters();
    EXPECT_EQ(after.memfreecalls, before.memfreecalls + 2);
    EXPECT_EQ(after.memgenfreecalls, before.memgenfreecalls + 2);
}

TEST(Object, FreeOfNullAndTooSmallAllocChangeNothing) {
    const auto before = mem_counters();
    const uint32_t allocs = memalloccalls;
    KAVRO_OBJ_Free(nullptr, 0);
    EXPECT_EQ(KAVRO_OBJ_Alloc(3, KAVRO_TAG_MBX, 0), nullptr);
    EXPECT_EQ(KAVRO_OBJ_Alloc(8, KAVRO_TAG_MBX, 6), nullptr);
    EXPECT_EQ(mem_counters().memfreecalls, before.memfreecalls);
    EXPECT_EQ(memalloccalls, allocs);
}

TEST(Mem, CountersFollowSizeAndMarker) {
    const uint32_t allocs = memalloccalls, gen = memgenalloccalls;
    const auto before = mem_counters();

    EXPECT_EQ(MEM_Alloc(0, 999), nullptr);
    EXPECT_EQ(MEM_Calloc(0, 999), nullptr);
    EXPECT_EQ(memalloccalls, allocs);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt);

    void *a = MEM_Alloc(10, 999);
    EXPECT_EQ(memalloccalls, allocs + 1);
    EXPECT_EQ(memgenalloccalls, gen + 1);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt + 10);

    auto *b = static_cast<unsigned char *>(MEM_Calloc(10, 5));
    ASSERT_NE(b, nullptr);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(b[i], 0);
    EXPECT_EQ(memalloccalls, allocs + 2);
    EXPECT_EQ(memgenalloccalls, gen + 1);

    MEM_Free2(a);
    EXPECT_EQ(mem_counters().memgenfreecalls, before.memgenfreecalls + 1);
    EXPECT_EQ(mem_counters().memfreecalls, before.memfreecalls + 1);
    MEM_Free(b);
    MEM_Free(nullptr);  // counted, ignored
    EXPECT_EQ(mem_counters().memfreecalls, before.memfreecalls + 3);
    EXPECT_EQ(mem_counters().memgenfreecalls, before.memgenfreecalls + 1);

    EXPECT_EQ(MEM_Init(), 0);
    MEM_Exit();
    EXPECT_EQ(MEM_Statistics(), 0u);
}

TEST(Mem, LockAllReportsRefusalOrSucceeds) {
    // As root the lock succeeds; without the privilege the failure carries
    // the operation's line and the general failure status.
    testing::internal::CaptureStderr();
    KAVRO_STATUS st = MEM_LockAll();
    std::string err = testing::internal::GetCapturedStderr();
    if (st == 0) {
        EXPECT_EQ(err, "");
        EXPECT_EQ(MEM_UnLockAll(), 0u);
    } else {
        EXPECT_EQ(st, KAVRO_E_FAIL);
        EXPECT_EQ(err.rfind("KAVRO:MEM_LockAll: mlockall errno is set to ", 0), 0u) << err;
    }
}

TEST(Log, LineGoesToStderrCutAt1023) {
    std::string big(2000, 'x');
    testing::internal::CaptureStderr();
    GP_printf("%s", big.c_str());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err.size(), 1023u);

    testing::internal::CaptureStderr();
    GP_printf("KAVRO:%s: Error, invalid attribute length\n", "THREAD_Create");
    kavro::detail::diag("THREAD_Create", "Error, %s\n", "shared helper");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "KAVRO:THREAD_Create: Error, invalid attribute length\n"
              "KAVRO:THREAD_Create: Error, shared helper\n");
}

TEST(Log, DaemonisedLinesReachSystemLogLiterally) {
    int rc = kavro::test::run_in_child([] {
        std::string why;
        if (!kavro::test::private_dev(&why)) {
            std::fprintf(stderr, "%s\n", why.c_str());
            return 2;
        }
        kavro::test::LogCatcher log;
        if (!log.ok()) return 3;
        PEL_daemonized = 1;
        GP_printf("KAVRO:%s: rate %s done\n", "Test", "100%d %s");
        std::string got = log.next();
        // syslog datagram: "<pri>timestamp ...: message"; LOG_USER|LOG_INFO = 14.
        if (got.rfind("<14>", 0) != 0) return 4;
        if (got.find("KAVRO:Test: rate 100%d %s done") == std::string::npos) return 5;
        return 0;
    });
    if (rc == 2) GTEST_SKIP() << "private mount namespace not available";
    EXPECT_EQ(rc, 0);
}

TEST(Dbg, DebugFamilyIsSilent) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(DBG_Init(), 1);
    EXPECT_EQ(DBG_Printf("%s %d %n", "x", 5, nullptr), 0);
    EXPECT_EQ(DBG_Trace(nullptr), 0);
    EXPECT_EQ(DBG_Exit(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Env, DecimalReaderAcceptsOnlyWholeNumbers) {
    int32_t v = 7;
    unsetenv("KAVRO_T_NUM");
    EXPECT_FALSE(kavro::detail::env_decimal("KAVRO_T_NUM", &v));
    EXPECT_FALSE(kavro::detail::env_present("KAVRO_T_NUM"));
    for (const char *bad : {"", "abc", "12x", "99999999999", "0x10"}) {
        setenv("KAVRO_T_NUM", bad, 1);
        EXPECT_FALSE(kavro::detail::env_decimal("KAVRO_T_NUM", &v)) << bad;
    }
    EXPECT_EQ(v, 7);
    setenv("KAVRO_T_NUM", " -250 ", 1);
    EXPECT_TRUE(kavro::detail::env_decimal("KAVRO_T_NUM", &v));
    EXPECT_EQ(v, -250);
    EXPECT_TRUE(kavro::detail::env_present("KAVRO_T_NUM"));
    unsetenv("KAVRO_T_NUM");
}

}  // namespace
