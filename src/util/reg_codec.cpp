// The registry's record codec: lines as a 255-byte line buffer reads them,
// the lookup of REG_GetValue and the rewrite of REG_SetValue, on any source
// and sink of text (the file, a test's string, the fuzzer's input).
#include "util/reg.hpp"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "frame/internal.hpp"

namespace kavro::detail {

bool is_space(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }

bool valid_name(const char *s) {
    const size_t n = std::strlen(s);
    if (n == 0 || n > kRegTextMax) return false;
    for (size_t i = 0; i < n; ++i)
        if (is_space(s[i])) return false;
    return true;
}

bool valid_string(const char *s) { return std::strlen(s) <= kRegTextMax && std::strchr(s, '\n') == nullptr; }

namespace {

// The line without its final character is `want` or a beginning of it.
bool prefix_match(const RegLine &l, const char *want, size_t want_len) {
    const size_t n = l.n - 1;
    return n <= want_len && std::memcmp(l.p, want, n) == 0;
}

// The first whitespace-delimited word of the line.
RegLine first_word(const RegLine &l) {
    const char *p = l.p, *end = l.p + l.n;
    while (p < end && is_space(*p)) ++p;
    const char *w = p;
    while (p < end && !is_space(*p) && *p != '\0') ++p;
    return RegLine{w, static_cast<size_t>(p - w)};
}

bool word_equals(const RegLine &l, const char *want, size_t want_len) {
    // A piece cut from an over-long line is not a whole line: matching it
    // would put the new value lines in the middle of that line.
    if (l.p[l.n - 1] != '\n' && l.n >= kRegPieceMax) return false;
    const RegLine w = first_word(l);
    return w.n == want_len && std::memcmp(w.p, want, want_len) == 0;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

RegReader::RegReader(const char *text, size_t len) : cur_(text), end_(text + len) {}

RegReader::RegReader(RegReadFn fn, void *ctx, char *buf, size_t cap)
    : fn_(fn), ctx_(ctx), buf_(buf), cap_(cap), cur_(buf), end_(buf), eof_(false) {}

bool RegReader::refill() {
    // Keep the unread rest and top the buffer up until a whole piece fits.
    const size_t rest = static_cast<size_t>(end_ - cur_);
    std::memmove(buf_, cur_, rest);
    cur_ = buf_;
    end_ = buf_ + rest;
    while (!eof_ && static_cast<size_t>(end_ - cur_) < kRegPieceMax) {
        long r = fn_(ctx_, const_cast<char *>(end_), cap_ - static_cast<size_t>(end_ - buf_));
        if (r < 0) {
            failed_ = true;
            eof_ = true;
        } else if (r == 0) {
            eof_ = true;
        } else {
            end_ += r;
        }
    }
    return end_ > cur_;
}

bool RegReader::next(RegLine *line) {
    size_t avail = static_cast<size_t>(end_ - cur_);
    if (avail < kRegPieceMax && !eof_) {
        if (!refill()) return false;
        avail = static_cast<size_t>(end_ - cur_);
    }
    if (avail == 0 || failed_) return false;
    const size_t window = avail < kRegPieceMax ? avail : kRegPieceMax;
    const void *nl = std::memchr(cur_, '\n', window);
    const size_t n = nl ? static_cast<size_t>(static_cast<const char *>(nl) - cur_) + 1 : window;
    line->p = cur_;
    line->n = n;
    cur_ += n;
    return true;
}

bool RegWriter::drain() {
    if (used_ > 0 && !failed_ && !fn_(ctx_, buf_, used_)) failed_ = true;
    used_ = 0;
    return !failed_;
}

bool RegWriter::put(const char *p, size_t n) {
    if (n == 0) return !failed_;
    last_ = p[n - 1];
    while (n > 0 && !failed_) {
        if (used_ == sizeof buf_ && !drain()) break;
        const size_t k = n < sizeof buf_ - used_ ? n : sizeof buf_ - used_;
        std::memcpy(buf_ + used_, p, k);
        used_ += k;
        p += k;
        n -= k;
    }
    return !failed_;
}

bool RegWriter::put(const char *s) { return put(s, std::strlen(s)); }

bool RegWriter::finish() { return drain(); }

uint32_t reg_parse_hex(const char *p, size_t n) {
    const char *end = p + n;
    while (p < end && is_space(*p)) ++p;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-')) negative = *p++ == '-';
    if (end - p >= 3 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && hex_digit(p[2]) >= 0) p += 2;
    uint64_t v = 0;
    bool over = false;
    for (int d; p < end && (d = hex_digit(*p)) >= 0; ++p) {
        v = v * 16 + static_cast<unsigned>(d);
        if (v > 0xFFFFFFFFu) over = true, v = 0xFFFFFFFFu;
    }
    if (over) return 0xFFFFFFFFu;
    const uint32_t r = static_cast<uint32_t>(v);
    return negative ? 0u - r : r;
}

KAVRO_STATUS reg_lookup(RegReader &in, const char *subkey, const char *entry, void *value, uint32_t capacity) {
    static const char fn[] = "REG_GetValue";
    const size_t subkey_len = std::strlen(subkey), entry_len = std::strlen(entry);
    RegLine l1{}, l2{}, l3{}, l4{};
    for (;;) {
        if (!in.next(&l1)) break;
        const bool m1 = prefix_match(l1, subkey, subkey_len);
        if (!in.next(&l2)) break;
        const bool m2 = m1 && prefix_match(l2, entry, entry_len);
        if (!in.next(&l3)) break;
        // Line 3 is only needed for the matching record; keep a copy, since
        // reading line 4 may move it.
        char type[kRegPieceMax + 1];
        if (m2) {
            std::memcpy(type, l3.p, l3.n);
            l3.p = type;
        }
        if (!in.next(&l4)) break;
        if (!m2) continue;

        if (prefix_match(l3, "REG_SZ", 6)) {
            const RegLine w = first_word(l4);
            char *out = static_cast<char *>(value);
            if (w.n >= capacity) {
                if (capacity > 0) out[0] = '\0';
                diag(fn, "value of [%s] [%s] needs %u bytes, the buffer holds %" PRIu32 "\n", subkey, entry,
                     static_cast<unsigned>(w.n + 1), capacity);
                return kInvalidArg;
            }
            std::memcpy(out, w.p, w.n);
            out[w.n] = '\0';
            return kOk;
        }
        if (prefix_match(l3, "REG_DWORD", 9)) {
            if (capacity < sizeof(uint32_t)) {
                diag(fn, "value of [%s] [%s] needs 4 bytes, the buffer holds %" PRIu32 "\n", subkey, entry, capacity);
                return kInvalidArg;
            }
            const uint32_t v = reg_parse_hex(l4.p, l4.n);
            std::memcpy(value, &v, sizeof v);
            return kOk;
        }
        if (prefix_match(l3, "REG_BINARY", 10)) {
            diag(fn, "(!strcmp(record.ValueType,REG_BINARY))\n");
            return kNotImpl;
        }
        diag(fn, "ValueType [%.*s] is not valid\n", static_cast<int>(l3.n), l3.p);
        return kFail;
    }
    return in.failed() ? kFail : kNotImpl;
}

KAVRO_STATUS reg_rewrite(RegReader &in, RegWriter &out, const char *subkey, const char *entry, uint32_t type,
                         const void *value) {
    const size_t subkey_len = std::strlen(subkey), entry_len = std::strlen(entry);
    RegLine l{};
    size_t pieces = 0;  // lines copied so far
    size_t last_len = 0;
    bool m1 = false, m2 = false, found = false;
    while (in.next(&l)) {
        const size_t pos = pieces % 4;
        if (pos == 2 && m2) {
            found = true;  // drop the old type line and the value line after it
            in.next(&l);
            break;
        }
        out.put(l.p, l.n);
        last_len = l.n;
        ++pieces;
        if (pos == 0) m1 = word_equals(l, subkey, subkey_len);
        if (pos == 1) m2 = m1 && word_equals(l, entry, entry_len);
    }
    if (!found && pieces % 4 == 2 && m2) found = true;  // the record ends after its entry line
    if (in.failed()) return kFail;

    if (out.last() != '\n') {
        // The file's last line has no newline: end it, so the next line
        // starts on its own. Behind a full-length piece the newline reads as
        // a line of its own.
        out.put("\n", 1);
        if (last_len >= kRegPieceMax) ++pieces;
    }
    if (!found) {
        if (pieces % 4 != 0) return kFail;
        out.put(subkey, subkey_len);
        out.put("\n", 1);
        out.put(entry, entry_len);
        out.put("\n", 1);
    }
    if (type == kRegSz) {
        out.put("REG_SZ\n");
        out.put(static_cast<const char *>(value));
        out.put("\n", 1);
    } else {
        uint32_t v;
        std::memcpy(&v, value, sizeof v);
        char line[32];
        const int n = std::snprintf(line, sizeof line, "REG_DWORD\n%" PRIu32 "\n", v);
        out.put(line, static_cast<size_t>(n));
    }
    if (found)
        while (in.next(&l)) out.put(l.p, l.n);
    if (in.failed()) return kFail;
    return out.finish() ? kOk : kFail;
}

}  // namespace kavro::detail
