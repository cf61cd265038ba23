// The module loader: loading, symbols and unloading with real modules; the
// board file in a private /usr/torvanex.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "frame/internal.hpp"
#include "kavro_rt/ldr.h"
#include "kavro_rt/mem.h"
#include "test_support.hpp"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

TEST(LdrInit, FirstInitWritesTheBoardFileAndLaterOnesOnlyCount) {
    static const char kBoard[] = "/usr/torvanex/cfg/.board.0";
    const int rc = kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        mkdir("/usr/torvanex/cfg", 0755);
        kavro::test::write_file(kBoard, "stale board");
        CHILD_CHECK(LDR_Init() == 0 && kavro::test::read_file(kBoard) == "1");  // truncated and written
        kavro::test::write_file(kBoard, "stale");
        CHILD_CHECK(LDR_Init() == 1 && kavro::test::read_file(kBoard) == "stale");
        LDR_Exit();
        LDR_Exit();
        // Without the configuration directory the family still comes up.
        CHILD_CHECK(unlink(kBoard) == 0 && rmdir("/usr/torvanex/cfg") == 0);
        CaptureStderr();
        CHILD_CHECK(LDR_Init() == 0);
        CHILD_CHECK(GetCapturedStderr() == "KAVRO:LDR_Init: cannot write the board file /usr/torvanex/cfg/.board.0: "
                                           "No such file or directory\n");
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

// Symbols of a loaded module are found (functions and data), a missing one
// leaves the output alone; the record is counted and freed.
TEST(LdrModule, LoadFindAndFree) {
    const uint32_t allocs = ldralloc_calls, frees = ldrfree_calls, gen = memgenalloccalls;
    const auto freed = kavro::detail::mem_counters().memgenfreecalls;
    LDR_Module *mod = nullptr;
    void *fn = nullptr, *var = nullptr, *untouched = &untouched;
    CaptureStdout();
    ASSERT_EQ(LDR_LoadModule(&mod, KAVRO_TEST_MODULE), KAVRO_OK);
    ASSERT_TRUE(mod != nullptr && mod->tag == KAVRO_TAG_LDR && mod->hModule != nullptr);
    EXPECT_TRUE(ldralloc_calls == allocs + 1 && memgenalloccalls == gen + 1);
    ASSERT_EQ(LDR_GetProcAddress(mod, "kavro_test_answer", &fn), KAVRO_OK);  // in this order: the lines below
    ASSERT_EQ(LDR_GetProcAddress(mod, "kavro_test_counter", &var), KAVRO_OK);
    EXPECT_EQ(GetCapturedStdout(), std::string("KAVRO:LDR_LoadModule: load module ") + KAVRO_TEST_MODULE + " \n" +
                                       "KAVRO:LDR_GetProcAddress: find library symbol kavro_test_answer \n"
                                       "KAVRO:LDR_GetProcAddress: find library symbol kavro_test_counter \n");
    EXPECT_TRUE(reinterpret_cast<int (*)(void)>(fn)() == 42 && *static_cast<int *>(var) == 7);
    CaptureStderr();
    EXPECT_TRUE(KAVRO_FAILED(LDR_GetProcAddress(mod, "kavro_test_absent", &untouched)) && untouched == &untouched);
    const std::string err = GetCapturedStderr();
    EXPECT_TRUE(err.rfind("KAVRO:LDR_GetProcAddress: ", 0) == 0 && err.find("kavro_test_absent") != std::string::npos)
        << err;
    EXPECT_EQ(LDR_GetProcAddress(mod, nullptr, &fn) | LDR_GetProcAddress(mod, "kavro_test_answer", nullptr),
              KAVRO_E_INVALIDARG);
    EXPECT_EQ(LDR_FreeModule(mod), KAVRO_OK);
    EXPECT_TRUE(ldrfree_calls == frees + 1 && kavro::detail::mem_counters().memgenfreecalls == freed + 1);
}

// A missing file and a module with an unresolved reference (resolved at load
// time, not at the first call) give a null handle, a line, nothing kept.
TEST(LdrModule, ModulesThatCannotLoadGiveANullHandle) {
    const uint32_t allocs = ldralloc_calls;
    const auto freed = kavro::detail::mem_counters().memgenfreecalls;
    CaptureStdout();
    CaptureStderr();
    for (const char *path : {"/nonexistent/libnothing.so", KAVRO_TEST_UNRESOLVED_MODULE}) {
        LDR_Module *mod = reinterpret_cast<LDR_Module *>(&mod);
        EXPECT_TRUE(LDR_LoadModule(&mod, path) == KAVRO_E_LOADFAILED && mod == nullptr) << path;
    }
    const std::string err = GetCapturedStderr();
    EXPECT_EQ(GetCapturedStdout().rfind("KAVRO:LDR_LoadModule: load module /nonexistent/libnothing.so \n", 0), 0u);
    EXPECT_EQ(err.rfind("KAVRO:LDR_LoadModule: /nonexistent/libnothing.so", 0), 0u) << err;
    EXPECT_NE(err.find("kavro_test_nowhere"), std::string::npos) << err;
    EXPECT_TRUE(ldralloc_calls == allocs + 2 && kavro::detail::mem_counters().memgenfreecalls == freed + 2);
}

}  // namespace
