// The formatter's dialect: numbers, strings, the f conversion, bounds.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstring>

#include "kavro_rt/format.h"
#include "test_support.hpp"

namespace {

constexpr char kCanary = '\x5A';

// Formats into a canary-filled buffer; fails when anything past the
// terminator was touched.
std::string fmt(const char *format, ...) {
    char buf[256];
    std::memset(buf, kCanary, sizeof buf);
    va_list ap;
    va_start(ap, format);
    GP_vsprintf(buf, format, ap);
    va_end(ap);
    const size_t len = strnlen(buf, sizeof buf);
    for (size_t i = len + 1; i < sizeof buf; ++i)
        if (buf[i] != kCanary) ADD_FAILURE() << "\"" << format << "\" wrote past its end";
    return std::string(buf, len);
}

// Integers, strings, characters, the dialect's own conversions, the f conversion truncated to four digits.
TEST(Format, Conversions) {
    EXPECT_EQ(fmt("%5d|%-5d|", 42, 42), "   42|42   |");
    EXPECT_EQ(fmt("%08x|%008x", 255, 255), "      ff|000000ff");  // the first 0 means nothing
    EXPECT_EQ(fmt("%#X %X", 255, 0xABCDEFu), "0Xff abcdef");    // digits stay lower case
    EXPECT_EQ(fmt("%#o %#x %#u", 8, 0, 7u), "010 0x0 7");
    EXPECT_EQ(fmt("%#005x %005d", 10, -42), "0x00a -0042");     // prefix and sign count
    EXPECT_EQ(fmt("%-#008o|", 8), "00000010|");
    EXPECT_EQ(fmt("%d %i", INT_MIN, INT_MAX), "-2147483648 2147483647");
    EXPECT_EQ(fmt("%u %x %o", UINT_MAX, UINT_MAX, UINT_MAX), "4294967295 ffffffff 37777777777");
    EXPECT_EQ(fmt("%ld %Lu %3d", -7L, 7, 12345), "-7 7 12345");
    EXPECT_EQ(fmt("[%s]", static_cast<const char *>(nullptr)), "[(null)]");
    EXPECT_EQ(fmt("%c%c%%", 65, 0x142), "AB%");  // the low byte only
    EXPECT_EQ(fmt("%6s|%-6s|%2s|%005s", "abc", "abc", "abcdef", "ab"), "   abc|abc   |abcdef|ab");
    // '.' is a conversion of its own: no precision, no argument taken.
    EXPECT_EQ(fmt("%.2f %d", 7), ".2f 7");
    EXPECT_EQ(fmt("%3y|%-3%|"), "  y|%  |");
    EXPECT_EQ(fmt("ab%-0#5"), "ab");  // ends inside a conversion
    EXPECT_EQ(fmt("%f %f %f", 3.14159, -2.5, 0.00001), "3.1415 -2.5000 0.0000");
    EXPECT_EQ(fmt("%f", 1.005), "1.0049");  // truncated, not rounded
    EXPECT_EQ(fmt("%10f|%-10f|", 1.5, 1.5), "    1.5000|1.5000    |");
    EXPECT_EQ(fmt("%0010f %0010f", 1.5, -1.5), "00001.5000 -0001.5000");
    EXPECT_EQ(fmt("%f %d", 0.25, 9), "0.2500 9");  // a double takes its full slot
    EXPECT_EQ(fmt("%f %f", 2147483647.0, 2147483647.01), "2147483647.0000 (error)");
    EXPECT_EQ(fmt("%f %f %f", -3.0e9, HUGE_VAL, -HUGE_VAL), "(error) (error) (error)");
    EXPECT_EQ(fmt("%10f|%-10f|", 3.0e9, 3.0e9), "(error)|(error)          |");
    EXPECT_EQ(fmt("%f|%5f|", NAN, NAN), "nan|  nan|");
}

TEST(Format, ZeroFillIsCappedToTheNumberBuffer) {
    EXPECT_EQ(fmt("%0040d", -1), "-000000000000001");
    EXPECT_EQ(fmt("%#0099x %#0017o", 1, 0), "0x00000000000001 0000000000000000");
    EXPECT_EQ(fmt("%0040f %0040f", -2147483646.5, 2.5), "-2147483646.5000 00000000002.5000");
    std::string wide(70000, kCanary);  // the width saturates
    GP_sprintf(wide.data(), "%99999999999999d|", 1);
    EXPECT_EQ(std::strlen(wide.c_str()), 65536u);

    // The longest numeric text ends exactly at an unmapped page.
    kavro::test::GuardPage guard;
    ASSERT_TRUE(guard.ok());
    GP_sprintf(guard.end() - 17, "%0099o", 1);
    EXPECT_STREQ(guard.end() - 17, "0000000000000001");
}

// Every flag sequence, width and conversion: bounded text, and the arguments
// stay in step (the %d after each conversion).
TEST(Format, EveryFlagCombinationStaysInBounds) {
    char buf[256];
    for (const char *f : {"", "-", "0", "-0", "#", "00", "-#0", "0#0#", "-00#"})
        for (const char *w : {"", "1", "7", "16", "17", "40"})
            for (const char *m : {"", "l", "L"})
                for (const char *c = "diuxXocsf.%qZ"; *c != '\0'; ++c) {
                    const std::string format = std::string("%") + f + w + m + *c + "<%d>";
                    if (*c == 's')
                        GP_sprintf(buf, format.c_str(), "str", 123);
                    else if (*c == 'f')
                        GP_sprintf(buf, format.c_str(), -1234.56789, 123);
                    else if (std::strchr("diuxXoc", *c) != nullptr)
                        GP_sprintf(buf, format.c_str(), 0x80000041u, 123);
                    else
                        GP_sprintf(buf, format.c_str(), 123);
                    const std::string out = fmt("%s", buf);
                    ASSERT_LE(out.size(), 50u) << format;
                    EXPECT_EQ(out.substr(out.size() - 5), "<123>") << format << " -> " << out;
                }
}

void walk(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    GP_vprintf(format, ap);
    va_end(ap);
}

TEST(Format, NullFormatAndWalkWithoutOutput) {
    char buf[8];
    std::memset(buf, kCanary, sizeof buf);
    GP_sprintf(buf, nullptr, 1);
    for (char c : buf) EXPECT_EQ(c, kCanary);
    walk(nullptr);
    // Without output nothing is read through the arguments.
    const auto *bad = reinterpret_cast<const char *>(uintptr_t{8});
    walk("%s %5s %-5s|%d %f %c", bad, bad, bad, 1, 2.0, 'c');
    GP_sprintf(nullptr, "%s %d", bad, 1);
}

}  // namespace
