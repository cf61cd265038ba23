// The formatter's dialect: numbers, strings, the f conversion, bounds (any flag mix: the fuzz target's).

#include <climits>
#include <cmath>
#include <cstdarg>

#include "kavro_rt/format.h"
#include "test_support.hpp"

// Formats into a canary-filled buffer (a misplaced terminator shows as 'Z's; writes past it: the fuzz target's).
static std::string fmt(const char *format, ...) {
    std::string buf(256, 'Z');
    va_list ap;
    va_start(ap, format);
    GP_vsprintf(buf.data(), format, ap);
    va_end(ap);
    return buf.c_str();
}

TEST(Format, Conversions) {
    EXPECT_EQ(fmt("%5d|%-5d|%08x|%008x", 42, 42, 255, 255), "   42|42   |      ff|000000ff");  // the first 0: nothing
    EXPECT_EQ(fmt("%#X %X %#o %#x %#u", 255, 0xABCDEFu, 8, 0, 7u), "0Xff abcdef 010 0x0 7");   // digits stay lower case
    EXPECT_EQ(fmt("%#005x %005d %-#008o|", 10, -42, 8), "0x00a -0042 00000010|");              // prefix and sign count
    EXPECT_EQ(fmt("%d %i %u %o", INT_MIN, INT_MAX, UINT_MAX, UINT_MAX),
              "-2147483648 2147483647 4294967295 37777777777");
    EXPECT_EQ(fmt("%ld %Lu %3d [%s] %c%c%%", -7L, 7, 12345, static_cast<const char *>(nullptr), 65, 0x142),
              "-7 7 12345 [(null)] AB%");
    EXPECT_EQ(fmt("%6s|%-6s|%2s|%005s", "abc", "abc", "abcdef", "ab"), "   abc|abc   |abcdef|ab");
    EXPECT_EQ(fmt("%.2f %d %3y|%-3%|ab%-0#5", 7), ".2f 7   y|%  |ab");  // '.' takes nothing; the end cuts a conversion
    EXPECT_EQ(fmt("%f %f %f %f", 3.14159, -2.5, 0.00001, 1.005), "3.1415 -2.5000 0.0000 1.0049");  // truncated
    EXPECT_EQ(fmt("%f %f %f %f", 2147483647.0, 2147483647.01, -3.0e9, HUGE_VAL),
              "2147483647.0000 (error) (error) (error)");
    EXPECT_EQ(fmt("%10f|%-10f|%f|%5f|", 3.0e9, 3.0e9, NAN, NAN), "(error)|(error)          |nan|  nan|");
    EXPECT_EQ(fmt("%0040d %#0099x", -1, 1), "-000000000000001 0x00000000000001");  // capped to the number buffer
    EXPECT_EQ(fmt("%0040f %0040f", -2147483646.5, 2.5), "-2147483646.5000 00000000002.5000");
    std::string wide(70000, 'Z');  // the width saturates
    GP_sprintf(wide.data(), "%99999999999999d|", 1);
    EXPECT_EQ(std::strlen(wide.c_str()), 65536u);
    kavro::test::GuardPage guard;  // the longest numeric text ends exactly at an unmapped page
    ASSERT_TRUE(guard.ok());
    GP_sprintf(guard.end() - 17, "%0099o", 1);
    GP_sprintf(guard.end() - 17, nullptr, 1);  // no format: the text is left alone
    EXPECT_STREQ(guard.end() - 17, "0000000000000001");
    const auto *bad = reinterpret_cast<const char *>(uintptr_t{8});  // without output nothing is read through it
    GP_sprintf(nullptr, "%s %5s %-5s|%d %f %c", bad, bad, bad, 1, 2.0, 'c');
}
