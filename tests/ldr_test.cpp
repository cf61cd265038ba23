// The module loader: real modules loaded, searched and freed; the board file in a private /usr/torvanex.

#include "frame/internal.hpp"
#include "kavro_rt/ldr.h"
#include "kavro_rt/mem.h"
#include "test_support.hpp"

TEST(LdrInit, FirstInitWritesTheBoardFileAndLaterOnesOnlyCount) {
    static const char kBoard[] = "/usr/torvanex/cfg/.board.0";
    KAVRO_EXPECT_PASSED(kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        mkdir("/usr/torvanex/cfg", 0755);
        kavro::test::write_file(kBoard, "stale board");
        CHILD_CHECK(LDR_Init() == 0 && kavro::test::read_file(kBoard) == "1");  // truncated and written
        kavro::test::write_file(kBoard, "stale");
        CHILD_CHECK(LDR_Init() == 1 && kavro::test::read_file(kBoard) == "stale");
        LDR_Exit(), LDR_Exit();
        CHILD_CHECK(unlink(kBoard) == 0 && rmdir("/usr/torvanex/cfg") == 0);
        testing::internal::CaptureStderr();
        CHILD_CHECK(LDR_Init() == 0);  // the family still comes up
        return testing::internal::GetCapturedStderr().find("cannot write the board file") != std::string::npos ? 0 : 1;
    }));
}

// A module with an unresolved reference does not load and keeps nothing.
TEST(LdrModule, LoadFindFreeAndRefusedModules) {
    const uint32_t allocs = ldralloc_calls, frees = ldrfree_calls;
    const auto freed = kavro::detail::mem_counters().memgenfreecalls;
    LDR_Module *mod = nullptr;
    void *fn = nullptr, *var = nullptr, *untouched = &untouched;
    ASSERT_EQ(LDR_LoadModule(&mod, KAVRO_TEST_MODULE), KAVRO_OK);
    ASSERT_TRUE(mod != nullptr && mod->tag == KAVRO_TAG_LDR && ldralloc_calls == allocs + 1);
    ASSERT_EQ(LDR_GetProcAddress(mod, "kavro_test_answer", &fn) | LDR_GetProcAddress(mod, "kavro_test_counter", &var),
              KAVRO_OK);
    EXPECT_TRUE(reinterpret_cast<int (*)(void)>(fn)() == 42 && *static_cast<int *>(var) == 7);
    testing::internal::CaptureStderr();
    errno = E2BIG;  // a missing symbol gives errno as the caller's thread had it, top bit set
    EXPECT_EQ(LDR_GetProcAddress(mod, "kavro_test_absent", &untouched), 0x80000000u | E2BIG);
    EXPECT_TRUE(untouched == &untouched && LDR_FreeModule(mod) == KAVRO_OK);
    mod = reinterpret_cast<LDR_Module *>(&mod);
    EXPECT_TRUE(LDR_LoadModule(&mod, KAVRO_TEST_UNRESOLVED_MODULE) == KAVRO_E_LOADFAILED && mod == nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(err.find("LDR_GetProcAddress: ") != err.npos && err.find("kavro_test_nowhere") != err.npos) << err;
    EXPECT_TRUE(ldrfree_calls == frees + 1 && kavro::detail::mem_counters().memgenfreecalls == freed + 2);
}
