// Version text from component identity strings.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kavro_rt/version.h"

namespace {

// The library's identity string; kept in the binary so that tools can find it.
[[gnu::used]] constexpr char kLibId[] = "TXcid 01001000-060 libkavro_rt.so ";

constexpr size_t kFixedChars = 15;  // tag, kind, version, release, sub-number, '-'
constexpr size_t kModuleMax = 32;

static_assert(KAVRO_VERSION_TEXT_SIZE >= (KAVRO_VERSION_ID_MAX - kFixedChars) + 24 + 1,
              "the longest form (\"v Alpha nn.ss Build: label\") must fit");

}  // namespace

extern "C" {

KAVRO_API int32_t _libTorVersion2String(const char *id, int32_t form, char *out) {
    if (id == nullptr || out == nullptr) return -1;
    // Never read beyond the bounded length: a string without terminator is refused.
    const size_t len = strnlen(id, KAVRO_VERSION_ID_MAX + 1);
    if (len > KAVRO_VERSION_ID_MAX || len < kFixedChars) return -1;

    const char *label = id + kFixedChars;
    size_t labelLen = 0;
    while (label[labelLen] != '\0' && label[labelLen] != ' ') ++labelLen;
    const char *module = label + labelLen;
    if (*module != '\0') ++module;  // the separator
    size_t moduleLen = 0;
    while (moduleLen < kModuleMax && module[moduleLen] != '\0' && module[moduleLen] != ' ') ++moduleLen;
    const char *rest = module + moduleLen;

    char text[KAVRO_VERSION_TEXT_SIZE];
    const int lbl = static_cast<int>(labelLen);
    switch (form) {
        case KAVRO_VERSION_BUILD: std::snprintf(text, sizeof text, "Build: %.*s", lbl, label); break;
        case KAVRO_VERSION_NAME: std::snprintf(text, sizeof text, "%.*s", static_cast<int>(moduleLen), module); break;
        case KAVRO_VERSION_REST: std::snprintf(text, sizeof text, "%s", rest); break;
        default: {
            const char version[] = {id[7], '.', id[8], id[9], '\0'};
            const char numText[] = {id[10], id[11], '\0'};
            const int number = static_cast<int>(std::strtol(numText, nullptr, 10));
            const char sub[] = {id[12], id[13], '\0'};
            int n;
            switch (id[6]) {
                case '0': n = std::snprintf(text, sizeof text, "%s ", version); break;
                case '1': n = std::snprintf(text, sizeof text, "%s Beta %d", version, number); break;
                case '2': n = std::snprintf(text, sizeof text, "%s Alpha %d.%s", version, number, sub); break;
                case '3': n = std::snprintf(text, sizeof text, "%s Exp %d.%s", version, number, sub); break;
                case '4': n = std::snprintf(text, sizeof text, "%s Spec %d", version, number); break;
                default: return -1;  // no text exists for this kind
            }
            if (form == KAVRO_VERSION_FULL) std::snprintf(text + n, sizeof text - n, " Build: %.*s", lbl, label);
            break;
        }
    }
    std::memcpy(out, text, std::strlen(text) + 1);
    return 0;
}

KAVRO_API int32_t qLibVersionString(char *out) { return _libTorVersion2String(kLibId, KAVRO_VERSION_FULL, out); }

}  // extern "C"
