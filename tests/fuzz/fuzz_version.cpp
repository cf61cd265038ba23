// Identity strings: every form of the text from a terminated copy of the input (at most 300 characters), and from
// KAVRO_VERSION_ID_MAX + 1 unterminated characters, which must be refused without a read beyond them.
#include <cstring>

#include "fuzz_targets.hpp"
#include "kavro_rt/version.h"

namespace kavro::fuzz {
namespace {

constexpr size_t kFixed = 15;

// The result; a refusal leaves the text untouched, an answer ends within KAVRO_VERSION_TEXT_SIZE bytes.
int32_t run(const char *id, int32_t form, char *text) {
    char *out = new char[KAVRO_VERSION_TEXT_SIZE];
    std::memset(out, 0x5A, KAVRO_VERSION_TEXT_SIZE);
    const int32_t r = _libTorVersion2String(id, form, out);
    FUZZ_CHECK(r == 0 || r == -1);
    if (r == 0) {
        FUZZ_CHECK(std::memchr(out, '\0', KAVRO_VERSION_TEXT_SIZE) != nullptr);
        if (text) std::strcpy(text, out);
    } else {
        for (size_t i = 0; i < KAVRO_VERSION_TEXT_SIZE; ++i) FUZZ_CHECK(out[i] == 0x5A);
    }
    delete[] out;
    return r;
}

}  // namespace

int fuzz_version(const uint8_t *data, size_t size) {
    const size_t len = size < 300 ? size : 300;
    char *id = new char[len + 1];
    std::memcpy(id, data, len);
    id[len] = '\0';
    const size_t n = std::strlen(id);
    const bool accepted = n >= kFixed && n <= KAVRO_VERSION_ID_MAX;
    const bool kind_known = accepted && id[6] >= '0' && id[6] <= '4';
    for (int32_t form = -1; form <= 5; ++form) {
        char text[KAVRO_VERSION_TEXT_SIZE];
        const int32_t r = run(id, form, text);
        const bool kind_free = form >= KAVRO_VERSION_BUILD && form <= KAVRO_VERSION_REST;
        FUZZ_CHECK(r == ((kind_free ? accepted : kind_known) ? 0 : -1));
        if (r == 0 && form == KAVRO_VERSION_BUILD) {
            const size_t label = std::strcspn(id + kFixed, " ");
            FUZZ_CHECK(std::strncmp(text, "Build: ", 7) == 0 && std::strlen(text) == 7 + label &&
                       std::memcmp(text + 7, id + kFixed, label) == 0);
        }
        if (r == 0 && form == KAVRO_VERSION_FULL) {
            char kind[KAVRO_VERSION_TEXT_SIZE], build[KAVRO_VERSION_TEXT_SIZE];
            FUZZ_CHECK(run(id, KAVRO_VERSION_KIND, kind) == 0 && run(id, KAVRO_VERSION_BUILD, build) == 0);
            const size_t k = std::strlen(kind);
            FUZZ_CHECK(std::strncmp(text, kind, k) == 0 && text[k] == ' ' && std::strcmp(text + k + 1, build) == 0);
        }
    }
    run(nullptr, 0, nullptr);
    FUZZ_CHECK(_libTorVersion2String(id, 0, nullptr) == -1);
    delete[] id;

    if (size > KAVRO_VERSION_ID_MAX) {
        char *raw = new char[KAVRO_VERSION_ID_MAX + 1];
        std::memcpy(raw, data, KAVRO_VERSION_ID_MAX + 1);
        if (std::memchr(raw, '\0', KAVRO_VERSION_ID_MAX + 1) == nullptr)
            for (int32_t form = -1; form <= 5; ++form) FUZZ_CHECK(run(raw, form, nullptr) == -1);
        delete[] raw;
    }
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_version)
