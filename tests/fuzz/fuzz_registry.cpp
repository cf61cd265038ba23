// The registry reader, lookup and rewrite. Input: a control byte, subkey, entry and string value (each NUL-ended),
// then the text, read in place and streamed in uneven chunks through the smallest buffer allowed: both agree in
// every line, lookup and rewrite; the rewritten record holds the new value, and rewriting again changes nothing.
#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz_targets.hpp"
#include "util/reg.hpp"

namespace kavro::fuzz {
namespace {

using namespace kavro::detail;

// Streams the text in chunks of sizes drawn from a seed; the read that would pass fail_at fails.
struct Chunks {
    const char *p;
    size_t n, pos;
    uint32_t seed;
    size_t fail_at;
};

long chunk_read(void *ctx, char *buf, size_t cap) {
    auto *c = static_cast<Chunks *>(ctx);
    if (c->pos >= c->fail_at) return -1;
    if (c->pos == c->n) return 0;
    c->seed = c->seed * 1103515245u + 12345u;
    const size_t k = std::min({size_t{1} + (c->seed >> 16) % 600, cap, c->n - c->pos});
    std::memcpy(buf, c->p + c->pos, k);
    c->pos += k;
    return static_cast<long>(k);
}

bool string_write(void *ctx, const char *p, size_t n) { return static_cast<std::string *>(ctx)->append(p, n), true; }

// A streamed reader over its own buffer of the smallest allowed size, so a read past it is caught.
struct Streamed {
    Chunks chunks;
    char *buf = new char[2 * kRegPieceMax];
    RegReader in;
    Streamed(const std::string &text, uint32_t seed, size_t fail_at = SIZE_MAX)
        : chunks{text.data(), text.size(), 0, seed, fail_at}, in(chunk_read, &chunks, buf, 2 * kRegPieceMax) {}
    ~Streamed() { delete[] buf; }
    Streamed(const Streamed &) = delete;
};

const char *take_string(const uint8_t *&p, const uint8_t *end) {
    const char *s = reinterpret_cast<const char *>(p);
    const void *nul = std::memchr(p, 0, static_cast<size_t>(end - p));
    if (nul == nullptr) return nullptr;
    p = static_cast<const uint8_t *>(nul) + 1;
    return s;
}

// The type and value lines of the first record whose whole subkey and entry lines name them as first word.
bool record_lines(const std::string &reg, const char *subkey, const char *entry, std::string *type_value) {
    auto names = [](const RegLine &l, const char *want) {
        if (l.p[l.n - 1] != '\n' && l.n >= kRegPieceMax) return false;
        size_t i = 0, w;
        for (; i < l.n && is_space(l.p[i]); ++i) continue;
        for (w = i; i < l.n && !is_space(l.p[i]) && l.p[i] != '\0'; ++i) continue;
        return i - w == std::strlen(want) && std::memcmp(l.p + w, want, i - w) == 0;
    };
    RegReader in(reg.data(), reg.size());
    for (RegLine l[4];;) {
        size_t got = 0;
        while (got < 4 && in.next(&l[got])) ++got;
        if (got < 4) return false;
        if (names(l[0], subkey) && names(l[1], entry))
            return type_value->assign(l[2].p, l[2].n).append(l[3].p, l[3].n), true;
    }
}

KAVRO_STATUS lookup(RegReader &in, const char *subkey, const char *entry, uint32_t capacity, std::string *value) {
    char *buf = new char[capacity == 0 ? 1 : capacity];
    std::memset(buf, 0x5A, capacity == 0 ? 1 : capacity);
    const KAVRO_STATUS st = reg_lookup(in, subkey, entry, buf, capacity);
    FUZZ_CHECK(st == KAVRO_OK || st == KAVRO_E_NOTIMPL || st == KAVRO_E_FAIL || st == KAVRO_E_INVALIDARG);
    if (st == 0) value->assign(buf, capacity);
    delete[] buf;
    return st;
}

std::string rewrite(RegReader &in, const char *subkey, const char *entry, uint32_t type, const void *value,
                    KAVRO_STATUS *st) {
    std::string out;
    RegWriter w(string_write, &out);
    *st = reg_rewrite(in, w, subkey, entry, type, value);
    FUZZ_CHECK(*st == KAVRO_OK || *st == KAVRO_E_FAIL);
    return out;
}

}  // namespace

int fuzz_registry(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t control = data[0];
    const uint8_t *p = data + 1, *end = data + size;
    const char *subkey = take_string(p, end);
    const char *entry = subkey ? take_string(p, end) : nullptr;
    const char *value = entry ? take_string(p, end) : nullptr;
    if (value == nullptr) subkey = "Network", entry = "Address", value = "10.0.0.1";
    const std::string text(reinterpret_cast<const char *>(p), static_cast<size_t>(end - p));
    const uint32_t seed = control * 2654435761u + static_cast<uint32_t>(size);

    // The two readers see the same lines.
    {
        RegReader mem(text.data(), text.size());
        Streamed s(text, seed);
        RegLine a{}, b{};
        size_t total = 0;
        for (;;) {
            const bool ha = mem.next(&a), hb = s.in.next(&b);
            FUZZ_CHECK(ha == hb);
            if (!ha) break;
            FUZZ_CHECK(a.n >= 1 && a.n <= kRegPieceMax && a.n == b.n && std::memcmp(a.p, b.p, a.n) == 0);
            FUZZ_CHECK(std::memchr(a.p, '\n', a.n) == nullptr || a.p[a.n - 1] == '\n');
            total += a.n;
            (void)reg_parse_hex(a.p, a.n);
        }
        FUZZ_CHECK(total == text.size() && !s.in.failed());
    }

    // Lookup: in place and streamed alike; a read error is reported or the answer was found before it.
    static const uint32_t kCapacities[] = {0, 1, 3, 4, 5, 16, 254, 255};
    const uint32_t capacity = kCapacities[control & 7];
    {
        RegReader mem(text.data(), text.size());
        Streamed s(text, seed);
        std::string va, vb;
        const KAVRO_STATUS sa = lookup(mem, subkey, entry, capacity, &va);
        const KAVRO_STATUS sb = lookup(s.in, subkey, entry, capacity, &vb);
        FUZZ_CHECK(sa == sb && va == vb);

        Streamed broken(text, seed, text.size() / 2);
        std::string vc;
        const KAVRO_STATUS sc = lookup(broken.in, subkey, entry, capacity, &vc);
        FUZZ_CHECK((sc == sa && vc == va) || sc == KAVRO_E_FAIL);
    }

    // Rewrite with names REG_SetValue would accept.
    if (!valid_name(subkey)) subkey = "Network";
    if (!valid_name(entry)) entry = "Address";
    if (!valid_string(value)) value = "";
    const uint32_t type = (control & 8) ? kRegDword : kRegSz;
    uint32_t dword;
    std::memcpy(&dword, data, size < sizeof dword ? size : sizeof dword);
    const void *v = type == kRegSz ? static_cast<const void *>(value) : &dword;
    {
        RegReader mem(text.data(), text.size());
        Streamed s(text, seed);
        KAVRO_STATUS sa, sb;
        const std::string ra = rewrite(mem, subkey, entry, type, v, &sa);
        const std::string rb = rewrite(s.in, subkey, entry, type, v, &sb);
        FUZZ_CHECK(sa == sb && ra == rb);
        if (sa == 0) {
            std::string tv;
            FUZZ_CHECK(record_lines(ra, subkey, entry, &tv));
            FUZZ_CHECK(tv ==
                       (type == kRegSz ? "REG_SZ\n" + std::string(value) : "REG_DWORD\n" + std::to_string(dword)) +
                           "\n");
            RegReader again(ra.data(), ra.size());
            KAVRO_STATUS s2;
            const std::string r2 = rewrite(again, subkey, entry, type, v, &s2);
            FUZZ_CHECK(s2 == 0 && r2 == ra);
        }
        Streamed broken(text, seed, text.size() / 2);
        KAVRO_STATUS sc;
        (void)rewrite(broken.in, subkey, entry, type, v, &sc);
        if (!text.empty()) FUZZ_CHECK(sc != 0);  // the copy is never complete
    }
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_registry)
