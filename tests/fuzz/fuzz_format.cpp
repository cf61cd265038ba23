// Formats up to a NUL, typed arguments from the bytes after it: a conversion writes at most its width (<= 65535) + 80.
#include "fuzz_targets.hpp"
#include "kavro_rt/format.h"

namespace kavro::fuzz {

constexpr size_t kMaxArgs = 5, kStringMax = 64, kTextMax = 80, kOutputMax = 1 << 20, kGuard = 64;

struct Value {
    char type;  // 'd', 's' or 'f'
    uint32_t u;
    double d;
    const char *s;
};

template <typename... A>
void call(char *dst, const char *fmt, const Value *v, size_t n, A... a) {
    if constexpr (sizeof...(A) < kMaxArgs) {
        if (n > 0 && v->type == 's') return call(dst, fmt, v + 1, n - 1, a..., v->s);
        if (n > 0 && v->type == 'f') return call(dst, fmt, v + 1, n - 1, a..., v->d);
        if (n > 0) return call(dst, fmt, v + 1, n - 1, a..., v->u);
    }
    GP_sprintf(dst, fmt, a...);
}

int fuzz_format(const uint8_t *data, size_t size) {
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size));
    const size_t flen = nul ? static_cast<size_t>(nul - data) : size;
    const char *in = reinterpret_cast<const char *>(data);
    // Cut where the format would need more arguments or output than allowed.
    Value args[kMaxArgs] = {};
    size_t nargs = 0, bound = 0, cut = flen;
    for (size_t i = 0; i < flen;) {
        const size_t start = i;
        bound += in[i] != '%';
        if (in[i++] != '%') continue;
        if (i < flen && in[i] == '-') ++i;
        while (i < flen && (in[i] == '#' || in[i] == '0')) ++i;
        size_t width = 0;
        for (; i < flen && in[i] >= '0' && in[i] <= '9'; ++i) width = std::min<size_t>(width * 10 + in[i] - '0', 65535);
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
    // Values from the rest of the input; a string is null or a tail of its first 64 bytes.
    const uint8_t *p = nul ? nul + 1 : data + size, *end = data + size;
    const std::string tail(reinterpret_cast<const char *>(p), std::min<size_t>(end - p, kStringMax));
    for (size_t k = 0; k < nargs; ++k) {
        uint64_t bits = 0;
        for (int b = 0; b < 8; ++b) bits |= static_cast<uint64_t>(p < end ? *p++ : 0) << (8 * b);
        args[k].u = static_cast<uint32_t>(bits);
        std::memcpy(&args[k].d, &bits, sizeof bits);
        args[k].s = bits % 9 == 0 ? nullptr : tail.c_str() + bits % (tail.size() + 1);
    }
    // Exact sizes: a read past the format is caught.
    std::vector<char> fmt(cut + 1), dst(bound + 1 + kGuard, static_cast<char>(0xA5));
    std::memcpy(fmt.data(), in, cut);
    call(dst.data(), fmt.data(), args, nargs);
    FUZZ_CHECK(std::memchr(dst.data(), '\0', bound + 1) != nullptr);
    for (size_t i = bound + 1; i < bound + 1 + kGuard; ++i) FUZZ_CHECK(static_cast<uint8_t>(dst[i]) == 0xA5);
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_format)
