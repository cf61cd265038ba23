// The "/etc/sysconfig/clock" scan on arbitrary bytes. The in-memory scan
// (the one the tests use) must give the verdict of the same bytes read from
// a real file descriptor (the way the library reads the file), and the
// verdict the line rules give: pieces of at most 79 characters, a piece cut
// short by the end of the file is not examined, the first "UTC=" piece with
// a true or false word decides.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "timer/cmos.hpp"
#include "fuzz_targets.hpp"

namespace kavro::fuzz {
namespace {

using kavro::detail::ClockFileVerdict;

constexpr size_t kPieceMax = 79;

ClockFileVerdict model(const char *text, size_t len) {
    static const char *const kTrue[] = {"true", "True", "TRUE", "yes", "Yes", "YES"};
    static const char *const kFalse[] = {"false", "False", "FALSE", "no", "No", "NO"};
    bool tagged = false;
    char piece[kPieceMax + 1];
    for (size_t pos = 0; pos < len;) {
        size_t n = 0;
        while (n < kPieceMax && pos + n < len && text[pos + n] != '\n') ++n;
        const bool newline = n < kPieceMax && pos + n < len;
        if (newline) ++n;
        if (!newline && n < kPieceMax) break;  // runs into the end of the file
        std::memcpy(piece, text + pos, n);
        piece[n] = '\0';
        pos += n;
        if (std::strncmp(piece, "UTC=", 4) != 0) continue;
        tagged = true;
        for (const char *w : kTrue)
            if (std::strstr(piece, w)) return ClockFileVerdict::Utc;
        for (const char *w : kFalse)
            if (std::strstr(piece, w)) return ClockFileVerdict::Local;
    }
    return tagged ? ClockFileVerdict::TagUnparsed : ClockFileVerdict::NoTag;
}

// The verdict of the bytes as a file; NoFile when no file can be made.
ClockFileVerdict from_fd(const char *text, size_t len) {
    const int fd = memfd_create("clock", MFD_CLOEXEC);
    if (fd < 0) return ClockFileVerdict::NoFile;
    if (len > 0 && write(fd, text, len) != static_cast<ssize_t>(len)) {
        close(fd);
        return ClockFileVerdict::NoFile;
    }
    lseek(fd, 0, SEEK_SET);
    FILE *f = fdopen(fd, "r");
    if (f == nullptr) {
        close(fd);
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
    const ClockFileVerdict v = kavro::detail::scan_clock_text(text, size);
    FUZZ_CHECK(v == model(text, size));
    const ClockFileVerdict f = from_fd(text, size);
    FUZZ_CHECK(f == ClockFileVerdict::NoFile || f == v);
    delete[] text;
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_sysconfig_clock)
