// Version text from identity strings: forms, release kinds, refusals.

#include "kavro_rt/version.h"
#include "test_support.hpp"

// The text for (id, form), or "<refused>" (the bounds of the text: the fuzz target's).
static std::string text(const char *id, int32_t form) {
    char out[KAVRO_VERSION_TEXT_SIZE];
    return _libTorVersion2String(id, form, out) == 0 ? out : "<refused>";
}

TEST(Version, FormsKindsAndFields) {
    char out[KAVRO_VERSION_TEXT_SIZE];
    EXPECT_TRUE(qLibVersionString(out) == 0 && std::string(out) == "1.00  Build: 060");
    const std::string id = "TXcid 01001000-060 libkavro_rt.so ", label(KAVRO_VERSION_ID_MAX - 15, 'b'),
                      id40 = "TXcid 01001000-9 " + std::string(40, 'n') + "tail";
    const std::pair<std::pair<std::string, int32_t>, std::string> cases[] = {
        {{id, 0}, "1.00 "},
        {{"TXcid 11002030-1 m", 1}, "1.00 Beta 20 Build: 1"},
        {{"TXcid 21002030-1 m", 1}, "1.00 Alpha 20.30 Build: 1"},
        {{"TXcid 71002030-1 mod.so", 1}, "<refused>"},
        {{"TXcid 71002030-1 mod.so", 3}, "mod.so"},  // no kind 7 text
        {{"TXcid 01001000-", 1}, "1.00  Build: "},
        {{id40, 3}, std::string(32, 'n')},
        {{id40, 4}, std::string(8, 'n') + "tail"},
        {{"TXcid 01001", 1}, "<refused>"},
        {{"TXcid 21002030-" + label, 1}, "1.00 Alpha 20.30 Build: " + label},  // the longest fits the buffer
        {{"TXcid 21002030-b" + label, 1}, "<refused>"},
    };
    for (const auto &[in, want] : cases) EXPECT_EQ(text(in.first.c_str(), in.second), want) << in.first;
    kavro::test::GuardPage guard;  // unterminated up to an unmapped page: read no further than the bound
    ASSERT_TRUE(guard.ok());
    char *s = guard.end() - (KAVRO_VERSION_ID_MAX + 1);
    std::memcpy(std::memset(s, 'z', KAVRO_VERSION_ID_MAX + 1), "TXcid 01001000-", 15);
    EXPECT_EQ(text(s, 1), "<refused>");
}
