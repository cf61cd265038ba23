// The registry: record reader and writer on text, then the file itself in a
// private /usr/torvanex (replacement, refusals, failures, crashes, writers).
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "kavro_rt/reg.h"
#include "test_support.hpp"
#include "util/reg.hpp"

namespace {

using namespace kavro::detail;
using kavro::test::read_file;
using kavro::test::write_file;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

const char kReg[] = "/usr/torvanex/cfg/.registry";
const char kTmp[] = "/usr/torvanex/cfg/.registry.1";

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
// The rewritten text, or "<status>" when refused; *writes counts the sink's calls.
std::string rewrite(const std::string &text, const char *sub, const char *entry, uint32_t type, const void *value,
                    int *writes = nullptr) {
    static int calls;
    calls = 0;
    std::string out;
    RegReader in(text.data(), text.size());
    RegWriter w([](void *o, const char *p, size_t n) { return ++calls, static_cast<std::string *>(o)->append(p, n), true; },
                &out);
    const KAVRO_STATUS st = reg_rewrite(in, w, sub, entry, type, value);
    if (writes != nullptr) *writes = calls;
    return st == KAVRO_OK ? out : "<" + std::to_string(st) + ">";
}
std::string set_sz(const std::string &text, const char *sub, const char *entry, const char *v) {
    return rewrite(text, sub, entry, kRegSz, v);
}
const std::string kRefused = "<" + std::to_string(KAVRO_E_FAIL) + ">";

TEST(RegRead, ValuesNamesAndTypes) {
    const std::string text = rec("Tmr", "Period", "REG_DWORD", "10") + rec("Net", "Mtu", "REG_DWORD", " 0x5dc z");
    EXPECT_EQ(dword(text, "Tmr", "Period"), 0x10u);
    EXPECT_EQ(dword(text, "Net", "Mtu"), 1500u);
    EXPECT_EQ(dword(text, "TmrConfig", "PeriodMs"), 0x10u);  // the file line begins the wanted name
    EXPECT_EQ(dword(text, "Tm", "Period"), 0xAAAAAAAAu);     // ... not the other way round
    EXPECT_EQ(dword(rec("", "", "REG_DWORD", "1") + text, "Tmr", "Period"), 1u);  // empty matches; first wins
    EXPECT_EQ(dword("A\nB\nREG_DWORD\n2a"), 0x2Au);                                // no final newline
    EXPECT_EQ(reg_parse_hex("123456789", 9) & reg_parse_hex("-1", 2), 0xFFFFFFFFu);  // saturates; negates
    EXPECT_EQ(reg_parse_hex("zz\n", 3), 0u);
    EXPECT_EQ(reg_parse_hex("\t\v\f\r 7", 6), 7u);
    // 253 characters are one line; 254 make two and put what follows out of step.
    const std::string after = rec("A", "B", "REG_DWORD", "7");
    EXPECT_EQ(dword(rec(std::string(253, 'k'), "E", "REG_DWORD", "1") + after), 7u);

    const std::string sz = rec("App", "Greeting", "REG_SZ", "  hello world") + rec("App", "Empty", "REG_SZ", "");
    char buf[300];
    EXPECT_TRUE(lookup(sz, "App", "Greeting", buf, 6) == KAVRO_OK && std::string(buf) == "hello");  // word + NUL
    EXPECT_TRUE(lookup(sz, "App", "Empty", buf, 16) == KAVRO_OK && std::string(buf).empty());
    EXPECT_TRUE(lookup(rec("A", "B", "REG_", "w"), "A", "B", buf, 16) == KAVRO_OK && std::string(buf) == "w");
    EXPECT_TRUE(lookup(rec("A", "B", "REG_SZ", std::string(10000, 'v')), "A", "B", buf, 300) == KAVRO_OK &&
                std::strlen(buf) == 254u);
    std::memset(buf, 'x', 8);
    uint32_t v;
    CaptureStderr();
    EXPECT_EQ(lookup(sz, "App", "Greeting", buf, 5), KAVRO_E_INVALIDARG);
    EXPECT_EQ(std::string(buf, 6), std::string("\0xxxxx", 6));  // nothing past the stated size
    EXPECT_EQ(lookup(after, "A", "B", &v, 3), KAVRO_E_INVALIDARG);
    EXPECT_EQ(lookup(rec("A", "B", "REG_BINARY", "00ff"), "A", "B", &v, 4), KAVRO_E_NOTIMPL);
    EXPECT_EQ(lookup(rec("A", "B", "REG_QWORD", "1"), "A", "B", &v, 4), KAVRO_E_FAIL);
    EXPECT_EQ(lookup("A\nB\nREG_DWORD\n", "A", "B", &v, 4), KAVRO_E_NOTIMPL);  // cut short: not found, no line
    EXPECT_EQ(dword(rec(std::string(254, 'k'), "E", "REG_DWORD", "1") + after), 0xAAAAAAAAu);
    EXPECT_EQ(GetCapturedStderr(), "KAVRO:REG_GetValue: value of [App] [Greeting] needs 6 bytes, the buffer holds 5\n"
                                   "KAVRO:REG_GetValue: value of [A] [B] needs 4 bytes, the buffer holds 3\n"
                                   "KAVRO:REG_GetValue: (!strcmp(record.ValueType,REG_BINARY))\n"
                                   "KAVRO:REG_GetValue: ValueType [REG_QWORD\n] is not valid\n");
}

long trickle(void *ctx, char *buf, size_t cap) {  // 1 to 3 bytes per read
    auto *src = static_cast<std::pair<const std::string *, size_t> *>(ctx);
    const size_t n = std::min({1 + src->second % 3, src->first->size() - src->second, cap});
    std::memcpy(buf, src->first->data() + src->second, n);
    src->second += n;
    return long(n);
}

TEST(RegRead, StreamedAndRandomTextsNeverCrashAndSplitAlike) {
    std::mt19937 rng(7);
    const char alphabet[] = "AB\n\n \tREG_SZDWORDBINARY0x9f\r";
    CaptureStderr();
    for (int round = 0; round < 2000; ++round) {
        std::string text(rng() % 1200, '\0');
        for (char &c : text) c = rng() % 8 ? alphabet[rng() % (sizeof alphabet - 1)] : char(rng());
        if (round % 4 == 0) text.insert(rng() % (text.size() + 1), 200 + rng() % 400, 'L');
        std::pair<const std::string *, size_t> src{&text, 0};
        char sbuf[2 * kRegPieceMax];
        RegReader streamed(trickle, &src, sbuf, sizeof sbuf), whole(text.data(), text.size());
        RegLine a{}, b{};
        std::string joined;
        while (whole.next(&a)) {
            ASSERT_TRUE(streamed.next(&b) && a.n <= kRegPieceMax && std::string(a.p, a.n) == std::string(b.p, b.n));
            joined.append(a.p, a.n);
        }
        ASSERT_TRUE(!streamed.next(&b) && joined == text);
        char buf[64];
        const KAVRO_STATUS st = lookup(text, "AB", "B", buf, sizeof buf);
        EXPECT_TRUE(st == KAVRO_OK || st == KAVRO_E_NOTIMPL || st == KAVRO_E_FAIL || st == KAVRO_E_INVALIDARG);
        set_sz(text, "AB", "B", "v");
    }
    GetCapturedStderr();
}

TEST(RegWrite, ReplacesOnlyTheValueLinesOrAppendsTheRecord) {
    const std::string head = rec("Tmr", "Rate", "REG_DWORD", "5"), tail = rec("Net", "Name", "REG_SZ", "eth0  # x");
    const uint32_t ten = 10;
    const std::string out = rewrite(head + rec("Tmr", "Period", "REG_SZ", "old") + tail, "Tmr", "Period", kRegDword, &ten);
    EXPECT_EQ(out, head + rec("Tmr", "Period", "REG_DWORD", "10") + tail);
    EXPECT_EQ(dword(out, "Tmr", "Period"), 16u);  // decimal out, hexadecimal in
    const std::string one = rec("X", "Y", "REG_SZ", "1"), two = rec("A", "B", "REG_SZ", "2");
    const std::string cut(kRegPieceMax - 1, ' ');  // "B" and this fill a whole piece without its newline
    struct Case { std::string text; const char *sub, *value; std::string want; } cases[] = {
        // Names compare as the first word of the line, exactly; the first record wins.
        {"  Tmr  x\nB\nREG_SZ\na\n", "Tmr", "b", "  Tmr  x\nB\nREG_SZ\nb\n"},
        {rec("Tmr", "B", "REG_SZ", "a"), "TmrConfig", "b", rec("Tmr", "B", "REG_SZ", "a") + rec("TmrConfig", "B", "REG_SZ", "b")},
        {rec("A", "B", "REG_SZ", "1") + two, "A", "3", rec("A", "B", "REG_SZ", "3") + two},
        // Appended only behind whole records, else it would read out of step.
        {"", "A", "v", rec("A", "B", "REG_SZ", "v")},
        {one, "A", "two words", one + rec("A", "B", "REG_SZ", "two words")},
        {"X\nY\nREG_SZ\n1", "A", "v", one + rec("A", "B", "REG_SZ", "v")},  // the last line is ended
        {"A\nB", "A", "v", rec("A", "B", "REG_SZ", "v")},                      // a found record completed
        {one + "dangling\n", "A", "v", kRefused},
        {"X\nY\nREG_SZ\n" + std::string(kRegPieceMax, 'v'), "A", "v", kRefused},
        {"A\nB" + cut + "\nREG_SZ\nold\n", "A", "v", kRefused},  // a cut piece is not the entry line
    };
    for (const Case &c : cases) EXPECT_EQ(set_sz(c.text, c.sub, "B", c.value), c.want) << c.text;
    // The writer gathers a large registry into few writes.
    std::string big;
    for (int i = 0; i < 700; ++i) big += rec("Sub" + std::to_string(i), "E", "REG_SZ", std::string(44, 'a'));
    int writes = 0;
    rewrite(big, "Sub600", "E", kRegDword, &ten, &writes);
    EXPECT_LE(writes, int(big.size() / 2048) + 2);
}

// Runs body in a child with an empty private /usr/torvanex/cfg.
void in_private_torvanex(const std::function<void()> &body) {
    const int rc = kavro::test::run_in_private_mounts("/usr/torvanex", [&] {
        if (mkdir("/usr/torvanex/cfg", 0755) != 0) return 2;
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    }, 240);
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

const std::string kSample = rec("Tmr", "Period", "REG_DWORD", "10") + rec("App", "Name", "REG_SZ", "hello world");

std::string big_registry() {  // many records, so that a rewrite takes several writes
    std::string text;
    for (int i = 0; i < 700; ++i) text += rec("Sub" + std::to_string(i), "E" + std::to_string(i), "REG_SZ", std::string(44, 'a'));
    return text;
}

TEST(RegFile, ReplacementKeepsModeAndRefusalsLeaveTheFile) {
    in_private_torvanex([] {
        uint32_t v = 0, size = sizeof v;
        CaptureStderr();  // neither operation makes a registry
        EXPECT_EQ(REG_GetValue(nullptr, "Tmr", "Period", &v, &size), KAVRO_E_FAIL);
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        GetCapturedStderr();
        ASSERT_TRUE(write_file(kReg, kSample));
        ASSERT_EQ(chmod(kReg, 0640), 0);
        close(0);  // the registry may be opened as descriptor 0
        const uint32_t big = 4000000000u;
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_DWORD, &big, &size), KAVRO_OK);
        EXPECT_EQ(REG_SetValue(&v, "New", "Entry", KAVRO_REG_SZ, "v1", &size), KAVRO_OK);  // handle ignored
        EXPECT_EQ(read_file(kReg), rec("Tmr", "Period", "REG_DWORD", "4000000000") +
                                       rec("App", "Name", "REG_SZ", "hello world") + rec("New", "Entry", "REG_SZ", "v1"));
        char word[8];
        uint32_t cap = sizeof word;
        EXPECT_TRUE(REG_GetValue(nullptr, "App", "Name", word, &cap) == KAVRO_OK && std::string(word) == "hello");
        struct stat st{};
        EXPECT_TRUE(stat(kReg, &st) == 0 && (st.st_mode & 07777) == 0640u);  // the replacement keeps them
        EXPECT_NE(access(kTmp, F_OK), 0);

        const std::string torn = kSample + "Tmr\nRate\n";
        ASSERT_TRUE(write_file(kReg, torn));
        struct stat before{}, after{};
        ASSERT_EQ(stat(kReg, &before), 0);
        CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_BINARY, &v, &size), KAVRO_E_NOTIMPL);
        EXPECT_EQ(REG_SetValue(nullptr, "New", "Entry", 7, &v, &size), KAVRO_E_FAIL);
        EXPECT_EQ(REG_SetValue(nullptr, "Other", "Entry", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        EXPECT_EQ(GetCapturedStderr(),
                  "KAVRO:REG_SetValue: Did not find [Tmr] [Period] in /usr/torvanex/cfg/.registry\n"
                  "KAVRO:REG_SetValue: type [7] is not valid\n"
                  "KAVRO:REG_SetValue: Did not find [New] [Entry] in /usr/torvanex/cfg/.registry\n"
                  "KAVRO:REG_SetValue: /usr/torvanex/cfg/.registry ends inside a record: [Other] [Entry] not added\n");
        ASSERT_EQ(stat(kReg, &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);  // not even rewritten
        EXPECT_EQ(read_file(kReg), torn);
        EXPECT_NE(access(kTmp, F_OK), 0);
        v = 1;
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Rate", KAVRO_REG_DWORD, &v, &size), KAVRO_OK);  // completes it
        EXPECT_EQ(read_file(kReg), kSample + rec("Tmr", "Rate", "REG_DWORD", "1"));
    });
}

TEST(RegFile, FullDiskOrAFailureAtAnyStepLeavesTheOldRegistry) {
    in_private_torvanex([] {
        const std::string text = big_registry();
        const uint32_t v = 1;
        uint32_t size = 4;
        // A 64 KiB file system holding a 40 KiB registry has no room for a copy.
        ASSERT_EQ(mount("tmpfs", "/usr/torvanex/cfg", "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
        ASSERT_TRUE(write_file(kReg, text));
        CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Sub1", "E1", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        EXPECT_NE(GetCapturedStderr().find("No space left on device; the registry is unchanged"), std::string::npos);
        EXPECT_TRUE(read_file(kReg) == text && access(kTmp, F_OK) != 0);
        ASSERT_EQ(umount("/usr/torvanex/cfg"), 0);

        ASSERT_TRUE(write_file(kReg, text));
        static int fail_at, calls;
        reg_step_hook = [](RegStep s) { return s != RegStep::Renamed && ++calls == fail_at; };
        for (fail_at = 1;; ++fail_at) {
            calls = 0;
            CaptureStderr();
            const KAVRO_STATUS st = REG_SetValue(nullptr, "Sub600", "E600", KAVRO_REG_DWORD, &v, &size);
            GetCapturedStderr();
            if (calls < fail_at) break;  // every step passed
            EXPECT_TRUE(st == KAVRO_E_FAIL && read_file(kReg) == text && access(kTmp, F_OK) != 0) << fail_at;
        }
        reg_step_hook = nullptr;
        EXPECT_GE(fail_at, 8);  // opened, several chunks, synced, closed
        EXPECT_EQ(read_file(kReg), rewrite(text, "Sub600", "E600", kRegDword, &v));
    });
}

TEST(RegFile, WriterKilledAtAnyStepLeavesAWholeRegistry) {
    in_private_torvanex([] {
        const std::string text = big_registry();
        const uint32_t v = 12345;
        const std::string updated = rewrite(text, "Sub600", "E600", kRegDword, &v);
        for (int kill_at = 1; kill_at < 40; ++kill_at) {
            ASSERT_TRUE(write_file(kReg, text));
            const int rc = kavro::test::run_in_child([kill_at, v] {
                static int at, calls;
                at = kill_at;
                reg_step_hook = [](RegStep) { return ++calls == at && raise(SIGKILL) == 0; };
                uint32_t size = 4;
                return int(REG_SetValue(nullptr, "Sub600", "E600", KAVRO_REG_DWORD, &v, &size));
            });
            if (rc == 0) {  // finished before the kill point
                EXPECT_TRUE(read_file(kReg) == updated && kill_at > 8);
                return;
            }
            ASSERT_EQ(rc, 128 + SIGKILL) << "step " << kill_at;
            const std::string now = read_file(kReg);
            EXPECT_TRUE(now == text || now == updated) << "step " << kill_at << ": " << now.size() << " bytes";
        }
        ADD_FAILURE() << "the writer never finished";
    });
}

TEST(RegFile, ConcurrentWritersLoseNoUpdate) {
    in_private_torvanex([] {
        ASSERT_TRUE(write_file(kReg, kSample));
        constexpr int kWriters = 4;
        constexpr uint32_t kRounds = 150;
        pid_t pids[kWriters];
        for (int w = 0; w < kWriters; ++w) {
            if ((pids[w] = fork()) != 0) continue;
            uint32_t size = 4, ok = 0;
            for (uint32_t i = 1; i <= kRounds; ++i)
                ok += REG_SetValue(nullptr, ("W" + std::to_string(w)).c_str(), ("E" + std::to_string(i % 7)).c_str(),
                                   KAVRO_REG_DWORD, &i, &size) == KAVRO_OK;
            _exit(ok == kRounds ? 0 : 1);
        }
        std::string expected = kSample;  // every writer's last value of every entry, in any order
        for (int w = 0; w < kWriters; ++w) {
            EXPECT_EQ(kavro::test::reap(pids[w]), 0);
            for (uint32_t e = 0; e < 7; ++e)
                expected += rec("W" + std::to_string(w), "E" + std::to_string(e), "REG_DWORD",
                                std::to_string(kRounds - (kRounds - e) % 7));
        }
        std::string now = read_file(kReg);
        std::sort(now.begin(), now.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(now, expected);
    });
}

}  // namespace
