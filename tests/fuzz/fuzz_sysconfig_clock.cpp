// "/etc/sysconfig/clock": the in-memory scan agrees with the scan of a descriptor; no "UTC=" means no tag; a deciding
// first line decides whatever follows.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "fuzz_targets.hpp"
#include "timer/cmos.hpp"

namespace kavro::fuzz {
namespace {

using kavro::detail::ClockFileVerdict;
using kavro::detail::scan_clock_text;

// The verdict of the bytes as a file; NoFile when no file can be made.
ClockFileVerdict from_fd(const char *text, size_t len) {
    const int fd = memfd_create("clock", MFD_CLOEXEC);
    FILE *f = fd < 0 || (len > 0 && write(fd, text, len) != static_cast<ssize_t>(len)) || lseek(fd, 0, SEEK_SET) != 0
                  ? nullptr
                  : fdopen(fd, "r");
    if (f == nullptr) {
        if (fd >= 0) close(fd);
        return ClockFileVerdict::NoFile;
    }
    const ClockFileVerdict v = kavro::detail::scan_clock_file(f);
    std::fclose(f);
    return v;
}

}  // namespace

int fuzz_sysconfig_clock(const uint8_t *data, size_t size) {
    // An exact copy, so that a read past the text is caught.
    char *text = new char[size == 0 ? 1 : size];
    if (size > 0) std::memcpy(text, data, size);
    const ClockFileVerdict v = scan_clock_text(text, size);
    FUZZ_CHECK(v == ClockFileVerdict::Utc || v == ClockFileVerdict::Local || v == ClockFileVerdict::TagUnparsed ||
               v == ClockFileVerdict::NoTag);
    const ClockFileVerdict f = from_fd(text, size);
    FUZZ_CHECK(f == ClockFileVerdict::NoFile || f == v);
    if (std::string(text, size).find("UTC=") == std::string::npos) FUZZ_CHECK(v == ClockFileVerdict::NoTag);
    for (const auto &[first, verdict] :
         {std::pair{"UTC=yes\n", ClockFileVerdict::Utc}, std::pair{"UTC=false\n", ClockFileVerdict::Local}}) {
        const std::string both = first + std::string(text, size);
        FUZZ_CHECK(scan_clock_text(both.data(), both.size()) == verdict);
    }
    delete[] text;
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_sysconfig_clock)
