// "/proc/net/dev": the streaming reader stores exactly the names the line parser finds line by line, at most as many
// as there are slots, and zeroes the slots after them.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "fuzz_targets.hpp"
#include "util/net.hpp"

namespace kavro::fuzz {
namespace {

using kavro::detail::kNetNameSize;

bool good_name(const char *name) {
    const size_t n = strnlen(name, kNetNameSize);
    return n > 0 && n < static_cast<size_t>(kNetNameSize) && std::strchr(name, ' ') == nullptr &&
           std::strchr(name, ':') == nullptr && std::strchr(name, '\n') == nullptr && std::strcmp(name, "lo") != 0;
}

}  // namespace

int fuzz_proc_net_dev(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    // First byte: the number of slots (0 to 7); the rest is the file.
    const int32_t slots = data[0] % 8;
    const char *text = reinterpret_cast<const char *>(data + 1);
    const size_t len = size - 1;

    // The names the line parser finds, each line in a terminated copy of its own exact size.
    char expect[8][kNetNameSize] = {};
    int32_t expected = 0;
    for (size_t pos = 0; pos < len;) {
        const char *nl = static_cast<const char *>(std::memchr(text + pos, '\n', len - pos));
        const size_t n = nl ? static_cast<size_t>(nl - (text + pos)) : len - pos;
        char *line = new char[n + 1];
        std::memcpy(line, text + pos, n);
        line[n] = '\0';
        char name[kNetNameSize];
        std::memset(name, 0x5A, sizeof name);
        if (kavro::detail::parse_dev_line(line, name)) {
            FUZZ_CHECK(good_name(name));
            if (expected < slots) std::memcpy(expect[expected], name, kNetNameSize);
            ++expected;
        }
        delete[] line;
        pos += n + 1;
    }
    if (expected > slots) expected = slots;

    const int fd = memfd_create("netdev", MFD_CLOEXEC);
    if (fd < 0) return 0;
    if (write(fd, text, len) == static_cast<ssize_t>(len) && lseek(fd, 0, SEEK_SET) == 0) {
        auto *got = new char[slots == 0 ? 1 : slots][kNetNameSize];
        std::memset(got, 0x5A, sizeof(*got) * (slots == 0 ? 1 : slots));
        const int32_t count = kavro::detail::read_dev_names(fd, got, slots);
        FUZZ_CHECK(count == expected);
        for (int32_t i = 0; i < count; ++i) FUZZ_CHECK(good_name(got[i]) && std::strcmp(got[i], expect[i]) == 0);
        for (int32_t i = count; i < slots; ++i)
            for (int32_t k = 0; k < kNetNameSize; ++k) FUZZ_CHECK(got[i][k] == '\0');
        delete[] got;
    }
    close(fd);
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_proc_net_dev)
