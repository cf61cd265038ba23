// Version text from identity strings: forms, release kinds, refusals.
#include <gtest/gtest.h>

#include <cstring>

#include "kavro_rt/version.h"
#include "test_support.hpp"

namespace {

// The text for (id, form), or "<refused>"; fails when anything past the text was written.
std::string text(const char *id, int32_t form) {
    char out[KAVRO_VERSION_TEXT_SIZE + 16];
    std::memset(out, '#', sizeof out);
    const bool ok = _libTorVersion2String(id, form, out) == 0;
    const size_t len = ok ? strnlen(out, sizeof out) : 0;
    EXPECT_LT(len, size_t{KAVRO_VERSION_TEXT_SIZE});
    for (size_t i = ok ? len + 1 : 0; i < sizeof out; ++i)
        if (out[i] != '#') ADD_FAILURE() << "wrote beyond the text at " << i;
    return ok ? std::string(out, len) : "<refused>";
}

TEST(Version, FormsKindsAndFields) {
    char out[KAVRO_VERSION_TEXT_SIZE];
    EXPECT_TRUE(qLibVersionString(out) == 0 && std::string(out) == "1.00  Build: 060");
    EXPECT_EQ(qLibVersionString(nullptr), -1);
    const std::string label(KAVRO_VERSION_ID_MAX - 15, 'b'), id40 = "TXcid 01001000-9 " + std::string(40, 'n') + "tail";
    const std::pair<std::pair<std::string, int32_t>, std::string> cases[] = {
        {{"TXcid 01001000-060 libkavro_rt.so ", 0}, "1.00 "}, {{"TXcid 01001000-060 libkavro_rt.so ", 2}, "Build: 060"},
        {{"TXcid 01001000-060 libkavro_rt.so ", 3}, "libkavro_rt.so"}, {{"TXcid 01001000-060 libkavro_rt.so ", 4}, " "},
        {{"TXcid 01001000-060 x", -1}, "1.00 "},  // other forms print the kind alone
        {{"TXcid 11002030-123 mod.so", 1}, "1.00 Beta 20 Build: 123"},
        {{"TXcid 21002030-123 mod.so", 1}, "1.00 Alpha 20.30 Build: 123"},
        {{"TXcid 31002030-123 mod.so", 1}, "1.00 Exp 20.30 Build: 123"},
        {{"TXcid 41002030-123 mod.so", 1}, "1.00 Spec 20 Build: 123"},
        {{"TXcid 29870507-x", 0}, "9.87 Alpha 5.07"},
        {{"TXcid 71002030-123 mod.so", 1}, "<refused>"},  // no text for kind 7 ...
        {{"TXcid 71002030-123 mod.so", 3}, "mod.so"},     // ... the forms without it still work
        // Fields end at a blank or the end of the string.
        {{"TXcid 01001000-", 1}, "1.00  Build: "}, {{"TXcid 01001000-77", 3}, ""},
        {{"TXcid 01001000-77 m a b", 4}, " a b"},
        {{id40, 3}, std::string(32, 'n')}, {{id40, 4}, std::string(8, 'n') + "tail"},
        {{"TXcid", 1}, "<refused>"}, {{"TXcid 0100100", 1}, "<refused>"},
        // The longest accepted string fills the longest form within the buffer.
        {{"TXcid 21002030-" + label, 1}, "1.00 Alpha 20.30 Build: " + label},
        {{"TXcid 21002030-b" + label, 1}, "<refused>"},
    };
    for (const auto &[in, want] : cases) EXPECT_EQ(text(in.first.c_str(), in.second), want) << in.first;
    EXPECT_EQ(text(nullptr, 1), "<refused>");
    // An unterminated string ending at an unmapped page is read no further than the bound.
    kavro::test::GuardPage guard;
    ASSERT_TRUE(guard.ok());
    char *s = guard.end() - (KAVRO_VERSION_ID_MAX + 1);
    std::memset(s, 'z', KAVRO_VERSION_ID_MAX + 1);
    std::memcpy(s, "TXcid 01001000-", 15);
    EXPECT_EQ(text(s, 1), "<refused>");
}

}  // namespace
