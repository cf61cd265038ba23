// The CMOS family's clock-file scan, which its tests reach directly.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "kavro_rt/cmos.h"

namespace kavro::detail {

// ---- the distribution's clock file ------------------------------------------------

inline constexpr const char kSysconfigClockPath[] = "/etc/sysconfig/clock";

enum class ClockFileVerdict {
    Utc,          // a "UTC=" line with a true word
    Local,        // a "UTC=" line with a false word (and no true word)
    TagUnparsed,  // "UTC=" lines, none with a value word
    NoTag,        // no examined piece begins with "UTC="
    NoFile,       // the file cannot be opened
};

// Scans an open clock file the way the library reads it: pieces of at most 79
// characters (a longer line comes in several pieces, each examined alone), a
// piece that ends at the end of the file without a newline is not examined,
// and reading stops at the first piece that decides.
ClockFileVerdict scan_clock_file(FILE *f);
// The same over a text in memory (any bytes, NULs included).
ClockFileVerdict scan_clock_text(const char *text, size_t len);
// The same for the file at `path` (NoFile when it cannot be opened).
ClockFileVerdict scan_clock_path(const char *path);

}  // namespace kavro::detail
