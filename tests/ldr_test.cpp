// The module loader: loading, symbols and unloading with real modules, the
// board file in a private /usr/torvanex.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "frame/internal.hpp"
#include "kavro_rt/ldr.h"
#include "kavro_rt/mem.h"
#include "test_support.hpp"

namespace {

using kavro::detail::mem_counters;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

const char kBoard[] = "/usr/torvanex/cfg/.board.0";

TEST(LdrInit, FirstInitWritesTheBoardFileAndLaterOnesOnlyCount) {
    const int rc = kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        mkdir("/usr/torvanex/cfg", 0755);
        kavro::test::write_file(kBoard, "stale board");
        EXPECT_EQ(LDR_Init(), 0);
        EXPECT_EQ(kavro::test::read_file(kBoard), "1");  // truncated and written
        kavro::test::write_file(kBoard, "stale");
        EXPECT_EQ(LDR_Init(), 1);
        EXPECT_EQ(kavro::test::read_file(kBoard), "stale");
        LDR_Exit();
        LDR_Exit();
        // Without the configuration directory the family still comes up.
        unlink(kBoard);
        EXPECT_EQ(rmdir("/usr/torvanex/cfg"), 0);
        CaptureStderr();
        EXPECT_EQ(LDR_Init(), 0);
        EXPECT_EQ(GetCapturedStderr(), "KAVRO:LDR_Init: cannot write the board file /usr/torvanex/cfg/.board.0: "
                                       "No such file or directory\n");
        LDR_Exit();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

TEST(LdrModule, LoadFindAndFree) {
    const uint32_t allocs = ldralloc_calls, frees = ldrfree_calls, gen_allocs = memgenalloccalls;
    const auto mem_before = mem_counters();

    LDR_Module *mod = nullptr;
    CaptureStdout();
    ASSERT_EQ(LDR_LoadModule(&mod, KAVRO_TEST_MODULE), KAVRO_OK);
    EXPECT_EQ(GetCapturedStdout(), std::string("KAVRO:LDR_LoadModule: load module ") + KAVRO_TEST_MODULE + " \n");
    ASSERT_NE(mod, nullptr);
    EXPECT_EQ(mod->tag, KAVRO_TAG_LDR);
    EXPECT_NE(mod->hModule, nullptr);
    EXPECT_EQ(ldralloc_calls, allocs + 1);
    EXPECT_EQ(memgenalloccalls, gen_allocs + 1);

    void *fn = nullptr, *var = nullptr;
    CaptureStdout();
    ASSERT_EQ(LDR_GetProcAddress(mod, "kavro_test_answer", &fn), KAVRO_OK);
    ASSERT_EQ(LDR_GetProcAddress(mod, "kavro_test_counter", &var), KAVRO_OK);
    EXPECT_EQ(GetCapturedStdout(),
              "KAVRO:LDR_GetProcAddress: find library symbol kavro_test_answer \n"
              "KAVRO:LDR_GetProcAddress: find library symbol kavro_test_counter \n");
    EXPECT_EQ(reinterpret_cast<int (*)(void)>(fn)(), 42);
    EXPECT_EQ(*static_cast<int *>(var), 7);

    void *untouched = &untouched;
    CaptureStderr();
    EXPECT_TRUE(KAVRO_FAILED(LDR_GetProcAddress(mod, "kavro_test_absent", &untouched)));
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(untouched, &untouched);
    EXPECT_EQ(err.rfind("KAVRO:LDR_GetProcAddress: ", 0), 0u) << err;
    EXPECT_NE(err.find("kavro_test_absent"), std::string::npos) << err;

    EXPECT_EQ(LDR_GetProcAddress(mod, nullptr, &fn), KAVRO_E_INVALIDARG);
    EXPECT_EQ(LDR_GetProcAddress(mod, "kavro_test_answer", nullptr), KAVRO_E_INVALIDARG);
    EXPECT_EQ(LDR_FreeModule(mod), KAVRO_OK);
    EXPECT_EQ(ldrfree_calls, frees + 1);
    EXPECT_EQ(mem_counters().memgenfreecalls, mem_before.memgenfreecalls + 1);
}

TEST(LdrModule, ModulesThatCannotLoadGiveANullHandle) {
    const uint32_t allocs = ldralloc_calls;
    const auto mem_before = mem_counters();
    LDR_Module *mod = reinterpret_cast<LDR_Module *>(&mod);
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(LDR_LoadModule(&mod, "/nonexistent/libnothing.so"), KAVRO_E_LOADFAILED);
    EXPECT_EQ(mod, nullptr);
    // Every reference is resolved at load time, not at the first call.
    mod = reinterpret_cast<LDR_Module *>(&mod);
    EXPECT_EQ(LDR_LoadModule(&mod, KAVRO_TEST_UNRESOLVED_MODULE), KAVRO_E_LOADFAILED);
    EXPECT_EQ(mod, nullptr);
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout().rfind("KAVRO:LDR_LoadModule: load module /nonexistent/libnothing.so \n", 0), 0u);
    EXPECT_EQ(err.rfind("KAVRO:LDR_LoadModule: /nonexistent/libnothing.so", 0), 0u) << err;
    EXPECT_NE(err.find("kavro_test_nowhere"), std::string::npos) << err;
    // The objects were counted and released.
    EXPECT_EQ(ldralloc_calls, allocs + 2);
    EXPECT_EQ(mem_counters().memgenfreecalls, mem_before.memgenfreecalls + 2);
}

// A missing symbol gives errno as the caller's thread had it, top bit set.
TEST(LdrModule, MissingSymbolGivesErrnoAsItStands) {
    LDR_Module *mod = nullptr;
    CaptureStdout();
    CaptureStderr();
    ASSERT_EQ(LDR_LoadModule(&mod, KAVRO_TEST_MODULE), KAVRO_OK);
    void *addr = nullptr;
    errno = E2BIG;
    EXPECT_EQ(LDR_GetProcAddress(mod, "kavro_test_absent", &addr), 0x80000000u | E2BIG);
    EXPECT_EQ(LDR_FreeModule(mod), KAVRO_OK);
    GetCapturedStdout();
    GetCapturedStderr();
}

}  // namespace
