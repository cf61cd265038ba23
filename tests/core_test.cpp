// The runtime frame: family objects, the counted heap, the log sink, environment numbers.
#include <gtest/gtest.h>

#include <algorithm>

#include "frame/internal.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using kavro::detail::mem_counters;

// The tag sits where the family wants it, the rest is zero; too small an
// object for its tag is refused; every call is counted.
TEST(Object, AllocStampsTagZeroesRestAndCounts) {
    const uint32_t allocs = memalloccalls, gen = memgenalloccalls;
    const auto before = mem_counters();
    auto *obj = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(16, KAVRO_TAG_SHM, 0));
    auto *mid = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(12, KAVRO_TAG_TMR, 8));  // tag in the last word
    ASSERT_TRUE(obj != nullptr && mid != nullptr);
    EXPECT_TRUE(obj[0] == KAVRO_TAG_SHM && (obj[1] | obj[2] | obj[3]) == 0u);
    EXPECT_TRUE(mid[2] == KAVRO_TAG_TMR && (mid[0] | mid[1]) == 0u);
    EXPECT_TRUE(memalloccalls == allocs + 2 && memgenalloccalls == gen + 2);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt + 28);
    for (auto [size, at] : {std::pair{3u, 0u}, {8u, 6u}, {8u, 9u}})
        EXPECT_EQ(KAVRO_OBJ_Alloc(size, KAVRO_TAG_MBX, at), nullptr) << size << "@" << at;
    KAVRO_OBJ_Free(mid, 8);
    KAVRO_OBJ_Free(obj, 0);
    KAVRO_OBJ_Free(nullptr, 0);
    const auto after = mem_counters();
    EXPECT_TRUE(after.memfreecalls == before.memfreecalls + 2 && after.memgenfreecalls == before.memgenfreecalls + 2);
    EXPECT_EQ(memalloccalls, allocs + 2);
}

TEST(Mem, CountersFollowSizeAndMarker) {
    const uint32_t allocs = memalloccalls, gen = memgenalloccalls;
    const auto before = mem_counters();
    EXPECT_TRUE(MEM_Alloc(0, 999) == nullptr && MEM_Calloc(0, 999) == nullptr && memalloccalls == allocs);
    void *a = MEM_Alloc(10, 999);
    EXPECT_TRUE(memalloccalls == allocs + 1 && memgenalloccalls == gen + 1);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt + 10);
    auto *b = static_cast<unsigned char *>(MEM_Calloc(10, 5));  // not the generic marker
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(std::all_of(b, b + 10, [](unsigned char c) { return c == 0; }));
    EXPECT_TRUE(memalloccalls == allocs + 2 && memgenalloccalls == gen + 1);
    MEM_Free2(a);
    MEM_Free(b);
    MEM_Free(nullptr);  // counted, ignored
    EXPECT_TRUE(mem_counters().memfreecalls == before.memfreecalls + 3 &&
                mem_counters().memgenfreecalls == before.memgenfreecalls + 1);
    EXPECT_EQ(MEM_Init(), 0);
    MEM_Exit();
    EXPECT_EQ(MEM_Statistics(), 0u);
    // As root the lock succeeds; otherwise the failure carries the operation's line.
    testing::internal::CaptureStderr();
    const KAVRO_STATUS st = MEM_LockAll();
    const std::string err = testing::internal::GetCapturedStderr();
    const bool refused = st == KAVRO_E_FAIL && err.rfind("KAVRO:MEM_LockAll: mlockall errno is set to ", 0) == 0;
    EXPECT_TRUE(st == KAVRO_OK ? err.empty() && MEM_UnLockAll() == KAVRO_OK : refused) << err;
}

TEST(Log, LinesGoToStderrCutAt1023AndTheDebugFamilyIsSilent) {
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    GP_printf("%s", std::string(2000, 'x').c_str());
    GP_printf("KAVRO:%s: rate %s\n", "THREAD_Create", "100%d");
    kavro::detail::diag("THREAD_Create", "Error, %s\n", "shared helper");
    EXPECT_TRUE(DBG_Init() == 1 && DBG_Printf("%s %d %n", "x", 5, nullptr) == 0 && DBG_Trace(nullptr) == 0 &&
                DBG_Exit() == 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string(1023, 'x') + "KAVRO:THREAD_Create: rate 100%d\nKAVRO:THREAD_Create: Error, shared helper\n");
}

TEST(Log, DaemonisedLinesReachSystemLogLiterally) {
    const int rc = kavro::test::run_in_child([] {
        std::string why;
        if (!kavro::test::private_dev(&why)) return 77;
        kavro::test::LogCatcher log;
        CHILD_CHECK(log.ok());
        PEL_daemonized = 1;
        GP_printf("KAVRO:%s: rate %s done\n", "Test", "100%d %s");
        const std::string got = log.next();  // "<pri>timestamp ...: message"; LOG_USER|LOG_INFO = 14
        CHILD_CHECK(got.rfind("<14>", 0) == 0 && got.find("KAVRO:Test: rate 100%d %s done") != std::string::npos);
        return 0;
    });
    if (rc == 77) GTEST_SKIP() << "private mount namespace not available";
    EXPECT_EQ(rc, 0);
}

TEST(Env, DecimalReaderAcceptsOnlyWholeNumbers) {
    using kavro::detail::env_decimal;
    int32_t v = 7;
    unsetenv("KAVRO_T_NUM");
    EXPECT_FALSE(env_decimal("KAVRO_T_NUM", &v) || kavro::detail::env_present("KAVRO_T_NUM") ||
                 kavro::detail::env_strtol("KAVRO_T_NUM", &v));
    for (const char *bad : {"", " ", "-", "abc", "12x", "99999999999", "-99999999999", "99999999999999999999", "0x10"})
        EXPECT_FALSE(setenv("KAVRO_T_NUM", bad, 1) == 0 && env_decimal("KAVRO_T_NUM", &v)) << bad;
    EXPECT_EQ(v, 7);
    setenv("KAVRO_T_NUM", " -250 \n", 1);
    EXPECT_TRUE(env_decimal("KAVRO_T_NUM", &v) && v == -250 && kavro::detail::env_present("KAVRO_T_NUM"));
    // The lenient reader takes the leading number and clamps it.
    for (auto [text, want] :
         {std::pair{"12abc", 12}, {"99999999999", INT32_MAX}, {"-99999999999", INT32_MIN}, {"x", 0}})
        EXPECT_TRUE(setenv("KAVRO_T_NUM", text, 1) == 0 && kavro::detail::env_strtol("KAVRO_T_NUM", &v) && v == want)
            << text;
    unsetenv("KAVRO_T_NUM");
}

}  // namespace
