// The runtime frame: family objects, the counted heap, the log sink, environment numbers.

#include "frame/internal.hpp"
#include "test_support.hpp"

using kavro::detail::mem_counters;

// The tag sits where the family wants it, the rest is zero; too small an
// object for its tag is refused; the heap counts calls, bytes and its marker.
TEST(Object, AllocStampsTagZeroesRestAndCounts) {
    const uint32_t allocs = memalloccalls, gen = memgenalloccalls;
    const auto before = mem_counters();
    auto *obj = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(16, KAVRO_TAG_SHM, 0));
    auto *mid = static_cast<uint32_t *>(KAVRO_OBJ_Alloc(12, KAVRO_TAG_TMR, 8));  // tag in the last word
    ASSERT_TRUE(obj != nullptr && mid != nullptr);
    EXPECT_TRUE(obj[0] == KAVRO_TAG_SHM && (obj[1] | obj[2] | obj[3]) == 0u && mid[2] == KAVRO_TAG_TMR && mid[0] == 0);
    for (auto [size, at] : {std::pair{3u, 0u}, {8u, 6u}, {8u, 9u}})
        EXPECT_EQ(KAVRO_OBJ_Alloc(size, KAVRO_TAG_MBX, at), nullptr) << size << "@" << at;
    void *a = MEM_Alloc(10, 999);
    auto *b = static_cast<unsigned char *>(MEM_Calloc(10, 5));  // not the generic marker
    ASSERT_TRUE(a != nullptr && b != nullptr && MEM_Alloc(0, 999) == nullptr && b[9] == 0);
    EXPECT_TRUE(memalloccalls == allocs + 4 && memgenalloccalls == gen + 3);
    EXPECT_EQ(mem_counters().memcnt, before.memcnt + 48);
    KAVRO_OBJ_Free(mid, 8), KAVRO_OBJ_Free(obj, 0), MEM_Free2(a), MEM_Free(b), MEM_Free(nullptr);
    EXPECT_EQ(mem_counters().memfreecalls - before.memfreecalls, 5u);
    EXPECT_EQ(mem_counters().memgenfreecalls - before.memgenfreecalls, 3u);
}

TEST(Log, LinesGoToStderrCutAt1023OrToTheSystemLogLiterally) {
    testing::internal::CaptureStderr();
    GP_printf("%s", std::string(2000, 'x').c_str());
    GP_printf("KAVRO:%s: rate %s\n", "THREAD_Create", "100%d");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string(1023, 'x') + "KAVRO:THREAD_Create: rate 100%d\n");
    const int rc = kavro::test::run_daemonized([](auto &next_line) {
        GP_printf("KAVRO:%s: rate %s done\n", "Test", "100%d %s");
        const std::string got = next_line();  // "<pri>timestamp ...: message"; LOG_USER|LOG_INFO = 14
        CHILD_CHECK(got.rfind("<14>", 0) == 0 && got.find("KAVRO:Test: rate 100%d %s done") != std::string::npos);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

TEST(Env, DecimalReaderAcceptsOnlyWholeNumbersTheLenientOneClamps) {
    using namespace kavro::detail;
    int32_t v = 7;
    unsetenv("KAVRO_T_NUM");
    EXPECT_FALSE(env_decimal("KAVRO_T_NUM", &v) || env_present("KAVRO_T_NUM") || env_strtol("KAVRO_T_NUM", &v));
    for (const char *bad : {"", " ", "abc", "12x", "99999999999", "-99999999999", "99999999999999999999", "0x10"})
        EXPECT_FALSE(setenv("KAVRO_T_NUM", bad, 1) == 0 && env_decimal("KAVRO_T_NUM", &v)) << bad;
    setenv("KAVRO_T_NUM", " -250 \n", 1);
    EXPECT_TRUE(v == 7 && env_decimal("KAVRO_T_NUM", &v) && v == -250 && env_present("KAVRO_T_NUM"));
    for (auto [text, want] : {std::pair{"12abc", 12}, {"9999999999", INT32_MAX}, {"-9999999999", INT32_MIN}, {"x", 0}})
        EXPECT_TRUE(setenv("KAVRO_T_NUM", text, 1) == 0 && env_strtol("KAVRO_T_NUM", &v) && v == want) << text;
}
