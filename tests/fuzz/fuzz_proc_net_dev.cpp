// /proc/net/dev: the reader stores the names the line parser finds (each in its slot, up to the count), then zeroes.
#include <sys/mman.h>
#include <unistd.h>

#include "fuzz_targets.hpp"
#include "util/net.hpp"

namespace kavro::fuzz {

using kavro::detail::kNetNameSize;

int fuzz_proc_net_dev(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const int32_t slots = data[0] % 8;  // the first byte; the rest is the file
    const char *text = reinterpret_cast<const char *>(data + 1);
    const size_t len = size - 1;
    char names[8][kNetNameSize] = {};
    int32_t found = 0;
    for (size_t pos = 0, n; pos < len; pos += n + 1) {
        const char *nl = static_cast<const char *>(std::memchr(text + pos, '\n', len - pos));
        n = nl ? static_cast<size_t>(nl - (text + pos)) : len - pos;
        std::vector<char> line(n + 1);  // a terminated copy of its exact size
        std::memcpy(line.data(), text + pos, n);
        char name[kNetNameSize];
        if (!kavro::detail::parse_dev_line(line.data(), name)) continue;
        FUZZ_CHECK(name[0] != '\0' && std::memchr(name, '\0', kNetNameSize) != nullptr);
        if (found < slots) std::memcpy(names[found++], name, kNetNameSize);
    }
    const int fd = memfd_create("netdev", MFD_CLOEXEC);
    FUZZ_CHECK(fd >= 0 && write(fd, text, len) == static_cast<ssize_t>(len) && lseek(fd, 0, SEEK_SET) == 0);
    std::vector<char> slot_bytes(kNetNameSize * std::max(slots, 1), 0x5A);  // exact size
    auto *got = reinterpret_cast<char(*)[kNetNameSize]>(slot_bytes.data());
    FUZZ_CHECK(kavro::detail::read_dev_names(fd, got, slots) == found);
    for (int32_t i = 0; i < slots; ++i)  // the names, then slots of zeroes
        FUZZ_CHECK(i < found ? !std::strcmp(got[i], names[i]) : !std::memcmp(got[i], names[i], kNetNameSize));
    close(fd);
    return 0;
}

}  // namespace kavro::fuzz

KAVRO_FUZZ_ENTRY(kavro::fuzz::fuzz_proc_net_dev)
