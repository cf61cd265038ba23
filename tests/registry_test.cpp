// The registry: the record reader and writer on text, then the file itself
// in a private /usr/torvanex (replacement, refusals, crashes, full disk).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>

#include "kavro_rt/reg.h"
#include "internal.hpp"
#include "registry.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::detail;
using kavro::test::read_file;
using kavro::test::write_file;

const char kReg[] = "/usr/torvanex/cfg/.registry";
const char kTmp[] = "/usr/torvanex/cfg/.registry.1";
constexpr int kNoNamespace = 77;

std::string record(const std::string &sub, const std::string &entry, const std::string &type,
                   const std::string &value) {
    return sub + "\n" + entry + "\n" + type + "\n" + value + "\n";
}

KAVRO_STATUS lookup(const std::string &text, const char *sub, const char *entry, void *value, uint32_t cap) {
    RegReader in(text.data(), text.size());
    return reg_lookup(in, sub, entry, value, cap);
}

uint32_t lookup_dword(const std::string &text, const char *sub, const char *entry, KAVRO_STATUS *st = nullptr) {
    uint32_t v = 0xAAAAAAAAu;
    KAVRO_STATUS s = lookup(text, sub, entry, &v, sizeof v);
    if (st) *st = s;
    return v;
}

bool to_string(void *ctx, const char *p, size_t n) {
    static_cast<std::string *>(ctx)->append(p, n);
    return true;
}

KAVRO_STATUS rewrite(const std::string &text, const char *sub, const char *entry, uint32_t type, const void *value,
                     std::string *out) {
    RegReader in(text.data(), text.size());
    RegWriter w(to_string, out);
    return reg_rewrite(in, w, sub, entry, type, value);
}

std::string set_sz(const std::string &text, const char *sub, const char *entry, const char *value) {
    std::string out;
    EXPECT_EQ(rewrite(text, sub, entry, kRegSz, value, &out), kOk);
    return out;
}

// ---- reading records from text -------------------------------------------------

TEST(RegRead, DwordIsHexAndNamesMatchByPrefix) {
    const std::string text = record("Tmr", "Period", "REG_DWORD", "10") + record("Net", "Mtu", "REG_DWORD", "5dc");
    KAVRO_STATUS st;
    EXPECT_EQ(lookup_dword(text, "Tmr", "Period", &st), 0x10u);
    EXPECT_EQ(st, kOk);
    EXPECT_EQ(lookup_dword(text, "Net", "Mtu"), 1500u);
    // The file line is a beginning of the wanted name.
    EXPECT_EQ(lookup_dword(text, "TmrConfig", "PeriodMs"), 0x10u);
    // ... but not the other way round.
    lookup_dword(text, "Tm", "Period", &st);
    EXPECT_EQ(st, kNotImpl);
    lookup_dword(text, "Tmr", "Rate", &st);
    EXPECT_EQ(st, kNotImpl);
    // An empty line matches anything; the first matching record wins.
    const std::string blank = record("", "", "REG_DWORD", "1") + record("Tmr", "Period", "REG_DWORD", "2");
    EXPECT_EQ(lookup_dword(blank, "Tmr", "Period"), 1u);
}

TEST(RegRead, HexValueForms) {
    EXPECT_EQ(reg_parse_hex("10\n", 3), 0x10u);
    EXPECT_EQ(reg_parse_hex("  0x1F junk", 11), 0x1Fu);
    EXPECT_EQ(reg_parse_hex("ABCDEF01", 8), 0xABCDEF01u);
    EXPECT_EQ(reg_parse_hex("123456789", 9), 0xFFFFFFFFu);  // saturates, on every architecture
    EXPECT_EQ(reg_parse_hex("-1", 2), 0xFFFFFFFFu);
    EXPECT_EQ(reg_parse_hex("0x", 2), 0u);
    EXPECT_EQ(reg_parse_hex("zz\n", 3), 0u);
    EXPECT_EQ(reg_parse_hex("\n", 1), 0u);
}

TEST(RegRead, StringIsFirstWordBoundedByTheBuffer) {
    const std::string text = record("App", "Greeting", "REG_SZ", "  hello world") + record("App", "Empty", "REG_SZ", "");
    char buf[16];
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(lookup(text, "App", "Greeting", buf, sizeof buf), kOk);
    EXPECT_STREQ(buf, "hello");
    EXPECT_EQ(lookup(text, "App", "Greeting", buf, 6), kOk);  // exactly the word and its terminator
    EXPECT_STREQ(buf, "hello");

    testing::internal::CaptureStderr();
    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(lookup(text, "App", "Greeting", buf, 5), kInvalidArg);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(buf[5], 'x');  // nothing written past the stated size
    EXPECT_EQ(lookup(text, "App", "Greeting", buf, 0), kInvalidArg);
    uint32_t small = 0;
    EXPECT_EQ(lookup(record("A", "B", "REG_DWORD", "1"), "A", "B", &small, 3), kInvalidArg);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("KAVRO:REG_GetValue: value of [App] [Greeting] needs 6 bytes"), std::string::npos) << err;

    std::memset(buf, 'x', sizeof buf);
    EXPECT_EQ(lookup(text, "App", "Empty", buf, sizeof buf), kOk);
    EXPECT_STREQ(buf, "");
}

TEST(RegRead, TypeWordsAndIncompleteRecords) {
    uint32_t v = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(lookup(record("A", "B", "REG_BINARY", "00ff"), "A", "B", &v, 4), kNotImpl);
    EXPECT_EQ(lookup(record("A", "B", "REG_QWORD", "1"), "A", "B", &v, 4), kFail);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err,
              "KAVRO:REG_GetValue: (!strcmp(record.ValueType,REG_BINARY))\n"
              "KAVRO:REG_GetValue: ValueType [REG_QWORD\n] is not valid\n");

    // The type line matches by prefix too, in the order SZ, DWORD, BINARY.
    char s[8];
    EXPECT_EQ(lookup(record("A", "B", "REG_", "word"), "A", "B", s, sizeof s), kOk);
    EXPECT_STREQ(s, "word");
    // A record cut short by the end of the file is not found; no line.
    testing::internal::CaptureStderr();
    EXPECT_EQ(lookup("A\nB\nREG_DWORD\n", "A", "B", &v, 4), kNotImpl);
    EXPECT_EQ(lookup("", "A", "B", &v, 4), kNotImpl);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    // The last line needs no newline.
    EXPECT_EQ(lookup_dword("A\nB\nREG_DWORD\n2a", "A", "B"), 0x2Au);
}

TEST(RegRead, OverLongLinesAreReadInPiecesAndShiftTheRecords) {
    // A 253-character line is one line; one more character and it becomes
    // two, so the record after it is read out of step.
    const std::string fits = record(std::string(253, 'k'), "E", "REG_DWORD", "1") + record("A", "B", "REG_DWORD", "7");
    EXPECT_EQ(lookup_dword(fits, "A", "B"), 7u);
    EXPECT_EQ(lookup_dword(fits, std::string(253, 'k').c_str(), "E"), 1u);

    const std::string longer = record(std::string(254, 'k'), "E", "REG_DWORD", "1") + record("A", "B", "REG_DWORD", "7");
    KAVRO_STATUS st;
    testing::internal::CaptureStderr();
    lookup_dword(longer, "A", "B", &st);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(st, kNotImpl);

    // A value line of 10000 characters cannot overflow anything.
    char buf[300];
    const std::string huge = record("A", "B", "REG_SZ", std::string(10000, 'v'));
    EXPECT_EQ(lookup(huge, "A", "B", buf, sizeof buf), kOk);
    EXPECT_EQ(std::strlen(buf), 254u);
}

long trickle(void *ctx, char *buf, size_t cap) {
    // One to three bytes per read: every line crosses refills.
    auto *src = static_cast<std::pair<const std::string *, size_t> *>(ctx);
    const size_t left = src->first->size() - src->second;
    size_t n = 1 + src->second % 3;
    if (n > left) n = left;
    if (n > cap) n = cap;
    std::memcpy(buf, src->first->data() + src->second, n);
    src->second += n;
    return static_cast<long>(n);
}

TEST(RegRead, StreamedTextGivesTheSameLinesAsTextInMemory) {
    std::mt19937 rng(7);
    for (int round = 0; round < 200; ++round) {
        std::string text;
        const int lines = static_cast<int>(rng() % 40);
        for (int i = 0; i < lines; ++i) {
            text.append(rng() % 4 == 0 ? 200 + rng() % 400 : rng() % 20, static_cast<char>('a' + rng() % 26));
            text += '\n';
        }
        if (rng() % 2) text += "tail";
        std::pair<const std::string *, size_t> src{&text, 0};
        char buf[2 * kRegPieceMax];
        RegReader streamed(trickle, &src, buf, sizeof buf);
        RegReader whole(text.data(), text.size());
        RegLine a{}, b{};
        std::string joined;
        for (;;) {
            const bool more = whole.next(&a);
            ASSERT_EQ(streamed.next(&b), more);
            if (!more) break;
            ASSERT_LE(a.n, kRegPieceMax);
            ASSERT_EQ(std::string(a.p, a.n), std::string(b.p, b.n));
            joined.append(a.p, a.n);
        }
        ASSERT_EQ(joined, text);
        EXPECT_FALSE(streamed.failed());
    }
}

TEST(RegRead, ArbitraryBytesNeverCrash) {
    std::mt19937 rng(11);
    const char alphabet[] = "AB\n\n \tREG_SZDWORDBINARY0x9f\r";
    testing::internal::CaptureStderr();
    for (int round = 0; round < 3000; ++round) {
        std::string text(rng() % 1200, '\0');
        for (char &c : text) c = rng() % 8 ? alphabet[rng() % (sizeof alphabet - 1)] : static_cast<char>(rng());
        char buf[64];
        const KAVRO_STATUS st = lookup(text, "AB", "B", buf, sizeof buf);
        EXPECT_TRUE(st == kOk || st == kNotImpl || st == kFail || st == kInvalidArg) << std::hex << st;
        std::string out;
        const uint32_t one = 1;
        rewrite(text, "AB", "B", kRegDword, &one, &out);
    }
    testing::internal::GetCapturedStderr();
}

// ---- rewriting records ------------------------------------------------------------

TEST(RegWrite, ReplacesOnlyTheValueLinesOfTheRecord) {
    const std::string head = record("Tmr", "Rate", "REG_DWORD", "5");
    const std::string tail = record("Net", "Name", "REG_SZ", "eth0  # note");
    const std::string text = head + record("Tmr", "Period", "REG_SZ", "old") + tail;
    std::string out;
    const uint32_t ten = 10;
    ASSERT_EQ(rewrite(text, "Tmr", "Period", kRegDword, &ten, &out), kOk);
    EXPECT_EQ(out, head + record("Tmr", "Period", "REG_DWORD", "10") + tail);
    // Decimal out, hexadecimal in.
    EXPECT_EQ(lookup_dword(out, "Tmr", "Period"), 16u);

    // The names compare as the first word of the line, exactly.
    EXPECT_EQ(set_sz("  Tmr  x\nPeriod\nREG_SZ\na\n", "Tmr", "Period", "b"), "  Tmr  x\nPeriod\nREG_SZ\nb\n");
    EXPECT_EQ(set_sz(record("Tmr", "Period", "REG_SZ", "a"), "TmrConfig", "Period", "b"),
              record("Tmr", "Period", "REG_SZ", "a") + record("TmrConfig", "Period", "REG_SZ", "b"));
    // Only the first record with the names is replaced.
    const std::string twice = record("A", "B", "REG_SZ", "1") + record("A", "B", "REG_SZ", "2");
    EXPECT_EQ(set_sz(twice, "A", "B", "3"), record("A", "B", "REG_SZ", "3") + record("A", "B", "REG_SZ", "2"));
}

TEST(RegWrite, AppendsAMissingRecordOnlyBehindWholeRecords) {
    EXPECT_EQ(set_sz("", "A", "B", "v"), record("A", "B", "REG_SZ", "v"));
    const std::string one = record("X", "Y", "REG_SZ", "1");
    EXPECT_EQ(set_sz(one, "A", "B", "two words"), one + record("A", "B", "REG_SZ", "two words"));
    // A last line without its newline is ended, not merged with the new one.
    EXPECT_EQ(set_sz("X\nY\nREG_SZ\n1", "A", "B", "v"), one + record("A", "B", "REG_SZ", "v"));
    // A found record cut short after its entry line is completed.
    EXPECT_EQ(set_sz("X\nY", "X", "Y", "v"), record("X", "Y", "REG_SZ", "v"));

    // Behind an incomplete record the new one would read out of step.
    std::string out;
    EXPECT_EQ(rewrite(one + "dangling\n", "A", "B", kRegSz, "v", &out), kFail);
    // A final line of full length without newline becomes two lines once ended.
    const std::string full = "X\nY\nREG_SZ\n" + std::string(kRegPieceMax, 'v');
    EXPECT_EQ(rewrite(full, "A", "B", kRegSz, "v", &out), kFail);
}

// ---- the registry file ------------------------------------------------------------

// Runs body in a child with an empty private /usr/torvanex/cfg.
int in_private_torvanex(const std::function<void()> &body, int timeout_s = 120) {
    return kavro::test::run_in_child(
        [&] {
            std::string why;
            if (!kavro::test::private_mounts({"/usr/torvanex"}, &why)) {
                std::fprintf(stderr, "%s\n", why.c_str());
                return kNoNamespace;
            }
            if (mkdir("/usr/torvanex/cfg", 0755) != 0) return 2;
            body();
            return testing::Test::HasFailure() ? 1 : 0;
        },
        timeout_s);
}

#define EXPECT_CHILD_PASSED(rc)                                                            \
    do {                                                                                   \
        const int rc_ = (rc);                                                              \
        if (rc_ == kNoNamespace) GTEST_SKIP() << "no private mount namespace for /usr/torvanex"; \
        EXPECT_EQ(rc_, 0);                                                                 \
    } while (0)

std::string sample_registry() {
    return record("Tmr", "Period", "REG_DWORD", "10") + record("App", "Name", "REG_SZ", "hello world") +
           record("Net", "Mtu", "REG_DWORD", "5dc");
}

// Many records, so that a rewrite takes several writes.
std::string big_registry(int records) {
    std::string text;
    for (int i = 0; i < records; ++i)
        text += record("Sub" + std::to_string(i), "Entry" + std::to_string(i), "REG_SZ", std::string(40, 'a' + i % 26));
    return text;
}

TEST(RegFile, ReadWriteAndArgumentStatuses) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        EXPECT_EQ(REG_Init(), 1);
        uint32_t v = 0, size = sizeof v;
        char s[64];
        uint32_t ssize = sizeof s;
        // No registry yet: neither operation makes one.
        EXPECT_EQ(REG_GetValue(nullptr, "Tmr", "Period", &v, &size), KAVRO_E_FAIL);
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        testing::internal::GetCapturedStderr();
        EXPECT_NE(access(kReg, F_OK), 0);

        ASSERT_TRUE(write_file(kReg, sample_registry()));
        EXPECT_EQ(REG_GetValue(nullptr, "Tmr", "Period", &v, &size), KAVRO_OK);
        EXPECT_EQ(v, 0x10u);
        EXPECT_EQ(REG_GetValue(nullptr, "App", "Name", s, &ssize), KAVRO_OK);
        EXPECT_STREQ(s, "hello");
        EXPECT_EQ(REG_GetValue(nullptr, "App", "Missing", s, &ssize), KAVRO_E_NOTIMPL);

        const uint32_t ten = 10, big = 4000000000u;
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_DWORD, &big, &size), KAVRO_OK);
        EXPECT_EQ(REG_SetValue(reinterpret_cast<void *>(1), "New", "Entry", KAVRO_REG_SZ, "v1", &size), KAVRO_OK);
        EXPECT_EQ(read_file(kReg), record("Tmr", "Period", "REG_DWORD", "4000000000") +
                                       record("App", "Name", "REG_SZ", "hello world") +
                                       record("Net", "Mtu", "REG_DWORD", "5dc") + record("New", "Entry", "REG_SZ", "v1"));
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_DWORD, &ten, &size), KAVRO_OK);
        EXPECT_EQ(REG_GetValue(nullptr, "Tmr", "Period", &v, &size), KAVRO_OK);
        EXPECT_EQ(v, 0x10u);
        EXPECT_NE(access(kTmp, F_OK), 0);

        // Arguments.
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_GetValue(nullptr, nullptr, "E", &v, &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_GetValue(nullptr, "S", "E", &v, nullptr), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_GetValue(nullptr, "S", "E", nullptr, &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_GetValue(&v, "Tmr", "Period", &v, &size), KAVRO_E_NOTIMPL);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(err,
                  "KAVRO:REG_GetValue: (!pstrSubkey) || (!pstrEntry) || (!pdwValueSize)\n"
                  "KAVRO:REG_GetValue: (!pstrSubkey) || (!pstrEntry) || (!pdwValueSize)\n"
                  "KAVRO:REG_GetValue: (!pValue)\n"
                  "KAVRO:REG_GetValue: do not support valid key (phKey)\n");
        const std::string before = read_file(kReg);
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "S", nullptr, KAVRO_REG_SZ, "v", &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, "S", "E", KAVRO_REG_SZ, nullptr, &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, "S", "E", KAVRO_REG_SZ, "v", nullptr), KAVRO_E_INVALIDARG);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // no line for missing arguments
        // Names that could not be found again, values that would not read back.
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "My Key", "E", KAVRO_REG_SZ, "v", &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, "", "E", KAVRO_REG_SZ, "v", &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, std::string(254, 's').c_str(), "E", KAVRO_REG_SZ, "v", &size),
                  KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, "S", "E", KAVRO_REG_SZ, "two\nlines", &size), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_SetValue(nullptr, "S", "E", KAVRO_REG_SZ, std::string(254, 'v').c_str(), &size),
                  KAVRO_E_INVALIDARG);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(REG_SetValue(nullptr, std::string(253, 's').c_str(), "E", KAVRO_REG_SZ,
                               std::string(253, 'v').c_str(), &size),
                  KAVRO_OK);
        char longest[254];
        uint32_t lsize = sizeof longest;
        EXPECT_EQ(REG_GetValue(nullptr, std::string(253, 's').c_str(), "E", longest, &lsize), KAVRO_OK);
        EXPECT_EQ(std::string(longest), std::string(253, 'v'));

        const std::string now = read_file(kReg);
        EXPECT_EQ(REG_DeleteEntry(nullptr, "Tmr", "Period"), KAVRO_E_NOTIMPL);
        EXPECT_EQ(REG_DeleteEntry(nullptr, nullptr, "Period"), KAVRO_E_INVALIDARG);
        EXPECT_EQ(REG_DeleteEntry(nullptr, "Tmr", nullptr), KAVRO_E_INVALIDARG);
        EXPECT_EQ(read_file(kReg), now);
        EXPECT_EQ(REG_Exit(), 0);
    }));
}

TEST(RegFile, RefusedTypeCodesLeaveTheFileAsItWas) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        ASSERT_TRUE(write_file(kReg, sample_registry()));
        struct stat before{};
        ASSERT_EQ(stat(kReg, &before), 0);
        const uint32_t v = 1;
        uint32_t size = 4;
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Period", KAVRO_REG_BINARY, &v, &size), KAVRO_E_NOTIMPL);
        EXPECT_EQ(REG_SetValue(nullptr, "New", "Entry", 7, &v, &size), KAVRO_E_FAIL);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "KAVRO:REG_SetValue: Did not find [Tmr] [Period] in /usr/torvanex/cfg/.registry\n"
                  "KAVRO:REG_SetValue: type [7] is not valid\n"
                  "KAVRO:REG_SetValue: Did not find [New] [Entry] in /usr/torvanex/cfg/.registry\n");
        struct stat after{};
        ASSERT_EQ(stat(kReg, &after), 0);
        EXPECT_EQ(after.st_ino, before.st_ino);  // not even rewritten
        EXPECT_EQ(read_file(kReg), sample_registry());
        EXPECT_NE(access(kTmp, F_OK), 0);
    }));
}

TEST(RegFile, ReplacementKeepsPermissionsAndRefusesAnIncompleteTail) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        ASSERT_TRUE(write_file(kReg, sample_registry()));
        ASSERT_EQ(chmod(kReg, 0640), 0);
        const uint32_t v = 3;
        uint32_t size = 4;
        ASSERT_EQ(REG_SetValue(nullptr, "Net", "Mtu", KAVRO_REG_DWORD, &v, &size), KAVRO_OK);
        struct stat st{};
        ASSERT_EQ(stat(kReg, &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0640u);

        const std::string torn = sample_registry() + "Tmr\nRate\n";
        ASSERT_TRUE(write_file(kReg, torn));
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Other", "Entry", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("ends inside a record"), std::string::npos);
        EXPECT_EQ(read_file(kReg), torn);
        EXPECT_NE(access(kTmp, F_OK), 0);
        // The torn record itself can be completed.
        EXPECT_EQ(REG_SetValue(nullptr, "Tmr", "Rate", KAVRO_REG_DWORD, &v, &size), KAVRO_OK);
        EXPECT_EQ(read_file(kReg), sample_registry() + record("Tmr", "Rate", "REG_DWORD", "3"));
    }));
}

TEST(RegFile, FullDiskLeavesTheOldRegistry) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        // A 64 KiB file system holding a 40 KiB registry has no room for a copy.
        ASSERT_EQ(mount("tmpfs", "/usr/torvanex/cfg", "tmpfs", 0, "size=64k,mode=0755"), 0) << std::strerror(errno);
        const std::string text = big_registry(700);
        ASSERT_GT(text.size(), 36000u);
        ASSERT_TRUE(write_file(kReg, text));
        const uint32_t v = 1;
        uint32_t size = 4;
        testing::internal::CaptureStderr();
        EXPECT_EQ(REG_SetValue(nullptr, "Sub1", "Entry1", KAVRO_REG_DWORD, &v, &size), KAVRO_E_FAIL);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find("the registry is unchanged"), std::string::npos) << err;
        EXPECT_EQ(read_file(kReg), text);
        EXPECT_NE(access(kTmp, F_OK), 0);
    }));
}

TEST(RegFile, FailureAtAnyStepLeavesTheOldRegistry) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        const std::string text = big_registry(700);  // several write chunks
        ASSERT_TRUE(write_file(kReg, text));
        static int fail_at, calls;
        reg_step_hook = [](RegStep s) { return s != RegStep::Renamed && ++calls == fail_at; };
        const uint32_t v = 1;
        uint32_t size = 4;
        for (fail_at = 1;; ++fail_at) {
            calls = 0;
            testing::internal::CaptureStderr();
            const KAVRO_STATUS st = REG_SetValue(nullptr, "Sub600", "Entry600", KAVRO_REG_DWORD, &v, &size);
            testing::internal::GetCapturedStderr();
            if (calls < fail_at) {  // every step passed: the replacement was made
                EXPECT_EQ(st, KAVRO_OK);
                break;
            }
            EXPECT_EQ(st, KAVRO_E_FAIL) << "step " << fail_at << " calls " << calls;
            EXPECT_EQ(read_file(kReg), text) << "step " << fail_at;
            EXPECT_NE(access(kTmp, F_OK), 0);
        }
        EXPECT_GE(fail_at, 6);  // opened, chunks, synced, closed
        reg_step_hook = nullptr;
        std::string updated;
        ASSERT_EQ(rewrite(text, "Sub600", "Entry600", kRegDword, &v, &updated), kOk);
        EXPECT_EQ(read_file(kReg), updated);
    }));
}

TEST(RegFile, WriterKilledAtAnyStepLeavesAWholeRegistry) {
    EXPECT_CHILD_PASSED(in_private_torvanex([] {
        const std::string text = big_registry(700);
        const uint32_t v = 12345;
        std::string updated;
        ASSERT_EQ(rewrite(text, "Sub600", "Entry600", kRegDword, &v, &updated), kOk);
        for (int kill_at = 1; kill_at < 40; ++kill_at) {
            ASSERT_TRUE(write_file(kReg, text));
            const int rc = kavro::test::run_in_child([kill_at] {
                static int at, calls;
                at = kill_at;
                reg_step_hook = [](RegStep) {
                    if (++calls == at) raise(SIGKILL);
                    return false;
                };
                const uint32_t val = 12345;
                uint32_t size = 4;
                return static_cast<int>(REG_SetValue(nullptr, "Sub600", "Entry600", KAVRO_REG_DWORD, &val, &size));
            });
            const std::string now = read_file(kReg);
            if (rc == 0) {  // ran to the end before the kill point
                EXPECT_EQ(now, updated);
                EXPECT_GT(kill_at, 5);
                return;
            }
            ASSERT_EQ(rc, 128 + SIGKILL) << "step " << kill_at;
            EXPECT_TRUE(now == text || now == updated) << "step " << kill_at << ": " << now.size() << " bytes";
        }
        ADD_FAILURE() << "the writer never finished";
    }));
}

TEST(RegFile, ConcurrentWritersLoseNoUpdate) {
    EXPECT_CHILD_PASSED(in_private_torvanex(
        [] {
            ASSERT_TRUE(write_file(kReg, sample_registry()));
            constexpr int kWriters = 4, kRounds = 150;
            pid_t pids[kWriters];
            for (int w = 0; w < kWriters; ++w) {
                pids[w] = fork();
                if (pids[w] == 0) {
                    const std::string sub = "Writer" + std::to_string(w);
                    uint32_t size = 4;
                    for (uint32_t i = 1; i <= kRounds; ++i) {
                        const std::string entry = "E" + std::to_string(i % 7);
                        if (REG_SetValue(nullptr, sub.c_str(), entry.c_str(), KAVRO_REG_DWORD, &i, &size) != 0) _exit(1);
                        uint32_t got = 0;
                        if (REG_GetValue(nullptr, sub.c_str(), entry.c_str(), &got, &size) != 0) _exit(2);
                    }
                    _exit(0);
                }
            }
            for (pid_t p : pids) {
                int status = 0;
                ASSERT_EQ(waitpid(p, &status, 0), p);
                EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            }
            const std::string final_text = read_file(kReg);
            EXPECT_EQ(final_text.rfind(sample_registry(), 0), 0u);
            // Every writer's last value of every entry is there, and nothing else.
            size_t expected_size = sample_registry().size();
            for (int w = 0; w < kWriters; ++w)
                for (uint32_t e = 0; e < 7; ++e) {
                    const uint32_t last = kRounds - (kRounds - e) % 7;
                    const std::string rec = record("Writer" + std::to_string(w), "E" + std::to_string(e), "REG_DWORD",
                                                   std::to_string(last));
                    EXPECT_NE(final_text.find(rec), std::string::npos) << rec;
                    expected_size += rec.size();
                }
            EXPECT_EQ(final_text.size(), expected_size);
        },
        240));
}

}  // namespace
