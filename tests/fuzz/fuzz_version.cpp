// Identity strings (up to 300 bytes, in a buffer of their size): every form; the full text is kind, blank, build.
#include "fuzz_targets.hpp"
#include "kavro_rt/version.h"

namespace kavro::fuzz {

// The result; a refusal leaves the text untouched, an answer ends within KAVRO_VERSION_TEXT_SIZE bytes.
static int32_t run(const char *id, int32_t form, char *text) {
    std::vector<char> out(KAVRO_VERSION_TEXT_SIZE, 0x5A);
    const int32_t r = _libTorVersion2String(id, form, out.data());
    FUZZ_CHECK(r == 0 ? std::memchr(out.data(), '\0', out.size()) != nullptr
                      : r == -1 && out == std::vector<char>(KAVRO_VERSION_TEXT_SIZE, 0x5A));
    if (r == 0 && text) std::strcpy(text, out.data());
    return r;
}

int fuzz_version(const uint8_t *data, size_t size) {
    const size_t len = size < 300 ? size : 300;
    std::vector<char> copy(len + 1);  // terminated, of its exact size
    std::memcpy(copy.data(), data, len);
    const char *id = copy.data();
    char kind[KAVRO_VERSION_TEXT_SIZE], full[KAVRO_VERSION_TEXT_SIZE], build[KAVRO_VERSION_TEXT_SIZE];
    const int32_t k = run(id, KAVRO_VERSION_KIND, kind), b = run(id, KAVRO_VERSION_BUILD, build);
    for (int32_t form = -1; form <= 5; ++form) (void)run(id, form, nullptr);
    const size_t kn = k == 0 ? std::strlen(kind) : 0;
    FUZZ_CHECK(run(id, KAVRO_VERSION_FULL, full) == k && (k != 0 || b == 0));
    FUZZ_CHECK(k != 0 || (!std::strncmp(full, kind, kn) && full[kn] == ' ' && !std::strcmp(full + kn + 1, build)));
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_version)
