// The formatter's dialect: numbers, strings, the f conversion, bounds.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <string>

#include "kavro_rt/format.h"

namespace {

constexpr size_t kBuf = 256;
constexpr char kCanary = '\x5A';

// Formats into a canary-filled buffer and fails the test when anything past
// the terminator was touched.
std::string fmt(const char *format, ...) {
    char buf[kBuf];
    std::memset(buf, kCanary, sizeof buf);
    va_list ap;
    va_start(ap, format);
    GP_vsprintf(buf, format, ap);
    va_end(ap);
    const void *end = std::memchr(buf, '\0', sizeof buf);
    if (end == nullptr) {
        ADD_FAILURE() << "no terminator for \"" << format << "\"";
        return {};
    }
    const size_t len = static_cast<const char *>(end) - buf;
    for (size_t i = len + 1; i < sizeof buf; ++i)
        if (buf[i] != kCanary) {
            ADD_FAILURE() << "\"" << format << "\" wrote past its terminator at " << i;
            break;
        }
    return std::string(buf, len);
}

TEST(Format, IntegerConversionsWidthAndZeroFill) {
    EXPECT_EQ(fmt("%5d", 42), "   42");
    EXPECT_EQ(fmt("%-5d|", 42), "42   |");
    EXPECT_EQ(fmt("%08x", 255), "      ff");  // the first 0 means nothing
    EXPECT_EQ(fmt("%008x", 255), "000000ff");
    EXPECT_EQ(fmt("%#X", 255), "0Xff");       // digits stay lower case
    EXPECT_EQ(fmt("%X", 0xABCDEFu), "abcdef");
    EXPECT_EQ(fmt("%#o", 8), "010");
    EXPECT_EQ(fmt("%#x", 0), "0x0");
    EXPECT_EQ(fmt("%#005x", 10), "0x00a");    // the prefix counts against the digits
    EXPECT_EQ(fmt("%005d", -42), "-0042");    // so does the sign
    EXPECT_EQ(fmt("%-#008o|", 8), "00000010|");
    EXPECT_EQ(fmt("%#u", 7u), "7");
    EXPECT_EQ(fmt("%d %i", INT_MIN, INT_MAX), "-2147483648 2147483647");
    EXPECT_EQ(fmt("%u %x %o", UINT_MAX, UINT_MAX, UINT_MAX), "4294967295 ffffffff 37777777777");
    EXPECT_EQ(fmt("%ld %Lu", -7L, 7), "-7 7");
    EXPECT_EQ(fmt("%3d|%-3d|%1d", 12345, 12345, 0), "12345|12345|0");
}

TEST(Format, StringsCharactersAndLiteralConversions) {
    EXPECT_EQ(fmt("[%s]", static_cast<const char *>(nullptr)), "[(null)]");
    EXPECT_EQ(fmt("%c%c", 65, 0x142), "AB");  // the low byte only
    EXPECT_EQ(fmt("100%%"), "100%");
    EXPECT_EQ(fmt("%6s|%-6s|", "abc", "abc"), "   abc|abc   |");
    EXPECT_EQ(fmt("%2s", "abcdef"), "abcdef");
    EXPECT_EQ(fmt("%005s", "ab"), "ab");  // zero fill is for numbers only
    // '.' is a conversion of its own: no precision, no argument taken.
    EXPECT_EQ(fmt("%.2f %d", 7), ".2f 7");
    EXPECT_EQ(fmt("%3y|%-3%|"), "  y|%  |");
    EXPECT_EQ(fmt("%-0#5"), "");  // ends inside a conversion
    EXPECT_EQ(fmt("ab%"), "ab");
}

TEST(Format, FloatTruncatesToFourDigits) {
    EXPECT_EQ(fmt("%f", 3.14159), "3.1415");
    EXPECT_EQ(fmt("%f", -2.5), "-2.5000");
    EXPECT_EQ(fmt("%f", 0.00001), "0.0000");
    EXPECT_EQ(fmt("%f", 1.005), "1.0049");  // truncated, not rounded
    EXPECT_EQ(fmt("%f %f", 2147483647.0, 2147483647.01), "2147483647.0000 (error)");
    EXPECT_EQ(fmt("%10f|%-10f|", 1.5, 1.5), "    1.5000|1.5000    |");
    EXPECT_EQ(fmt("%0010f", 1.5), "00001.5000");
    EXPECT_EQ(fmt("%0010f", -1.5), "-0001.5000");
    EXPECT_EQ(fmt("%f %d", 0.25, 9), "0.2500 9");  // a double takes its full slot
}

TEST(Format, FloatOutOfRangeAndNaN) {
    EXPECT_EQ(fmt("%f", 3.0e9), "(error)");
    EXPECT_EQ(fmt("%f", -3.0e9), "(error)");
    EXPECT_EQ(fmt("%f", HUGE_VAL), "(error)");
    EXPECT_EQ(fmt("%f", -HUGE_VAL), "(error)");
    EXPECT_EQ(fmt("%10f|", 3.0e9), "(error)|");
    EXPECT_EQ(fmt("%-10f|", 3.0e9), "(error)          |");
    EXPECT_EQ(fmt("%f|%5f|%-5f|", NAN, NAN, NAN), "nan|  nan|nan  |");
}

TEST(Format, ZeroFillIsCappedToTheNumberBuffer) {
    EXPECT_EQ(fmt("%0040d", -1), "-000000000000001");
    EXPECT_EQ(fmt("%#0099x", 1), "0x00000000000001");
    EXPECT_EQ(fmt("%#0017o", 0), "0000000000000000");
    EXPECT_EQ(fmt("%0040f", -2147483646.5), "-2147483646.5000");
    EXPECT_EQ(fmt("%0040f", 2.5), "00000000002.5000");
    std::string wide(70000, kCanary);  // the width saturates
    GP_sprintf(wide.data(), "%99999999999999d|", 1);
    EXPECT_EQ(std::strlen(wide.c_str()), 65536u);
}

// Every flag sequence, width and conversion: terminated text, nothing written
// past it, and the arguments stay in step (the %d after each conversion).
TEST(Format, EveryFlagCombinationStaysInBounds) {
    const char *flags[] = {"", "-", "0", "-0", "#", "00", "-#0", "0#0#", "-00#"};
    const char *widths[] = {"", "1", "7", "16", "17", "40"};
    const char *mods[] = {"", "l", "L"};
    const char convs[] = "diuxXocsf.%qZ";
    char buf[kBuf];
    for (const char *f : flags)
        for (const char *w : widths)
            for (const char *m : mods)
                for (const char *c = convs; *c != '\0'; ++c) {
                    const std::string format = std::string("%") + f + w + m + *c + "<%d>";
                    switch (*c) {
                        case 's': GP_sprintf(buf, format.c_str(), "str", 123); break;
                        case 'f': GP_sprintf(buf, format.c_str(), -1234.56789, 123); break;
                        case '.': case '%': case 'q': case 'Z': GP_sprintf(buf, format.c_str(), 123); break;
                        default: GP_sprintf(buf, format.c_str(), 0x80000041u, 123); break;
                    }
                    const std::string out = fmt("%s", buf);
                    ASSERT_LE(out.size(), 60u) << format;
                    EXPECT_EQ(out.substr(out.size() - 5), "<123>") << format << " -> " << out;
                }
}

// GP_vprintf walks the arguments but never reads through them.
void walk(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    GP_vprintf(format, ap);
    va_end(ap);
}

TEST(Format, NullFormatNullDestinationAndVprintf) {
    char buf[8];
    std::memset(buf, kCanary, sizeof buf);
    GP_sprintf(buf, nullptr, 1);
    for (char c : buf) EXPECT_EQ(c, kCanary);

    GP_sprintf(nullptr, "%d %s", 1, "x");
    walk(nullptr);
    // A pointer that faults if dereferenced: only a writing walk reads strings.
    const auto *bad = reinterpret_cast<const char *>(uintptr_t{8});
    walk("%s %5s %-5s|%d %f %c", bad, bad, bad, 1, 2.0, 'c');

    // The text may end at the very end of a page.
    const long page = sysconf(_SC_PAGESIZE);
    auto *map = static_cast<char *>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
                                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(map, MAP_FAILED);
    ASSERT_EQ(mprotect(map + page, page, PROT_NONE), 0);
    GP_sprintf(map + page - 17, "%0040d", -1);
    EXPECT_STREQ(map + page - 17, "-000000000000001");
    munmap(map, 2 * page);
}

}  // namespace
