// The formatter on arbitrary formats with well-formed arguments.
//
// Input: the format up to the first NUL byte, then the bytes the arguments
// are drawn from. The format is walked by the dialect's documented grammar
// (`%[-][0][#0...][width][l|L]conv`) to learn which argument each conversion
// takes, and the call is made with exactly those types: 32-bit integers,
// doubles, and pointers to valid strings (or null). The destination is sized
// by the documented bound of each conversion (its width, saturated at 65535,
// plus the longest text it can render) with guard bytes behind it. The text
// must be the one the documented dialect gives, as rendered here piece by
// piece by a plain model.
#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <string>

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

struct Value {
    Arg type;
    uint32_t u;
    double d;
    const char *s;
};

// Draws the arguments the conversions take; strings are null, empty, a
// constant or up to kStringMax bytes of the input, kept in `store`.
void draw(Pool &pool, const Arg *types, size_t n, Value *v, char (*store)[kStringMax + 1]) {
    for (size_t k = 0; k < n; ++k) {
        v[k] = Value{types[k], 0, 0.0, nullptr};
        switch (types[k]) {
            case Arg::Int: v[k].u = pool.u32(); break;
            case Arg::Dbl: v[k].d = pool.f64(); break;
            case Arg::Str:
                switch (pool.byte() % 4) {
                    case 0: break;
                    case 1: v[k].s = ""; break;
                    case 2: v[k].s = "kavro"; break;
                    default: {
                        const size_t len = pool.byte() % (kStringMax + 1);
                        for (size_t i = 0; i < len; ++i) store[k][i] = static_cast<char>(pool.byte());
                        store[k][len] = '\0';
                        v[k].s = store[k];
                    }
                }
                break;
        }
    }
}

struct Call {
    char *dst;
    const char *fmt;
    const Value *args;
    size_t nargs;
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
            switch (c.args[k].type) {
                case Arg::Int: return dispatch(c, k + 1, a..., c.args[k].u);
                case Arg::Str: return dispatch(c, k + 1, a..., c.args[k].s);
                case Arg::Dbl: return dispatch(c, k + 1, a..., c.args[k].d);
            }
        }
    }
    GP_sprintf(c.dst, c.fmt, a...);
    GP_sprintf(nullptr, c.fmt, a...);
    walk(c.fmt, a...);
}

// The documented dialect, one conversion at a time.
std::string digits(uint32_t v, unsigned base) {
    std::string t;
    do {
        t.insert(t.begin(), "0123456789abcdef"[v % base]);
        v /= base;
    } while (v != 0);
    return t;
}

// Sign, prefix and digits, the digits zero-filled so that the whole has at
// least `mindig` characters.
std::string number(const char *sign_prefix, const std::string &d, int32_t mindig) {
    std::string t = sign_prefix;
    const int32_t fill = mindig - static_cast<int32_t>(t.size() + d.size());
    if (fill > 0) t.append(static_cast<size_t>(fill), '0');
    return t + d;
}

std::string model(const char *f, const Value *args) {
    std::string out;
    size_t k = 0;
    while (*f != '\0') {
        if (*f != '%') {
            out += *f++;
            continue;
        }
        ++f;
        bool left = false, alt = false, zero = false;
        if (*f == '-') left = true, ++f;
        if (*f == '0') ++f;
        for (; *f == '#' || *f == '0'; ++f) (*f == '#' ? alt : zero) = true;
        uint32_t width = 0;
        for (; *f >= '0' && *f <= '9'; ++f) width = std::min<uint32_t>(width * 10 + (*f - '0'), kWidthMax);
        int32_t mindig = 0;
        if (zero) mindig = static_cast<int32_t>(std::min<uint32_t>(width, 16)), width = 0;
        if (*f == 'l' || *f == 'L') ++f;
        const char conv = *f;
        if (conv == '\0') break;
        ++f;
        std::string t;
        switch (conv) {
            case 'd': case 'i': {
                const int32_t v = static_cast<int32_t>(args[k++].u);
                t = number(v < 0 ? "-" : "", digits(v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v), 10), mindig);
                break;
            }
            case 'u': t = number("", digits(args[k++].u, 10), mindig); break;
            case 'x': t = number(alt ? "0x" : "", digits(args[k++].u, 16), mindig); break;
            case 'X': t = number(alt ? "0X" : "", digits(args[k++].u, 16), mindig); break;
            case 'o': t = number(alt ? "0" : "", digits(args[k++].u, 8), mindig); break;
            case 'c': t = std::string(1, static_cast<char>(args[k++].u & 0xFF)); break;
            case 's': t = args[k].s ? args[k].s : "(null)"; ++k; break;
            case 'f': {
                double v = args[k++].d;
                const bool minus = v < 0;
                if (minus) v = -v;
                if (v > 2147483647.0) {
                    out += "(error)";
                    if (left) out.append(width, ' ');
                    continue;
                }
                if (v != v) {
                    t = "nan";
                    break;
                }
                const uint32_t whole = static_cast<uint32_t>(v);
                const uint32_t frac = std::min<uint32_t>(static_cast<uint32_t>((v - whole) * 10000.0), 9999);
                std::string fr = digits(frac, 10);
                fr.insert(0, 4 - fr.size(), '0');
                t = number(minus ? "-" : "", digits(whole, 10) + "." + fr, mindig);
                break;
            }
            default: t = std::string(1, conv); break;
        }
        const size_t fill = width > t.size() ? width - t.size() : 0;
        if (!left) out.append(fill, ' ');
        out += t;
        if (left) out.append(fill, ' ');
    }
    return out;
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

    Pool pool{nul ? nul + 1 : data + size, nul ? size - flen - 1 : 0};
    Value values[kMaxArgs];
    char store[kMaxArgs][kStringMax + 1];
    draw(pool, args, nargs, values, store);
    Call c{dst, fmt, values, nargs};
    dispatch(c, 0);
    for (size_t i = bound + 1; i < bound + 1 + kGuard; ++i) FUZZ_CHECK(static_cast<unsigned char>(dst[i]) == kGuardByte);
    const std::string want = model(fmt, values);
    FUZZ_CHECK(want.size() <= bound && std::memcmp(dst, want.data(), want.size()) == 0 && dst[want.size()] == '\0');

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
