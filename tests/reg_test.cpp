// The registry: records on text (streamed reading is the fuzz target's), then the file in a private /usr/torvanex.

#include "kavro_rt/reg.h"
#include "test_support.hpp"
#include "util/reg.hpp"

namespace {

using namespace kavro::detail;
using namespace kavro::test;

std::string rec(const std::string &sub, const std::string &entry, const std::string &type, const std::string &v) {
    return sub + "\n" + entry + "\n" + type + "\n" + v + "\n";
}
KAVRO_STATUS lookup(const std::string &text, const char *sub, const char *entry, void *value, uint32_t cap) {
    RegReader in(text.data(), text.size());
    return reg_lookup(in, sub, entry, value, cap);
}
// The DWORD found, or 0xAAAAAAAA when the lookup failed.
uint32_t dword(const std::string &text, const char *sub = "A", const char *entry = "B") {
    uint32_t v = 0;
    return lookup(text, sub, entry, &v, sizeof v) == KAVRO_OK ? v : 0xAAAAAAAAu;
}
// The rewritten text, or "<refused>".
std::string rewrite(const std::string &text, const char *sub, const char *entry, uint32_t type, const void *value) {
    std::string out;
    RegReader in(text.data(), text.size());
    RegWriter w([](void *o, const char *p, size_t n) { return static_cast<std::string *>(o)->append(p, n), true; },
                &out);
    return reg_rewrite(in, w, sub, entry, type, value) == KAVRO_OK ? out : "<refused>";
}

TEST(RegText, ReadValuesNamesAndTypes) {
    const std::string text = rec("Tmr", "Period", "REG_DWORD", "10") + rec("Net", "Mtu", "REG_DWORD", " 0xAf z");
    const std::string after = rec("A", "B", "REG_DWORD", "7");
    EXPECT_TRUE(dword(text, "TmrConfig", "PeriodMs") == 0x10u && dword(text, "Net", "Mtu") == 0xAFu);  // line begins
    EXPECT_EQ(dword(text, "Tm", "Period"), 0xAAAAAAAAu);                              // ... not the other way round
    EXPECT_EQ(dword(rec("", "", "REG_DWORD", "1") + text, "Tmr", "Period"), 1u);      // empty matches; first wins
    EXPECT_EQ(dword("A\nB\nREG_DWORD\naF"), 0xAFu);                                   // no final newline
    EXPECT_EQ(dword(rec(std::string(253, 'k'), "E", "REG_DWORD", "1") + after), 7u);  // 253: one line
    EXPECT_EQ(dword(rec(std::string(254, 'k'), "E", "REG_DWORD", "1") + after), 0xAAAAAAAAu);  // two lines
    EXPECT_EQ(reg_parse_hex("123456789", 9) & reg_parse_hex("-1", 2), 0xFFFFFFFFu);            // saturates; negates
    EXPECT_EQ(reg_parse_hex("zz\n", 3) + reg_parse_hex("\t\v\f\r 7", 6), 7u);
    const std::string sz = rec("App", "Greeting", "REG_SZ", "  hello world");
    char buf[300];
    EXPECT_TRUE(lookup(sz, "App", "Greeting", buf, 6) == KAVRO_OK && std::string(buf) == "hello");  // word + NUL
    EXPECT_TRUE(lookup(rec("A", "B", "REG_SZ", std::string(999, 'v')), "A", "B", buf, 300) == KAVRO_OK &&
                std::strlen(buf) == 254u);
    std::memset(buf, 'x', 8);
    uint32_t v;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lookup(sz, "App", "Greeting", buf, 5), KAVRO_E_INVALIDARG);
    EXPECT_EQ(std::string(buf, 6), std::string("\0xxxxx", 6));  // nothing past the stated size
    EXPECT_EQ(lookup(after, "A", "B", &v, 3), KAVRO_E_INVALIDARG);
    EXPECT_EQ(lookup(rec("A", "B", "REG_BINARY", "00ff"), "A", "B", &v, 4), KAVRO_E_NOTIMPL);
    EXPECT_EQ(lookup(rec("A", "B", "REG_QWORD", "1"), "A", "B", &v, 4), KAVRO_E_FAIL);
    EXPECT_EQ(lookup("A\nB\nREG_DWORD\n", "A", "B", &v, 4), KAVRO_E_NOTIMPL);  // cut short: not found
    EXPECT_NE(testing::internal::GetCapturedStderr().find("KAVRO:REG_GetValue: "), std::string::npos);
}

TEST(RegText, RewriteReplacesOnlyTheValueLinesOrAppendsTheRecord) {
    const std::string one = rec("X", "Y", "REG_SZ", "1"), two = rec("A", "B", "REG_SZ", "2");
    const std::string cases[][4] = {
        {"  Tmr  x\nB\nREG_SZ\na\n", "Tmr", "b", "  Tmr  x\nB\nREG_SZ\nb\n"},
        {rec("A", "B", "REG_SZ", "a"), "AB", "b", rec("A", "B", "REG_SZ", "a") + rec("AB", "B", "REG_SZ", "b")},
        {rec("A", "B", "REG_SZ", "1") + two, "A", "3", rec("A", "B", "REG_SZ", "3") + two},
        {"X\nY\nREG_SZ\n1", "A", "v", one + rec("A", "B", "REG_SZ", "v")},  // the last line is ended
        {"A\nB", "A", "v", rec("A", "B", "REG_SZ", "v")},                   // a found record completed
        {one + "dangling\n", "A", "v", "<refused>"},
        {"X\nY\nREG_SZ\n" + std::string(kRegPieceMax, 'v'), "A", "v", "<refused>"},
        {"A\nB" + std::string(kRegPieceMax - 1, ' ') + "\nREG_SZ\nold\n", "A", "v", "<refused>"},  // a cut piece
    };
    for (const auto &c : cases) EXPECT_EQ(rewrite(c[0], c[1].c_str(), "B", kRegSz, c[2].c_str()), c[3]) << c[0];
}

const char kReg[] = "/usr/torvanex/cfg/.registry";

// Runs body in a child with an empty private /usr/torvanex/cfg.
void in_private_torvanex(const std::function<void()> &body) {
    auto child = [&] { return mkdir("/usr/torvanex/cfg", 0755) != 0 ? 2 : (body(), testing::Test::HasFailure()); };
    KAVRO_EXPECT_PASSED(run_in_private_mounts("/usr/torvanex", child, 240));
}
KAVRO_STATUS set_dword(const char *sub, const char *entry, uint32_t v, uint32_t size = 4) {
    return REG_SetValue(nullptr, sub, entry, KAVRO_REG_DWORD, &v, &size);
}
bool unchanged(const std::string &text) {  // and no temporary copy left
    return read_file(kReg) == text && access("/usr/torvanex/cfg/.registry.1", F_OK) != 0;
}

TEST(RegFile, ReplacementKeepsModeAndRefusalsLeaveTheFile) {
    in_private_torvanex([] {
        uint32_t size = 6;
        char word[8];
        testing::internal::CaptureStderr();  // neither operation makes a registry
        EXPECT_EQ(REG_GetValue(nullptr, "A", "B", word, &size) | set_dword("A", "B", 1), KAVRO_E_FAIL);
        ASSERT_TRUE(write_file(kReg, rec("Tmr", "Period", "REG_DWORD", "10")) && chmod(kReg, 0640) == 0);
        close(0);  // the registry may be opened as descriptor 0
        EXPECT_EQ(set_dword("Tmr", "Period", 4000000000u), KAVRO_OK);
        EXPECT_EQ(REG_SetValue(&size, "New", "Entry", KAVRO_REG_SZ, "v1 x", &size), KAVRO_OK);  // handle ignored
        const std::string now = rec("Tmr", "Period", "REG_DWORD", "4000000000") + rec("New", "Entry", "REG_SZ", "v1 x");
        uint32_t zero = 0;  // a size of 0 states no bound and is left alone
        EXPECT_TRUE(unchanged(now) && REG_GetValue(nullptr, "New", "Entry", word, &zero) == KAVRO_OK && zero == 0);
        struct stat st {};
        EXPECT_TRUE(stat(kReg, &st) == 0 && (st.st_mode & 07777) == 0640u);  // the replacement keeps the mode
        const std::string torn = now + "Tmr\nRate\n";
        ASSERT_TRUE(write_file(kReg, torn));
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_BINARY, word, &size), KAVRO_E_NOTIMPL);
        EXPECT_EQ(REG_SetValue(nullptr, "New", "Entry", 7, word, &size) | set_dword("Other", "Entry", 1), KAVRO_E_FAIL);
        const std::string err = testing::internal::GetCapturedStderr();  // operators look for these
        EXPECT_TRUE(unchanged(torn) && err.find("[Other] [Entry] not added\n") != err.npos) << err;
        EXPECT_NE(err.find("KAVRO:REG_SetValue: Did not find [Tmr] [Period] in " + std::string(kReg) + "\n"), err.npos);
    });
}

TEST(RegFile, AFailureAtAnyStepLeavesTheOldRegistry) {
    in_private_torvanex([] {
        std::string text;  // 40 KiB: a rewrite takes several writes
        for (int i = 0; i < 700; ++i) text += rec("S" + std::to_string(i), "E", "REG_SZ", std::string(44, 'a'));
        ASSERT_TRUE(write_file(kReg, text));
        static int fail_at, calls;
        reg_step_hook = [](RegStep s) { return s != RegStep::Renamed && ++calls == fail_at; };
        for (fail_at = 1; fail_at < 20; ++fail_at) {
            calls = 0;
            const KAVRO_STATUS st = set_dword("S600", "E", 1);
            if (calls < fail_at) break;  // every step passed
            EXPECT_TRUE(st == KAVRO_E_FAIL && unchanged(text)) << "step " << fail_at;
        }
        EXPECT_TRUE(fail_at >= 6 && fail_at < 20) << fail_at;  // opened, a few chunks, synced, closed
    });
}

TEST(RegFile, ConcurrentWritersLoseNoUpdate) {
    in_private_torvanex([] {
        ASSERT_TRUE(write_file(kReg, ""));
        constexpr int kWriters = 4, kRounds = 150;
        pid_t pids[kWriters];
        std::string expected;  // every writer's last value of every entry
        for (int w = 0; w < kWriters; ++w) {
            const std::string sub = "W" + std::to_string(w);
            if ((pids[w] = fork()) == 0) {
                int ok = 0;
                for (int i = 1; i <= kRounds; ++i) ok += set_dword(sub.c_str(), std::to_string(i % 7).c_str(), i) == 0;
                _exit(ok == kRounds ? 0 : 1);
            }
            for (int e = 0; e < 7; ++e)
                expected += rec(sub, std::to_string(e), "REG_DWORD", std::to_string(kRounds - (kRounds - e) % 7));
        }
        for (pid_t p : pids) EXPECT_EQ(kavro::test::reap(p), 0);
        std::string now = read_file(kReg);
        std::sort(now.begin(), now.end()), std::sort(expected.begin(), expected.end());
        EXPECT_EQ(now, expected);
    });
}

}  // namespace
