// Network interfaces: the /proc/net/dev line parser, the walk in a private
// network namespace with real interfaces, hardware addresses.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "kavro_rt/net.h"
#include "net.hpp"
#include "test_support.hpp"

namespace {

using kavro::detail::kNetNameSize;
using kavro::test::run_in_child;

std::string parsed(const std::string &line) {
    char name[kNetNameSize];
    std::memset(name, 'Q', sizeof name);
    return kavro::detail::parse_dev_line(line.c_str(), name) ? std::string(name) : "<none>";
}

TEST(NetParse, NamesFromLines) {
    EXPECT_EQ(parsed("  eth0: 1234 5 0 0"), "eth0");
    EXPECT_EQ(parsed("    lo:    3267      29"), "<none>");
    EXPECT_EQ(parsed("lo0: 1"), "lo0");
    EXPECT_EQ(parsed("l o : 1"), "<none>");   // blanks do not count, so this is lo
    EXPECT_EQ(parsed("e t h 1 :1:2"), "eth1");  // the first ':' ends the name
    EXPECT_EQ(parsed("Inter-|   Receive                |  Transmit"), "<none>");
    EXPECT_EQ(parsed(" face |bytes    packets errs drop fifo"), "<none>");
    EXPECT_EQ(parsed("   : 1 2 3"), "<none>");
    EXPECT_EQ(parsed(""), "<none>");
    EXPECT_EQ(parsed("br-x\t:\n"), "br-x\t");
    EXPECT_EQ(parsed("eth0\n: 1"), "<none>");  // ':' on the next line does not count
    EXPECT_EQ(parsed(std::string(31, 'a') + ":"), std::string(31, 'a'));
    EXPECT_EQ(parsed(std::string(32, 'a') + ":"), "<none>");
    EXPECT_EQ(parsed(std::string(5000, ' ') + "v9:" + std::string(5000, '7')), "v9");
}

// The reader over a synthetic file: long lines are one line each, the slot
// count bounds the names, and slots after the last name are cleared.
TEST(NetParse, ReaderHandlesLongLinesAndBoundsSlots) {
    kavro::test::ScratchDir dir;
    const std::string path = dir.path() + "/dev";
    std::string file = "Inter-|   Receive\n face |bytes\n";
    file += "  a0: 1 2\n";
    file += std::string(3000, 'x') + ": junk\n";                       // a name too long
    file += "  a1:" + std::string(3000, '1') + " b7: 1 2 3\n";        // a long tail
    file += std::string(300, ' ') + "a2: 1\n";
    file += "    lo: 1\n\n\n";
    file += "  a3: 9";                                                 // no final newline
    ASSERT_TRUE(kavro::test::write_file(path, file));

    char slots[6][kNetNameSize];
    std::memset(slots, 'S', sizeof slots);
    int fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kavro::detail::read_dev_names(fd, slots, 6), 4);
    close(fd);
    EXPECT_STREQ(slots[0], "a0");
    EXPECT_STREQ(slots[1], "a1");
    EXPECT_STREQ(slots[2], "a2");
    EXPECT_STREQ(slots[3], "a3");
    for (int i = 4; i < 6; ++i)
        for (char c : slots[i]) EXPECT_EQ(c, 0);

    fd = open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(kavro::detail::read_dev_names(fd, slots, 2), 2);
    close(fd);
    EXPECT_STREQ(slots[1], "a1");
}

TEST(Net, ArgumentsAndUnsupportedCalls) {
    InterfaceRecord *rec = reinterpret_cast<InterfaceRecord *>(&rec);
    EXPECT_EQ(NET_GetNextInterface(&rec), KAVRO_E_FAIL);
    EXPECT_EQ(rec, nullptr);
    EXPECT_EQ(NET_GetNextInterface(nullptr), KAVRO_E_FAIL);
    EXPECT_EQ(NET_GetInterface(nullptr), KAVRO_E_INVALIDARG);

    InterfaceRecord r{KAVRO_TAG_NET, "lo"};
    char text[KAVRO_NET_MAC_TEXT_SIZE];
    EXPECT_EQ(NET_GetMacAddress(nullptr, text), KAVRO_E_INVALIDARG);
    EXPECT_EQ(NET_GetMacAddress(&r, nullptr), KAVRO_E_FAIL);
    // Names the kernel cannot have, or does not know: empty text and a failure.
    for (const char *name : {"no-such-if0", "sixteen-chars-xx"}) {
        std::strcpy(r.name, name);
        std::memset(text, 'M', sizeof text);
        EXPECT_EQ(NET_GetMacAddress(&r, text), KAVRO_E_FAIL) << name;
        for (char c : text) EXPECT_EQ(c, 0);
    }
    std::memset(r.name, 'x', sizeof r.name);  // no terminator at all
    EXPECT_EQ(NET_GetMacAddress(&r, text), KAVRO_E_FAIL);
}

// Runs body in a child inside a fresh network namespace (holding only lo, down).
// 77 from the child means the namespace could not be made.
void in_private_net(int (*body)()) {
    const int rc = run_in_child([body] {
        if (unshare(CLONE_NEWNET) != 0) return 77;
        return body();
    });
    if (rc == 77) GTEST_SKIP() << "cannot make a private network namespace (needs CAP_SYS_ADMIN)";
    EXPECT_EQ(rc, 0) << "see the child's failures above";
}

bool sh(const std::string &cmd) { return std::system((cmd + " >/dev/null 2>&1").c_str()) == 0; }

int child_result() { return ::testing::Test::HasFailure() ? 1 : 0; }

// Walks to the end and returns the names handed out; frees every record.
std::multiset<std::string> walk_all() {
    std::multiset<std::string> names;
    for (int i = 0; i < 64; ++i) {
        InterfaceRecord *rec = nullptr;
        const KAVRO_STATUS st = NET_GetInterface(&rec);
        if (rec != nullptr) {
            EXPECT_EQ(rec->tag, KAVRO_TAG_NET);
            if (st == 0) names.insert(rec->name);
            KAVRO_OBJ_Free(rec, 0);
        }
        if (st != 0) {
            EXPECT_EQ(st, KAVRO_E_FAIL);
            return names;
        }
    }
    ADD_FAILURE() << "the walk does not end";
    return names;
}

TEST(NetNamespace, OnlyLoopbackMeansNoList) {
    in_private_net([] {
        EXPECT_EQ(_getDeviceList(), -1);
        EXPECT_EQ(NET_Init(), KAVRO_E_FAIL);
        InterfaceRecord *rec = reinterpret_cast<InterfaceRecord *>(&rec);
        EXPECT_EQ(NET_GetInterface(&rec), KAVRO_E_FAIL);
        EXPECT_EQ(rec, nullptr);  // nothing examined, nothing handed out
        sh("ip addr add 127.0.0.1/8 dev lo; ip link set lo up");
        EXPECT_EQ(NET_Init(), KAVRO_E_FAIL);  // lo never counts, even when usable
        return child_result();
    });
}

TEST(NetNamespace, WalkReturnsUpInterfacesWithIPv4Only) {
    in_private_net([] {
        // v0: up with IPv4; v1: IPv4 but down; t0: up without IPv4; t1: up with IPv4.
        if (!sh("ip link add v0 address 02:1a:2b:3c:4d:5e type veth peer name v1") ||
            !sh("ip tuntap add t0 mode tap") || !sh("ip tuntap add t1 mode tap") ||
            !sh("ip addr add 10.77.0.1/24 dev v0") || !sh("ip addr add 10.77.1.1/24 dev v1") ||
            !sh("ip addr add 10.77.2.1/24 dev t1") || !sh("ip link set v0 up") ||
            !sh("ip link set t0 up") || !sh("ip link set t1 up")) {
            ADD_FAILURE() << "cannot set up the interfaces";
            return 1;
        }
        EXPECT_EQ(_getDeviceList(), 3);  // v0, v1, t0, t1
        EXPECT_EQ(NET_Init(), 0u);
        EXPECT_EQ(walk_all(), (std::multiset<std::string>{"v0", "t1"}));
        // After the end the walk stays at the end; a new NET_Init rewinds it.
        InterfaceRecord *rec = nullptr;
        EXPECT_EQ(NET_GetInterface(&rec), KAVRO_E_FAIL);
        EXPECT_EQ(rec, nullptr);
        EXPECT_EQ(NET_Init(), 0u);
        EXPECT_EQ(walk_all(), (std::multiset<std::string>{"v0", "t1"}));

        InterfaceRecord v0{KAVRO_TAG_NET, "v0"};
        char text[KAVRO_NET_MAC_TEXT_SIZE];
        std::memset(text, 'M', sizeof text);
        EXPECT_EQ(NET_GetMacAddress(&v0, text), 0u);
        EXPECT_STREQ(text, "02:1A:2B:3C:4D:5E");
        for (size_t i = 17; i < sizeof text; ++i) EXPECT_EQ(text[i], 0) << i;

        // A shorter list replaces the longer one: no stale names come back.
        sh("ip link del t0");
        sh("ip link del t1");
        sh("ip link set v1 up");
        EXPECT_EQ(NET_Init(), 0u);
        EXPECT_EQ(walk_all(), (std::multiset<std::string>{"v0", "v1"}));
        sh("ip link del v0");
        EXPECT_EQ(NET_Init(), KAVRO_E_FAIL);
        EXPECT_EQ(walk_all(), std::multiset<std::string>{});
        return child_result();
    });
}

}  // namespace
