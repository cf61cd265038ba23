// "/etc/sysconfig/clock": any bytes give a verdict without reading past them; no "UTC=" means no tag; a deciding
// first line decides whatever follows.
#include <cstring>
#include <string>

#include "fuzz_targets.hpp"
#include "timer/cmos.hpp"

namespace kavro::fuzz {

int fuzz_sysconfig_clock(const uint8_t *data, size_t size) {
    using kavro::detail::ClockFileVerdict;
    using kavro::detail::scan_clock_text;
    const std::string text(reinterpret_cast<const char *>(data), size);
    char *copy = new char[size == 0 ? 1 : size];  // an exact copy, so that a read past the text is caught
    if (size > 0) std::memcpy(copy, data, size);
    const ClockFileVerdict v = scan_clock_text(copy, size);
    delete[] copy;
    FUZZ_CHECK(v == ClockFileVerdict::Utc || v == ClockFileVerdict::Local || v == ClockFileVerdict::TagUnparsed ||
               v == ClockFileVerdict::NoTag);
    if (text.find("UTC=") == std::string::npos) FUZZ_CHECK(v == ClockFileVerdict::NoTag);
    for (const auto &[first, verdict] :
         {std::pair{"UTC=yes\n", ClockFileVerdict::Utc}, {"UTC=false\n", ClockFileVerdict::Local}}) {
        const std::string both = first + text;
        FUZZ_CHECK(scan_clock_text(both.data(), both.size()) == verdict);
    }
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_sysconfig_clock)
