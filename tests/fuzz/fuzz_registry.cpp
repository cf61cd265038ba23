// The registry codec. Input: a control byte, subkey, entry and value (each NUL-ended), then the text, streamed in
// uneven chunks through the smallest buffer. Lookups stay in their buffer; streamed and in-place rewrites agree.
#include "fuzz_targets.hpp"
#include "util/reg.hpp"

namespace kavro::fuzz {

using namespace kavro::detail;
enum How { kInPlace, kStreamed, kBroken };  // kBroken: the read that would pass half the text fails

struct Source {
    const std::string &text;
    size_t pos = 0, fail_at;
    uint32_t seed;
    std::vector<char> buf = std::vector<char>(2 * kRegPieceMax);
    RegReader in;
    Source(const std::string &t, uint32_t s, How how)
        : text(t),
          fail_at(how == kBroken ? t.size() / 2 : SIZE_MAX),
          seed(s),
          in(how == kInPlace ? RegReader(t.data(), t.size()) : RegReader(read, this, buf.data(), buf.size())) {}
    static long read(void *ctx, char *out, size_t cap) {
        auto *c = static_cast<Source *>(ctx);
        if (c->pos >= c->fail_at) return -1;
        c->seed = c->seed * 1103515245u + 12345u;
        const size_t k = std::min({size_t{1} + (c->seed >> 16) % 600, cap, c->text.size() - c->pos});
        std::memcpy(out, c->text.data() + c->pos, k);
        c->pos += k;
        return static_cast<long>(k);
    }
};

static const char *take_string(const uint8_t *&p, const uint8_t *end) {
    const auto *nul = static_cast<const uint8_t *>(std::memchr(p, 0, static_cast<size_t>(end - p)));
    const char *s = reinterpret_cast<const char *>(p);
    return nul ? (p = nul + 1, s) : nullptr;
}

int fuzz_registry(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t control = data[0];
    const uint8_t *p = data + 1, *end = data + size;
    const char *subkey = take_string(p, end), *entry = take_string(p, end), *value = take_string(p, end);
    if (value == nullptr) subkey = "Network", entry = "Address", value = "10.0.0.1";
    const std::string text(reinterpret_cast<const char *>(p), static_cast<size_t>(end - p));
    const uint32_t seed = control * 2654435761u + static_cast<uint32_t>(size);
    static const uint32_t kCapacities[] = {0, 1, 3, 4, 5, 16, 254, 255};
    const uint32_t capacity = kCapacities[control & 7];
    std::vector<char> buf(std::max(capacity, 1u), 0x5A);  // exact size: a write past it is caught
    Source looked(text, seed, kStreamed);
    (void)reg_lookup(looked.in, subkey, entry, buf.data(), capacity);
    FUZZ_CHECK(capacity > 0 || buf[0] == 0x5A);  // no room: not even a terminator
    // Rewrite with names REG_SetValue would accept.
    if (!valid_name(subkey)) subkey = "Network";
    if (!valid_name(entry)) entry = "Address";
    if (!valid_string(value)) value = "";
    const uint32_t type = (control & 8) ? kRegDword : kRegSz;
    auto rewrite = [&](How how) {  // the new text, or "<failed>"
        Source src(text, seed, how);
        std::string out;
        RegWriter w([](void *o, const char *q, size_t n) { return static_cast<std::string *>(o)->append(q, n), true; },
                    &out);
        const void *v = type == kRegSz ? static_cast<const void *>(value) : &seed;
        return reg_rewrite(src.in, w, subkey, entry, type, v) == KAVRO_OK ? out : "<failed>";
    };
    FUZZ_CHECK(rewrite(kStreamed) == rewrite(kInPlace));
    FUZZ_CHECK(text.empty() || rewrite(kBroken) == "<failed>");  // the copy is never complete
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_registry)
