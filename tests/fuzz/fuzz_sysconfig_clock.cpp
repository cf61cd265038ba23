// "/etc/sysconfig/clock": a verdict without reading past the bytes; no "UTC=": no tag; a deciding first line decides.
#include <string>
#include <vector>

#include "fuzz_targets.hpp"
#include "timer/cmos.hpp"

namespace kavro::fuzz {

int fuzz_sysconfig_clock(const uint8_t *data, size_t size) {
    using kavro::detail::scan_clock_text;
    using V = kavro::detail::ClockFileVerdict;
    const std::vector<char> copy(data, data + size);  // exactly the text, so that a read past it is caught
    const V v = scan_clock_text(copy.data(), size);
    FUZZ_CHECK(v == V::Utc || v == V::Local || v == V::TagUnparsed || v == V::NoTag);
    if (std::string(copy.begin(), copy.end()).find("UTC=") == std::string::npos) FUZZ_CHECK(v == V::NoTag);
    for (const auto &[first, verdict] : {std::pair{"UTC=yes\n", V::Utc}, {"UTC=false\n", V::Local}}) {
        const std::string both = first + std::string(copy.begin(), copy.end());
        FUZZ_CHECK(scan_clock_text(both.data(), both.size()) == verdict);
    }
    return 0;
}
}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_sysconfig_clock)
