// Version text from identity strings: forms, release kinds, refusals.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "kavro_rt/version.h"
#include "test_support.hpp"

namespace {

// The text for (id, form), or "<refused>" after checking the buffer untouched.
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

TEST(Version, LibraryStringInEveryForm) {
    char out[KAVRO_VERSION_TEXT_SIZE];
    ASSERT_EQ(qLibVersionString(out), 0);
    EXPECT_STREQ(out, "1.00  Build: 060");
    EXPECT_EQ(qLibVersionString(nullptr), -1);
    const char *lib = "TXcid 01001000-060 libkavro_rt.so ";
    EXPECT_EQ(text(lib, 0), "1.00 ");
    EXPECT_EQ(text(lib, 2), "Build: 060");
    EXPECT_EQ(text(lib, 3), "libkavro_rt.so");
    EXPECT_EQ(text(lib, 4), " ");
    EXPECT_EQ(text(lib, -1), "1.00 ");  // other forms print the kind alone
}

TEST(Version, ReleaseKindsAndFields) {
    EXPECT_EQ(text("TXcid 11002030-123 mod.so", 1), "1.00 Beta 20 Build: 123");
    EXPECT_EQ(text("TXcid 21002030-123 mod.so", 1), "1.00 Alpha 20.30 Build: 123");
    EXPECT_EQ(text("TXcid 31002030-123 mod.so", 1), "1.00 Exp 20.30 Build: 123");
    EXPECT_EQ(text("TXcid 41002030-123 mod.so", 1), "1.00 Spec 20 Build: 123");
    EXPECT_EQ(text("TXcid 29870507-x", 0), "9.87 Alpha 5.07");
    // No text exists for kind 7; the forms that do not print it still work.
    EXPECT_EQ(text("TXcid 71002030-123 mod.so", 1), "<refused>");
    EXPECT_EQ(text("TXcid 71002030-123 mod.so", 3), "mod.so");
    // Fields end at a blank or the end of the string.
    EXPECT_EQ(text("TXcid 01001000-", 1), "1.00  Build: ");
    EXPECT_EQ(text("TXcid 01001000-77", 3), "");
    EXPECT_EQ(text("TXcid 01001000-77 m a b", 4), " a b");
    const std::string id = "TXcid 01001000-9 " + std::string(40, 'n') + "tail";
    EXPECT_EQ(text(id.c_str(), 3), std::string(32, 'n'));
    EXPECT_EQ(text(id.c_str(), 4), std::string(8, 'n') + "tail");
}

TEST(Version, RefusedStrings) {
    EXPECT_EQ(text("TXcid", 1), "<refused>");
    EXPECT_EQ(text("TXcid 0100100", 1), "<refused>");
    EXPECT_EQ(text(nullptr, 1), "<refused>");

    // The longest accepted string fills the longest form within the buffer.
    const std::string label(KAVRO_VERSION_ID_MAX - 15, 'b');
    EXPECT_EQ(text(("TXcid 21002030-" + label).c_str(), 1), "1.00 Alpha 20.30 Build: " + label);
    EXPECT_EQ(text(("TXcid 21002030-b" + label).c_str(), 1), "<refused>");

    // An unterminated string ending at an unmapped page is read no further
    // than the bound.
    kavro::test::GuardPage guard;
    ASSERT_TRUE(guard.ok());
    char *s = guard.end() - (KAVRO_VERSION_ID_MAX + 1);
    std::memset(s, 'z', KAVRO_VERSION_ID_MAX + 1);
    std::memcpy(s, "TXcid 01001000-", 15);
    EXPECT_EQ(text(s, 1), "<refused>");
}

}  // namespace
