// Network interfaces: the names from /proc/net/dev, the walk to the usable
// ones, hardware addresses.
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "frame/internal.hpp"
#include "kavro_rt/net.h"
#include "util/net.hpp"

namespace {

using kavro::detail::kFail;
using kavro::detail::kInvalidArg;
using kavro::detail::kNetNameSize;
using kavro::detail::kOk;

constexpr int32_t kSlots = 1024;

char szDevList[kSlots][kNetNameSize];
int32_t iCount = 0;

// The kernel's request structure carries 15 characters and a terminator;
// a longer name would be cut into some other interface's name.
bool fill_request(ifreq &req, const char *name) {
    const size_t len = strnlen(name, kNetNameSize);
    if (len >= sizeof req.ifr_name) return false;
    std::memset(&req, 0, sizeof req);
    std::memcpy(req.ifr_name, name, len);
    return true;
}

int open_socket() { return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); }

bool up_with_ipv4(int sock, const char *name) {
    ifreq req;
    if (!fill_request(req, name)) return false;
    req.ifr_addr.sa_family = AF_INET;
    if (ioctl(sock, SIOCGIFADDR, &req) != 0) return false;
    if (ioctl(sock, SIOCGIFFLAGS, &req) != 0) return false;
    return (req.ifr_flags & IFF_UP) != 0;
}

}  // namespace

namespace kavro::detail {

bool parse_dev_line(const char *line, char name[kNetNameSize]) {
    if (line == nullptr || name == nullptr) return false;
    DevNameScanner scan;
    for (; *line != '\0' && *line != '\n'; ++line) scan.feed(*line);
    const char *found = scan.name();
    if (found == nullptr) return false;
    std::strcpy(name, found);
    return true;
}

int32_t read_dev_names(int fd, char (*slots)[kNetNameSize], int32_t maxSlots) {
    int32_t count = 0;
    DevNameScanner scan;
    bool lineOpen = false;
    auto endLine = [&] {
        const char *found = scan.name();
        if (found != nullptr && count < maxSlots) std::strcpy(slots[count++], found);
        scan.reset();
        lineOpen = false;
    };
    char buf[1024];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        for (ssize_t i = 0; i < n; ++i) {
            if (buf[i] == '\n') {
                endLine();
            } else {
                scan.feed(buf[i]);
                lineOpen = true;
            }
        }
    }
    if (lineOpen) endLine();  // a last line without newline
    for (int32_t i = count; i < maxSlots; ++i) std::memset(slots[i], 0, kNetNameSize);
    return count;
}

}  // namespace kavro::detail

extern "C" {

KAVRO_API int32_t _getDeviceList(void) {
    const int fd = open("/proc/net/dev", O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        std::memset(szDevList, 0, sizeof szDevList);
        return -1;
    }
    const int32_t count = kavro::detail::read_dev_names(fd, szDevList, kSlots);
    close(fd);
    return count - 1;
}

KAVRO_API KAVRO_STATUS NET_Init(void) {
    iCount = 0;
    return _getDeviceList() == -1 ? kFail : kOk;
}

KAVRO_API KAVRO_STATUS NET_GetInterface(InterfaceRecord **record) {
    if (record == nullptr) return kInvalidArg;
    // *record is written only once an interface is examined: at the end of
    // the list the caller's pointer stays as it was.
    auto *rec = static_cast<InterfaceRecord *>(KAVRO_OBJ_Alloc(sizeof(InterfaceRecord), KAVRO_TAG_NET, 0));
    if (rec == nullptr) return kFail;
    bool handed_out = false;
    for (;;) {
        if (iCount < 0 || iCount >= kSlots || szDevList[iCount][0] == '\0') {
            if (!handed_out) KAVRO_OBJ_Free(rec, 0);  // the caller never saw it
            return kFail;
        }
        const char *name = szDevList[iCount++];
        std::memcpy(rec->name, name, kNetNameSize);
        *record = rec;
        handed_out = true;
        const int sock = open_socket();
        if (sock < 0) return kFail;
        const bool usable = up_with_ipv4(sock, name);
        close(sock);
        if (usable) return kOk;
    }
}

KAVRO_API KAVRO_STATUS NET_GetNextInterface(InterfaceRecord **record) {
    if (record != nullptr) *record = nullptr;
    return kFail;
}

KAVRO_API KAVRO_STATUS NET_GetMacAddress(const InterfaceRecord *record, char *text) {
    if (record == nullptr) return kInvalidArg;
    if (text == nullptr) return kFail;
    std::memset(text, 0, KAVRO_NET_MAC_TEXT_SIZE);
    ifreq req;
    if (!fill_request(req, record->name)) return kFail;
    const int sock = open_socket();
    if (sock < 0) return kFail;
    const int rc = ioctl(sock, SIOCGIFHWADDR, &req);
    close(sock);
    if (rc != 0) return kFail;

    static constexpr char hex[] = "0123456789ABCDEF";
    const auto *mac = reinterpret_cast<const unsigned char *>(req.ifr_hwaddr.sa_data);
    for (int i = 0; i < 6; ++i) {
        text[3 * i] = hex[mac[i] >> 4];
        text[3 * i + 1] = hex[mac[i] & 0xF];
        if (i < 5) text[3 * i + 2] = ':';
    }
    return kOk;
}

}  // extern "C"
