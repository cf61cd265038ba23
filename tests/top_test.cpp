// `kavro top` against live, killed, corrupted and silent publishers, each in a private /dev/shm.

#include <string>

#include "frame/publish.hpp"
#include "test_support.hpp"

namespace {

using namespace kavro::test;

std::string bindir() {
    const char *d = std::getenv("KAVRO_TEST_BINDIR");
    return d != nullptr ? d : ".";
}

std::string top(const char *args) {
    const ChildOutput r = run_shell(bindir() + "/../tools/kavro top " + args);
    return r.out + r.err;
}

std::string dir() {
    char d[96];
    kavro::pub::dir_of(static_cast<uint32_t>(getuid()), d, sizeof d);
    return d;
}

std::string file_of(pid_t pid) { return dir() + "/" + std::to_string(pid) + ".top"; }

bool appears(const std::string &path, int ms = 5000) {
    struct stat st {};
    for (int i = 0; i < ms / 20; ++i, usleep(20000))
        if (stat(path.c_str(), &st) == 0 && st.st_size > static_cast<off_t>(sizeof(kavro::pub::Header))) return true;
    return false;
}

int in_private_shm(const std::function<int()> &fn) { return run_in_private_mounts("/dev/shm", fn); }

TEST(Top, DemoShowsItsThreadsLockMailboxesAndChannel) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the demo forks while its threads run, which the thread sanitizer cannot follow";
#endif
    KAVRO_REQUIRE_NATIVE("the demo's timer engine stops the emulated process");
    KAVRO_EXPECT_PASSED(in_private_shm([] {
        ForkedChild demo([](int) {
            setenv("KAVRO_PUBLISH", "1", 1);
            const std::string exe = bindir() + "/../demo/kavro-demo";
            return execl(exe.c_str(), exe.c_str(), "--seconds", "8", "--hold", "6000", "--report", "/dev/null",
                         nullptr),
                   127;
        });
        CHILD_CHECK(appears(file_of(demo.pid), 30000));
        // Each kind shows up in some snapshot while the threads and the channel's writer hold (6 s).
        std::vector<std::string> unseen = {"\"name\": \"producer\"", "\"name\": \"counter-a\"", "\"kind\": \"lock\"",
                                           "\"kind\": \"mailbox\"", "\"key\": 4711"};
        std::string json;
        for (int i = 0; i < 60 && !unseen.empty(); ++i, usleep(250000)) {
            json = top("--json");
            std::erase_if(unseen, [&](const std::string &w) { return json.find(w) != json.npos; });
        }
        if (!unseen.empty()) std::fprintf(stderr, "never seen: %s; last:\n%s\n", unseen[0].c_str(), json.c_str());
        CHILD_CHECK(unseen.empty() && top("--once").find("kavro-demo") != std::string::npos);
        return 0;
    }));
}

// Killed between the two writes of its sequence word: shown as gone and removed.
TEST(Top, ProcessKilledMidUpdateIsGone) {
    KAVRO_EXPECT_PASSED(in_private_shm([] {
        ForkedChild victim([](int fd) {
            setenv("KAVRO_PUBLISH", "1", 1);
            MBX_HANDLE m = nullptr;
            MBX_Create(&m, 8, 4);
            ForkedChild::say(fd);
            return pause();
        });
        const pid_t pid = victim.pid;
        CHILD_CHECK(victim.said() && appears(file_of(pid)));
        // The start time tells this process from a later one with its pid (only its presence is checked: under
        // the emulator a process reads its own /proc entry from the emulator, which need not agree with /proc).
        kavro::pub::Header h{};
        CHILD_CHECK(read_file(file_of(pid)).copy(reinterpret_cast<char *>(&h), sizeof h) == sizeof h && h.startTime);
        kill(pid, SIGKILL), victim.exit_code();
        FILE *f = std::fopen(file_of(pid).c_str(), "r+");
        const uint64_t odd = 7;
        CHILD_CHECK(f != nullptr && std::fseek(f, offsetof(kavro::pub::Header, seq), SEEK_SET) == 0 &&
                    std::fwrite(&odd, sizeof odd, 1, f) == 1 && std::fclose(f) == 0);
        const std::string out = top("--once");
        CHILD_CHECK(out.find(std::to_string(pid) + " ") != std::string::npos && out.find("gone") != std::string::npos);
        CHILD_CHECK(access(file_of(pid).c_str(), F_OK) != 0);
        return 0;
    }));
}

// Each malformed file costs one line and nothing else; publishing off writes nothing.
TEST(Top, MalformedSnapshotsAreSkippedAndPublishingOffWritesNothing) {
    KAVRO_EXPECT_PASSED(in_private_shm([] {
        MBX_HANDLE m = nullptr;
        CHILD_CHECK(setenv("KAVRO_PUBLISH", "0", 1) == 0 && MBX_Create(&m, 8, 4) == KAVRO_OK);
        usleep(1300000);
        CHILD_CHECK(access(dir().c_str(), F_OK) != 0);
        mkdir(dir().c_str(), 0755);
        kavro::pub::Header h{};
        std::memcpy(h.magic, kavro::pub::kMagic, sizeof h.magic);
        h.version = kavro::pub::kVersion, h.headerSize = sizeof h, h.rowSize = sizeof(kavro::pub::Row);
        h.pid = static_cast<uint32_t>(getpid()), h.rows = 3;  // none follow
        const std::string whole(reinterpret_cast<const char *>(&h), sizeof h);
        const struct {
            std::string path, text, why;
        } cases[] = {
            {dir() + "/1.top", std::string(sizeof h, 'x'), "wrong magic"},
            {dir() + "/2.top", whole.substr(0, 20), "wrong size"},
            {file_of(getpid()), whole, "wrong size"},
            {dir() + "/junk", "x", "not a snapshot name"},
        };
        for (const auto &c : cases) {
            const std::string out = write_file(c.path, c.text) ? top("--once") : "";
            if (out.find(c.path + ": " + c.why) == std::string::npos || out.find("PID COMMAND") == std::string::npos)
                return std::fprintf(stderr, "%s\n", out.c_str()), 1;
            unlink(c.path.c_str());
        }
        return 0;
    }));
}

}  // namespace
