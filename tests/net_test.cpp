// Network interfaces: the /proc/net/dev line parser and reader, the walk in
// a private network namespace with real interfaces, hardware addresses.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "kavro_rt/net.h"
#include "util/net.hpp"
#include "test_support.hpp"

namespace {

using kavro::detail::kNetNameSize;
using Names = std::multiset<std::string>;

std::string parsed(const std::string &line) {
    char name[kNetNameSize];
    return kavro::detail::parse_dev_line(line.c_str(), name) ? std::string(name) : "<none>";
}

TEST(NetParse, NamesFromLines) {
    char name[kNetNameSize];
    EXPECT_FALSE(kavro::detail::parse_dev_line(nullptr, name));
    const std::pair<std::string, std::string> cases[] = {
        {"  eth0: 1234 5 0 0", "eth0"}, {"    lo:    3267      29", "<none>"}, {"lo0: 1", "lo0"},
        {"e t h 1 :1:2", "eth1"},  // blanks do not count; the first ':' ends the name
        {"Inter-|   Receive  |  Transmit", "<none>"}, {"   : 1 2 3", "<none>"}, {"l o : 1", "<none>"},
        {"eth0\n: 1", "<none>"},  // a ':' on the next line does not count
        {std::string(31, 'a') + ":", std::string(31, 'a')}, {std::string(32, 'a') + ":", "<none>"},
        {std::string(5000, ' ') + "v9:" + std::string(5000, '7'), "v9"},
    };
    for (const auto &[line, want] : cases) EXPECT_EQ(parsed(line), want) << line;
}

// Long lines are one line each, the slot count bounds the names, and the
// slots after the last name are cleared.
TEST(NetParse, ReaderHandlesLongLinesAndBoundsSlots) {
    kavro::test::ScratchDir dir;
    const std::string path = dir.path() + "/dev";
    ASSERT_TRUE(kavro::test::write_file(
        path, "Inter-|   Receive\n face |bytes\n  a0: 1 2\n" + std::string(3000, 'x') + ": junk\n" +
                  "  a1:" + std::string(3000, '1') + " b7: 1 2 3\n" + std::string(300, ' ') +
                  "a2: 1\n    lo: 1\n\n\n  a3: 9"));
    char slots[6][kNetNameSize];
    auto read = [&](int max) {
        std::memset(slots, 'S', sizeof slots);
        const int fd = open(path.c_str(), O_RDONLY);
        const int n = kavro::detail::read_dev_names(fd, slots, max);
        if (fd >= 0) close(fd);
        return n;
    };
    EXPECT_EQ(read(2), 2);
    EXPECT_EQ(read(6), 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(std::string(slots[i]), "a" + std::to_string(i));
    EXPECT_TRUE(std::all_of(slots[4], slots[6], [](char c) { return c == 0; }));
}

TEST(Net, ArgumentsAndUnsupportedCalls) {
    InterfaceRecord *rec = reinterpret_cast<InterfaceRecord *>(&rec);
    EXPECT_EQ(NET_GetNextInterface(&rec), KAVRO_E_FAIL);
    EXPECT_EQ(rec, nullptr);

    InterfaceRecord r{KAVRO_TAG_NET, "lo"};
    char text[KAVRO_NET_MAC_TEXT_SIZE];
    // Unknown names, names the kernel cannot have, unterminated names.
    for (const char *name : {"no-such-if0", "sixteen-chars-xx", ""}) {
        std::strcpy(r.name, name);
        if (*name == '\0') std::memset(r.name, 'x', sizeof r.name);
        std::memset(text, 'M', sizeof text);
        EXPECT_EQ(NET_GetMacAddress(&r, text), KAVRO_E_FAIL) << name;
        EXPECT_TRUE(std::all_of(text, text + sizeof text, [](char c) { return c == 0; })) << name;
    }
}

bool sh(const std::string &cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

// Walks to the end; returns the names handed out and frees every record.
Names walk_all() {
    Names names;
    for (int i = 0; i < 64; ++i) {
        InterfaceRecord *rec = nullptr;
        const KAVRO_STATUS st = NET_GetInterface(&rec);
        if (rec != nullptr && rec->tag == KAVRO_TAG_NET && st == KAVRO_OK) names.insert(rec->name);
        if (rec != nullptr) KAVRO_OBJ_Free(rec, 0);
        if (st != 0) return names;
    }
    ADD_FAILURE() << "the walk does not end";
    return names;
}

// In a child with a network namespace of its own (only lo, down); the
// interfaces are real veth pairs and tap devices.
TEST(NetNamespace, WalkReturnsUpInterfacesWithIPv4Only) {
    const int rc = kavro::test::run_in_child([] {
        if (unshare(CLONE_NEWNET) != 0) return 77;
        EXPECT_EQ(NET_Init(), KAVRO_E_FAIL);  // lo never counts
        InterfaceRecord *rec = reinterpret_cast<InterfaceRecord *>(&rec);
        EXPECT_EQ(NET_GetInterface(&rec), KAVRO_E_FAIL);
        EXPECT_EQ(rec, nullptr);

        // v0: up with IPv4; v1: IPv4 but down; t0: up without IPv4; t1: up with IPv4.
        for (const char *cmd : {"ip link add v0 address 02:1a:2b:3c:4d:5e type veth peer name v1",
                                "ip tuntap add t0 mode tap", "ip tuntap add t1 mode tap",
                                "ip addr add 10.77.0.1/24 dev v0", "ip addr add 10.77.1.1/24 dev v1",
                                "ip addr add 10.77.2.1/24 dev t1", "ip link set v0 up",
                                "ip link set t0 up", "ip link set t1 up"})
            if (!sh(cmd)) return 78;
        EXPECT_EQ(_getDeviceList(), 3);
        EXPECT_EQ(NET_Init(), 0u);
        EXPECT_EQ(walk_all(), (Names{"v0", "t1"}));
        EXPECT_EQ(walk_all(), Names{});  // the end stays the end
        EXPECT_EQ(NET_Init(), 0u);       // until the list is read again
        EXPECT_EQ(walk_all(), (Names{"v0", "t1"}));

        InterfaceRecord v0{0, "v0"};  // any record with a name will do
        char text[KAVRO_NET_MAC_TEXT_SIZE];
        std::memset(text, 'M', sizeof text);
        EXPECT_EQ(NET_GetMacAddress(&v0, text), 0u);
        EXPECT_STREQ(text, "02:1A:2B:3C:4D:5E");
        EXPECT_TRUE(std::all_of(text + 17, text + sizeof text, [](char c) { return c == 0; }));

        // A shorter list replaces the longer one: no stale names come back.
        if (!sh("ip link del t0") || !sh("ip link del t1") || !sh("ip link set v1 up")) return 78;
        EXPECT_EQ(NET_Init(), 0u);
        EXPECT_EQ(walk_all(), (Names{"v0", "v1"}));
        if (!sh("ip link del v0")) return 78;
        EXPECT_EQ(NET_Init(), KAVRO_E_FAIL);
        EXPECT_EQ(walk_all(), Names{});
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "no private network namespace (needs CAP_SYS_ADMIN)";
    EXPECT_NE(rc, 78) << "the ip command could not set up the interfaces";
    EXPECT_EQ(rc, 0) << "see the failures of the child above";
}

}  // namespace
