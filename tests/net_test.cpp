// Network interfaces: the /proc/net/dev parser and reader; the walk in a private network namespace.

#include <set>

#include "kavro_rt/net.h"
#include "test_support.hpp"
#include "util/net.hpp"

namespace {

using kavro::detail::kNetNameSize;
using Names = std::multiset<std::string>;

TEST(NetParse, NamesFromLinesAndLongLinesRead) {
    const std::pair<std::string, std::string> cases[] = {
        {"lo0: 1", "lo0"},
        {"e t h 1 :1:2", "eth1"},  // blanks do not count; the first ':' ends the name
        {"eth0\n: 1", ""},         // a ':' on the next line does not count
        {std::string(31, 'a') + ":", std::string(31, 'a')},
        {std::string(32, 'a') + ":", ""},
        {std::string(5000, ' ') + "v9:" + std::string(5000, '7'), "v9"},
    };
    for (const auto &[line, want] : cases) {
        char name[kNetNameSize] = "";
        EXPECT_EQ(kavro::detail::parse_dev_line(line.c_str(), name) ? std::string(name) : "", want) << line;
    }
    kavro::test::ScratchDir dir;  // long lines are one line each (slot bounds and clearing: the fuzz target's)
    const std::string path = dir.path() + "/dev";
    ASSERT_TRUE(kavro::test::write_file(path, "Inter-|   Receive\n face |bytes\n  a0: 1 2\n" + std::string(3000, 'x') +
                                                  ": junk\n  a1:" + std::string(3000, '1') + " b7: 1 2 3\n" +
                                                  std::string(300, ' ') + "a2: 1\n    lo: 1\n\n\n  a3: 9"));
    char slots[6][kNetNameSize];
    const int fd = open(path.c_str(), O_RDONLY);
    EXPECT_EQ(kavro::detail::read_dev_names(fd, slots, 6), 4);
    close(fd);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(std::string(slots[i]), "a" + std::to_string(i));
}

bool sh(const std::string &cmd) { return std::system(("(" + cmd + ") >/dev/null 2>&1").c_str()) == 0; }

// Walks to the end; returns the names handed out and frees every record.
Names walk_all() {
    Names names;
    KAVRO_STATUS st = KAVRO_OK;
    for (int i = 0; i < 64 && st == KAVRO_OK; ++i) {
        InterfaceRecord *rec = nullptr;
        if ((st = NET_GetInterface(&rec)) == KAVRO_OK && rec->tag == KAVRO_TAG_NET) names.insert(rec->name);
        if (rec != nullptr) KAVRO_OBJ_Free(rec, 0);
    }
    EXPECT_NE(st, KAVRO_OK) << "the walk does not end";
    return names;
}

// In a network namespace of its own (only lo, down), with real veth and tap devices.
TEST(NetNamespace, WalkReturnsUpInterfacesWithIPv4Only) {
    const int rc = kavro::test::run_in_child([] {
        if (unshare(CLONE_NEWNET) != 0) return 77;
        InterfaceRecord *none = reinterpret_cast<InterfaceRecord *>(&none);  // lo never counts; the end leaves it alone
        EXPECT_TRUE(NET_Init() == KAVRO_E_FAIL && NET_GetInterface(&none) == KAVRO_E_FAIL &&
                    none == reinterpret_cast<InterfaceRecord *>(&none));
        // v0: up with IPv4; v1: IPv4 but down; t0: up without IPv4; t1: up with IPv4.
        if (!sh("ip link add v0 address 02:1a:2b:3c:4d:5e type veth peer name v1 && ip tuntap add t0 mode tap && "
                "ip tuntap add t1 mode tap && ip addr add 10.77.0.1/24 dev v0 && ip addr add 10.77.1.1/24 dev v1 && "
                "ip addr add 10.77.2.1/24 dev t1 && ip link set v0 up && ip link set t0 up && ip link set t1 up"))
            return 78;
        EXPECT_TRUE(_getDeviceList() == 3 && NET_Init() == KAVRO_OK);
        EXPECT_EQ(walk_all(), (Names{"v0", "t1"}));
        EXPECT_EQ(walk_all(), Names{});  // the end stays the end until the list is read again
        InterfaceRecord r{0, "v0"};      // any record with a name will do
        char text[KAVRO_NET_MAC_TEXT_SIZE];
        EXPECT_TRUE(NET_GetMacAddress(&r, text) == KAVRO_OK && std::string(text) == "02:1A:2B:3C:4D:5E");
        std::strcpy(r.name, "no-such-if0");
        EXPECT_TRUE(NET_GetMacAddress(&r, text) == KAVRO_E_FAIL && text[0] == 0);
        if (!sh("ip link del t0 && ip link del t1 && ip link set v1 up")) return 78;
        EXPECT_TRUE(NET_Init() == KAVRO_OK && walk_all() == (Names{"v0", "v1"}));  // no stale names from before
        return ::testing::Test::HasFailure() ? 1 : 0;
    });
    if (rc == 77) GTEST_SKIP() << "no private network namespace (needs CAP_SYS_ADMIN)";
    EXPECT_EQ(rc, 0) << (rc == 78 ? "the ip command could not set up the interfaces" : "see the child's failures");
}

}  // namespace
