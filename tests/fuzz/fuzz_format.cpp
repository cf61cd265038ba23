// The formatter on arbitrary formats with well-formed arguments.
//
// Input: the format up to the first NUL byte, then the bytes the arguments
// are drawn from. The format is walked by the dialect's documented grammar
// (`%[-][0][#0...][width][l|L]conv`) to learn which argument each conversion
// takes, and the call is made with exactly those types: 32-bit integers,
// doubles, and pointers to valid strings (or null). The destination is sized
// by the documented bound of each conversion (its width, saturated at 65535,
// plus the longest text it can render) with guard bytes behind it.
#include <cstdarg>
#include <cstring>

#include "fuzz_targets.hpp"
#include "kavro_rt/format.h"

namespace kavro::fuzz {
namespace {

constexpr size_t kMaxArgs = 5;         // conversions that take an argument
constexpr size_t kStringMax = 64;      // longest string argument
constexpr size_t kTextMax = 80;        // longest rendered text: a string, "(error)", 16 digits
constexpr size_t kOutputMax = 1 << 20; // formats are cut before their output could exceed this
constexpr size_t kGuard = 64;
constexpr uint32_t kWidthMax = 65535;
constexpr unsigned char kGuardByte = 0xA5;

enum class Arg : uint8_t { Int, Str, Dbl };

struct Pool {
    const uint8_t *p;
    size_t n;
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
    uint32_t u32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v |= static_cast<uint32_t>(byte()) << (8 * i);
        return v;
    }
    double f64() {
        uint64_t bits = 0;
        for (int i = 0; i < 8; ++i) bits |= static_cast<uint64_t>(byte()) << (8 * i);
        double d;
        std::memcpy(&d, &bits, sizeof d);
        return d;
    }
};

struct Call {
    char *dst;
    const char *fmt;
    const Arg *args;
    size_t nargs;
    Pool pool;
    char strings[kMaxArgs][kStringMax + 1];

    const char *str(size_t k) {
        switch (pool.byte() % 4) {
            case 0: return nullptr;
            case 1: return "";
            case 2: return "kavro";
            default: {
                const size_t n = pool.byte() % (kStringMax + 1);
                for (size_t i = 0; i < n; ++i) strings[k][i] = static_cast<char>(pool.byte());
                strings[k][n] = '\0';
                return strings[k];
            }
        }
    }
};

void walk(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    GP_vprintf(fmt, ap);
    va_end(ap);
}

void vformat(char *dst, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    GP_vsprintf(dst, fmt, ap);
    va_end(ap);
}

// Builds the argument list one typed argument at a time, then calls.
template <typename... A>
void dispatch(Call &c, size_t k, A... a) {
    if constexpr (sizeof...(A) < kMaxArgs) {
        if (k < c.nargs) {
            switch (c.args[k]) {
                case Arg::Int: return dispatch(c, k + 1, a..., c.pool.u32());
                case Arg::Str: return dispatch(c, k + 1, a..., c.str(k));
                case Arg::Dbl: return dispatch(c, k + 1, a..., c.pool.f64());
            }
        }
    }
    GP_sprintf(c.dst, c.fmt, a...);
    GP_sprintf(nullptr, c.fmt, a...);
    walk(c.fmt, a...);
}

}  // namespace

int fuzz_format(const uint8_t *data, size_t size) {
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size));
    const size_t flen = nul ? static_cast<size_t>(nul - data) : size;
    const char *in = reinterpret_cast<const char *>(data);

    // Walk the grammar: argument types and the output bound; cut the format
    // where either limit would be passed.
    Arg args[kMaxArgs];
    size_t nargs = 0, bound = 0, cut = flen;
    for (size_t i = 0; i < flen;) {
        if (in[i] != '%') {
            ++bound;
            ++i;
            continue;
        }
        const size_t start = i++;
        if (i < flen && in[i] == '-') ++i;
        while (i < flen && (in[i] == '#' || in[i] == '0')) ++i;
        uint32_t width = 0;
        for (; i < flen && in[i] >= '0' && in[i] <= '9'; ++i) {
            width = width * 10 + static_cast<uint32_t>(in[i] - '0');
            if (width > kWidthMax) width = kWidthMax;
        }
        if (i < flen && (in[i] == 'l' || in[i] == 'L')) ++i;
        if (i == flen) break;  // ends inside the conversion: prints nothing
        const char conv = in[i++];
        const bool takes = std::strchr("diuxXocsf", conv) != nullptr;
        if ((takes && nargs == kMaxArgs) || bound + width + kTextMax > kOutputMax) {
            cut = start;
            break;
        }
        bound += width + kTextMax;
        if (takes) args[nargs++] = conv == 's' ? Arg::Str : conv == 'f' ? Arg::Dbl : Arg::Int;
    }

    // The format in a buffer of its exact size, so that a read past its
    // terminator is caught.
    char *fmt = new char[cut + 1];
    std::memcpy(fmt, in, cut);
    fmt[cut] = '\0';
    char *dst = new char[bound + 1 + kGuard];
    std::memset(dst, kGuardByte, bound + 1 + kGuard);

    Call c{dst, fmt, args, nargs, Pool{nul ? nul + 1 : data + size, nul ? size - flen - 1 : 0}, {}};
    dispatch(c, 0);
    FUZZ_CHECK(std::memchr(dst, '\0', bound + 1) != nullptr);
    for (size_t i = bound + 1; i < bound + 1 + kGuard; ++i) FUZZ_CHECK(static_cast<unsigned char>(dst[i]) == kGuardByte);
    if (std::strchr(fmt, '%') == nullptr) FUZZ_CHECK(std::strcmp(dst, fmt) == 0);

    // The argument-list form gives the same text for a format without arguments.
    if (nargs == 0) {
        char *again = new char[bound + 1];
        vformat(again, fmt);
        FUZZ_CHECK(std::memcmp(again, dst, std::strlen(dst) + 1) == 0);
        delete[] again;
    }
    // A null format writes nothing, not even the terminator.
    dst[0] = 'x';
    GP_sprintf(dst, nullptr);
    FUZZ_CHECK(dst[0] == 'x');
    delete[] dst;
    delete[] fmt;
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_format)
