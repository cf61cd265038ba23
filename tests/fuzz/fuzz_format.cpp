// The formatter on arbitrary formats (up to a NUL) with well-typed arguments drawn from the bytes after it. Walking
// `%[-][#0...][width][l|L]conv` gives each conversion's type and most text (width up to 65535, plus 80): the text
// stays within it and is terminated, guard bytes hold, the list form agrees, text without conversions is copied.
#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "fuzz_targets.hpp"
#include "kavro_rt/format.h"

namespace kavro::fuzz {
namespace {

constexpr size_t kMaxArgs = 5, kStringMax = 64, kTextMax = 80, kOutputMax = 1 << 20, kGuard = 64;
constexpr uint32_t kWidthMax = 65535;

struct Value {
    char type;  // 'd', 's' or 'f'
    uint32_t u;
    double d;
    const char *s;
};

void vformat(char *dst, const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    GP_vsprintf(dst, fmt, ap);
    va_end(ap);
}

// Builds the argument list one typed argument at a time, then calls.
template <typename... A>
void call(char *dst, const char *fmt, const Value *v, size_t n, A... a) {
    if constexpr (sizeof...(A) < kMaxArgs) {
        if (n > 0) {
            if (v->type == 's') return call(dst, fmt, v + 1, n - 1, a..., v->s);
            if (v->type == 'f') return call(dst, fmt, v + 1, n - 1, a..., v->d);
            return call(dst, fmt, v + 1, n - 1, a..., v->u);
        }
    }
    GP_sprintf(dst, fmt, a...);
    GP_sprintf(nullptr, fmt, a...);  // no destination: nothing happens
}

}  // namespace

int fuzz_format(const uint8_t *data, size_t size) {
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size));
    const size_t flen = nul ? static_cast<size_t>(nul - data) : size;
    const char *in = reinterpret_cast<const char *>(data);

    // The argument types and the output bound; the format is cut where either limit would be passed.
    Value args[kMaxArgs] = {};
    size_t nargs = 0, bound = 0, cut = flen;
    for (size_t i = 0; i < flen;) {
        if (in[i++] != '%') {
            ++bound;
            continue;
        }
        const size_t start = i - 1;
        if (i < flen && in[i] == '-') ++i;
        while (i < flen && (in[i] == '#' || in[i] == '0')) ++i;
        uint32_t width = 0;
        for (; i < flen && in[i] >= '0' && in[i] <= '9'; ++i)
            width = std::min<uint32_t>(width * 10 + static_cast<uint32_t>(in[i] - '0'), kWidthMax);
        if (i < flen && (in[i] == 'l' || in[i] == 'L')) ++i;
        if (i == flen) break;  // ends inside the conversion: prints nothing
        const char conv = in[i++];
        const bool takes = std::strchr("diuxXocsf", conv) != nullptr;
        if ((takes && nargs == kMaxArgs) || bound + width + kTextMax > kOutputMax) {
            cut = start;
            break;
        }
        bound += width + kTextMax;
        if (takes) args[nargs++].type = conv == 's' ? 's' : conv == 'f' ? 'f' : 'd';
    }

    // Argument values from the rest of the input; strings are null, empty or up to 64 bytes of it.
    const uint8_t *p = nul ? nul + 1 : data + size, *end = data + size;
    auto byte = [&] { return p < end ? *p++ : uint8_t{0}; };
    char store[kMaxArgs][kStringMax + 1];
    for (size_t k = 0; k < nargs; ++k) {
        uint64_t bits = 0;
        for (int b = 0; b < 8; ++b) bits |= static_cast<uint64_t>(byte()) << (8 * b);
        args[k].u = static_cast<uint32_t>(bits);
        std::memcpy(&args[k].d, &bits, sizeof bits);
        const size_t len = bits % (kStringMax + 2);
        for (size_t c = 0; c < len && c < kStringMax; ++c) store[k][c] = static_cast<char>(byte());
        store[k][len < kStringMax ? len : kStringMax] = '\0';
        args[k].s = len == kStringMax + 1 ? nullptr : store[k];
    }

    // The format and the destination in buffers of their exact sizes, so that a read past them is caught.
    char *fmt = new char[cut + 1];
    std::memcpy(fmt, in, cut);
    fmt[cut] = '\0';
    char *dst = new char[bound + 1 + kGuard];
    std::memset(dst, 0xA5, bound + 1 + kGuard);
    call(dst, fmt, args, nargs);
    FUZZ_CHECK(std::memchr(dst, '\0', bound + 1) != nullptr);
    for (size_t i = bound + 1; i < bound + 1 + kGuard; ++i) FUZZ_CHECK(static_cast<uint8_t>(dst[i]) == 0xA5);
    if (std::strchr(fmt, '%') == nullptr) FUZZ_CHECK(std::strcmp(dst, fmt) == 0);
    if (nargs == 0) {
        char *again = new char[bound + 1];
        vformat(again, fmt);
        FUZZ_CHECK(std::strcmp(again, dst) == 0);
        delete[] again;
    }
    dst[0] = 'x';
    GP_sprintf(dst, nullptr);  // a null format writes nothing, not even the terminator
    FUZZ_CHECK(dst[0] == 'x');
    delete[] dst;
    delete[] fmt;
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_format)
