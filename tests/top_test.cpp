// `kavro top` against live, killed, corrupted and silent publishers, each in
// a private /dev/shm.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frame/publish.hpp"
#include "kavro_rt/kavro_rt.h"
#include "test_support.hpp"

namespace {

using namespace kavro::test;

std::string bindir() {
    const char *d = std::getenv("KAVRO_TEST_BINDIR");
    return d != nullptr ? d : ".";
}

// Standard output and error of a shell command.
std::string sh(const std::string &cmd) {
    std::string out;
    FILE *p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    pclose(p);
    return out;
}

std::string top(const char *args) { return sh(bindir() + "/../tools/kavro top " + args); }

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

int in_private_shm(const std::function<int()> &fn) { return run_in_private_mounts("/dev/shm", fn, 60); }

TEST(Top, DemoShowsItsThreadsLockMailboxesAndChannel) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the demo forks while its threads run, which the thread sanitizer cannot follow";
#endif
    KAVRO_REQUIRE_NATIVE("the demo's timer engine stops the emulated process");
    const int rc = in_private_shm([] {
        const pid_t demo = fork();
        if (demo == 0) {
            setenv("KAVRO_PUBLISH", "1", 1);
            const std::string exe = bindir() + "/../demo/kavro-demo";
            execl(exe.c_str(), exe.c_str(), "--seconds", "5", "--hold", "3000", "--report", "/dev/null", nullptr);
            _exit(127);
        }
        CHILD_CHECK(appears(file_of(demo), 30000));
        // Until every kind has shown up: the threads and the channel's writer hold for 3 s.
        const char *wants[] = {"\"name\": \"producer\"", "\"name\": \"counter-a\"", "\"kind\": \"lock\"",
                               "\"kind\": \"mailbox\"", "\"key\": 4711"};
        std::string json, missing;
        for (int i = 0; i < 40; ++i, usleep(250000)) {
            json = top("--json");
            missing.clear();
            for (const char *w : wants)
                if (json.find(w) == std::string::npos) missing += std::string(" ") + w;
            if (missing.empty()) break;
        }
        const std::string table = top("--once");
        kill(demo, SIGKILL);
        waitpid(demo, nullptr, 0);
        if (!missing.empty()) std::fprintf(stderr, "missing%s in\n%s\n", missing.c_str(), json.c_str());
        CHILD_CHECK(missing.empty() && table.find("kavro-demo") != std::string::npos);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

// Killed between the two writes of its sequence word: shown as gone and removed.
TEST(Top, ProcessKilledMidUpdateIsGone) {
    const int rc = in_private_shm([] {
        ForkedChild victim([](int fd) {
            setenv("KAVRO_PUBLISH", "1", 1);
            MBX_HANDLE m = nullptr;
            MBX_Create(&m, 8, 4);
            ForkedChild::say(fd);
            pause();
            return 0;
        });
        CHILD_CHECK(victim.said() && appears(file_of(victim.pid)));
        const pid_t pid = victim.pid;
        kill(pid, SIGKILL);
        victim.exit_code();
        FILE *f = std::fopen(file_of(pid).c_str(), "r+");
        const uint64_t odd = 7;
        CHILD_CHECK(f != nullptr && std::fseek(f, offsetof(kavro::pub::Header, seq), SEEK_SET) == 0 &&
                    std::fwrite(&odd, sizeof odd, 1, f) == 1);
        std::fclose(f);
        const std::string out = top("--once");
        CHILD_CHECK(out.find(std::to_string(pid) + " ") != std::string::npos && out.find("gone") != std::string::npos);
        CHILD_CHECK(access(file_of(pid).c_str(), F_OK) != 0);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

// Each malformed file costs one line and nothing else.
TEST(Top, MalformedSnapshotsAreSkipped) {
    const int rc = in_private_shm([] {
        mkdir(dir().c_str(), 0755);
        kavro::pub::Header h{};
        std::memcpy(h.magic, kavro::pub::kMagic, sizeof h.magic);
        h.version = kavro::pub::kVersion;
        h.headerSize = sizeof h;
        h.rowSize = sizeof(kavro::pub::Row);
        h.pid = static_cast<uint32_t>(getpid());
        h.rows = 3;  // none follow
        const std::string whole(reinterpret_cast<const char *>(&h), sizeof h);
        const std::string me = dir() + "/" + std::to_string(getpid()) + ".top";
        const struct {
            std::string path, text, why;
        } cases[] = {
            {dir() + "/1.top", std::string(sizeof h, 'x'), "wrong magic"},
            {dir() + "/2.top", whole.substr(0, 20), "wrong size"},
            {me, whole, "wrong size"},
            {dir() + "/junk", "x", "not a snapshot name"},
        };
        for (const auto &c : cases) {
            CHILD_CHECK(write_file(c.path, c.text));
            const std::string out = top("--once");
            if (out.find(c.path + ": " + c.why) == std::string::npos || out.find("PID COMMAND") == std::string::npos) {
                std::fprintf(stderr, "%s\n", out.c_str());
                return 1;
            }
            unlink(c.path.c_str());
        }
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

TEST(Top, PublishingOffWritesNothing) {
    const int rc = in_private_shm([] {
        setenv("KAVRO_PUBLISH", "0", 1);
        MBX_HANDLE m = nullptr;
        CHILD_CHECK(MBX_Create(&m, 8, 4) == KAVRO_OK);
        usleep(1300000);
        CHILD_CHECK(access(dir().c_str(), F_OK) != 0);
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

}  // namespace
