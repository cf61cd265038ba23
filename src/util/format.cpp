// The library's own printf dialect: numbers are rendered backwards into a
// 16-character buffer on the stack, every output character is one store.
#include <cstdarg>
#include <cstdint>

#include "kavro_rt/format.h"

namespace {

constexpr char digtohex[] = "0123456789abcdef";

constexpr int32_t kNumBufSize = 16;  // longest numeric text, sign and prefix included
constexpr uint32_t kMaxWidth = 65535;
constexpr double kMaxFloat = 2147483647.0;

// A null cursor never gets here: doPrint hands that walk to skipArgs.
inline void putch(char *&out, char c) { *out++ = c; }

template <uint32_t Base>
inline char *put_digits(char *p, uint32_t value) {
    // Constant bases let the compiler replace the division by a multiply.
    do {
        *--p = digtohex[value % Base];
        value /= Base;
    } while (value != 0);
    return p;
}

// Renders `value` backwards so that its last character sits just before
// `end`, and returns the first character. A negative base is a signed
// decimal conversion. The caller keeps mindig <= kNumBufSize, which bounds
// the text to kNumBufSize characters.
char *formatNum(char *end, const char *prefix, uint32_t value, int32_t mindig, int32_t base) {
    bool minus = false;
    if (base < 0) {
        base = -base;
        if (static_cast<int32_t>(value) < 0) {
            value = 0u - value;
            --mindig;
            minus = true;
        }
    }
    int32_t plen = 0;
    if (prefix != nullptr)
        while (prefix[plen] != '\0') ++plen;
    mindig -= plen;
    if (mindig < 0) mindig = 0;

    char *p;
    switch (base) {
        case 16: p = put_digits<16>(end, value); break;
        case 8: p = put_digits<8>(end, value); break;
        default: p = put_digits<10>(end, value); break;
    }
    const char *floor = end - mindig;
    while (p > floor) *--p = '0';
    if (minus) *--p = '-';
    while (plen > 0) *--p = prefix[--plen];
    return p;
}

inline void pad(char *&out, int64_t n) {
    for (; n > 0; --n) putch(out, ' ');
}

// The walk without output: the arguments are consumed as the conversions
// ask, and nothing they point to is read.
void skipArgs(const char *fmt, va_list ap) {
    for (;;) {
        char c = *fmt++;
        if (c == '\0') return;
        if (c != '%') continue;
        if (*fmt == '-') ++fmt;
        while (*fmt == '#' || *fmt == '0') ++fmt;
        while (*fmt >= '0' && *fmt <= '9') ++fmt;
        if (*fmt == 'l' || *fmt == 'L') ++fmt;
        switch (*fmt++) {
            case '\0': return;
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
            case 'c': (void)va_arg(ap, uint32_t); break;
            case 's': (void)va_arg(ap, const char *); break;
            case 'f': (void)va_arg(ap, double); break;
            default: break;
        }
    }
}

void doPrint(char *out, const char *fmt, va_list ap) {
    if (fmt == nullptr) return;
    if (out == nullptr) return skipArgs(fmt, ap);
    char num[kNumBufSize];
    char *const numEnd = num + kNumBufSize;

    for (;;) {
        char c = *fmt++;
        if (c == '\0') break;
        if (c != '%') {
            putch(out, c);
            continue;
        }

        bool left = false, alt = false, zero = false;
        uint32_t width = 0;
        if (*fmt == '-') {
            left = true;
            ++fmt;
        }
        if (*fmt == '0') ++fmt;  // a lone leading zero means nothing here
        for (;; ++fmt) {
            if (*fmt == '#')
                alt = true;
            else if (*fmt == '0')
                zero = true;
            else
                break;
        }
        while (*fmt >= '0' && *fmt <= '9') {
            width = width * 10 + static_cast<uint32_t>(*fmt++ - '0');
            if (width > kMaxWidth) width = kMaxWidth;
        }
        int32_t mindig = 0;
        if (zero) {
            mindig = width > static_cast<uint32_t>(kNumBufSize) ? kNumBufSize : static_cast<int32_t>(width);
            width = 0;
        }
        if (*fmt == 'l' || *fmt == 'L') ++fmt;
        const char conv = *fmt;
        if (conv == '\0') break;  // the format ends inside a conversion
        ++fmt;

        const char *text;
        int64_t len;
        char one;
        switch (conv) {
            case 'd':
            case 'i':
                text = formatNum(numEnd, nullptr, va_arg(ap, uint32_t), mindig, -10);
                len = numEnd - text;
                break;
            case 'u':
                text = formatNum(numEnd, nullptr, va_arg(ap, uint32_t), mindig, 10);
                len = numEnd - text;
                break;
            case 'x':
                text = formatNum(numEnd, alt ? "0x" : nullptr, va_arg(ap, uint32_t), mindig, 16);
                len = numEnd - text;
                break;
            case 'X':
                text = formatNum(numEnd, alt ? "0X" : nullptr, va_arg(ap, uint32_t), mindig, 16);
                len = numEnd - text;
                break;
            case 'o':
                text = formatNum(numEnd, alt ? "0" : nullptr, va_arg(ap, uint32_t), mindig, 8);
                len = numEnd - text;
                break;
            case 'c':
                one = static_cast<char>(va_arg(ap, uint32_t) & 0xFFu);
                text = &one;
                len = 1;
                break;
            case 's': {
                text = va_arg(ap, const char *);
                if (text == nullptr) text = "(null)";
                // Strings print whole; the length only matters for padding.
                if (width == 0) {
                    while (*text != '\0') putch(out, *text++);
                    continue;
                }
                const char *e = text;
                while (*e != '\0') ++e;
                len = e - text;
                break;
            }
            case 'f': {
                double v = va_arg(ap, double);
                bool minus = false;
                if (v < 0) {
                    v = -v;
                    minus = true;
                    --mindig;
                }
                if (v > kMaxFloat) {
                    for (const char *e = "(error)"; *e != '\0'; ++e) putch(out, *e);
                    if (left) pad(out, width);
                    continue;
                }
                if (v != v) {  // NaN fails both tests above
                    text = "nan";
                    len = 3;
                    break;
                }
                const uint32_t whole = static_cast<uint32_t>(v);
                uint32_t frac = static_cast<uint32_t>((v - whole) * 10000.0);
                if (frac > 9999) frac = 9999;
                char *p = put_digits<10>(numEnd, frac);
                while (p > numEnd - 4) *--p = '0';
                *--p = '.';
                p = formatNum(p, nullptr, whole, mindig - 5, 10);
                if (minus) *--p = '-';
                text = p;
                len = numEnd - p;
                break;
            }
            default:  // '%', '.', and anything unknown print themselves
                one = conv;
                text = &one;
                len = 1;
                break;
        }
        const int64_t fill = static_cast<int64_t>(width) - len;
        if (!left) pad(out, fill);
        for (int64_t i = 0; i < len; ++i) putch(out, text[i]);
        if (left) pad(out, fill);
    }
    putch(out, '\0');
}

}  // namespace

extern "C" {

KAVRO_API void GP_vsprintf(char *dst, const char *format, va_list args) { doPrint(dst, format, args); }

KAVRO_API void GP_sprintf(char *dst, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    GP_vsprintf(dst, format, ap);
    va_end(ap);
}

KAVRO_API void GP_vprintf(const char *format, va_list args) { doPrint(nullptr, format, args); }

}  // extern "C"
