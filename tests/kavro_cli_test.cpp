// The operator tool and the demo program: their command lines, output formats, exit statuses and messages.

#include <sys/shm.h>

#include <string>

#include "cli.hpp"
#include "test_support.hpp"

namespace {

using kavro::cli::Command;
using kavro::cli::Options;
using kavro::test::ChildOutput;

ChildOutput tool(const std::string &args) { return kavro::test::run_shell(KAVRO_TOOL_PATH " " + args); }

bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

TEST(CliParse, OptionsAndUsageErrors) {
    Options o;
    std::string err;
    EXPECT_TRUE(kavro::cli::parse({"latency", "--seconds=3", "--svg", "a.svg", "--png=b.png", "--quiet"}, &o, &err) &&
                o.seconds == 3 && o.svg == "a.svg" && o.png == "b.png" && o.quiet);
    EXPECT_TRUE(kavro::cli::parse({"reg", "set", "--", "Net", "Offset", "-5"}, &o, &err) && o.args[2] == "-5");
    EXPECT_TRUE(kavro::cli::parse({"ipc", "--clean", "--dry-run", "--root=/x"}, &o, &err) && o.clean && o.dryRun &&
                o.root == "/x");
    EXPECT_TRUE(kavro::cli::parse({"ipc", "--help"}, &o, &err) && o.command == Command::Help && o.topic == "ipc");

    const struct {
        std::vector<std::string> argv;
        const char *says;
    } bad[] = {
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"reg"}, "reg needs a subcommand"},
        {{"reg", "get", "Tmr"}, "reg get takes SUBKEY ENTRY"},
        {{"reg", "list", "extra"}, "reg list takes no arguments"},
        {{"reg", "set", "a", "b", "-5"}, "unknown option '-5'"},
        {{"reg", "set", "--dword", "a", "b", "4294967296"}, "REG_DWORD value"},
        {{"reg", "set", "a", "b", "two words"}, "cannot hold blanks"},
        {{"latency", "--seconds"}, "option '--seconds' needs a value"},
        {{"latency", "--seconds=0"}, "--seconds takes a number from 1 to 3600"},
        {{"version", "--dword"}, "unknown option '--dword' for version"},
        {{"ipc", "--dry-run"}, "--dry-run goes with --clean"},
        {{"ipc", "stray"}, "ipc takes no arguments"},
    };
    for (const auto &c : bad) {
        EXPECT_FALSE(kavro::cli::parse(c.argv, &o, &err)) << c.says;
        EXPECT_TRUE(has(err, c.says) && !has(err, "\n")) << "got: " << err;
    }
}

TEST(CliLatency, GridLatenessHistogramAndPercentiles) {
    using kavro::tool::LatencyStats;
    constexpr int64_t kMs = 1000000;
    const int64_t grid[][2] = {{10 * kMs + 7000, 7000}, {10 * kMs - 100000, -100000}, {10 * kMs - 400000, 1600000}};
    for (auto &g : grid) EXPECT_EQ(kavro::tool::grid_lateness_ns(g[0], 0, 2 * kMs, 300000), g[1]);
    EXPECT_EQ(kavro::tool::grid_lateness_ns(-1 * kMs, 0, 2 * kMs, 0), kMs);

    static LatencyStats s;
    for (int i = 0; i < 98; ++i) s.add(10000 + i);
    s.add(-20000);
    s.add(50 * kMs);  // beyond the histogram
    EXPECT_TRUE(s.count == 100 && s.early == 1 && s.minNs == -20000 && s.maxNs == 50 * kMs);
    EXPECT_TRUE(s.percentile_us(0.01) == 0 && s.percentile_us(0.5) == 10 && s.percentile_us(0.99) == 10);
    EXPECT_EQ(s.percentile_us(1.0), LatencyStats::kMaxUs);
    EXPECT_NEAR(s.mean_us(), (98 * 10000 + 4753 - 20000 + 50 * kMs) / 100.0 / 1000.0, 1e-9);

    // The picture names the run and labels both axes; the CSV is the raw histogram.
    const kavro::cli::RunInfo info{"host<1>", "6.1.0", "native monotonic loop", "2026-01-02 03:04 UTC", 9.5};
    const std::string svg = kavro::cli::render_svg(s, info);
    for (const char *part : {"<svg ", "host&lt;1&gt;", "kernel 6.1.0", "9.5 s", "100 ticks", ">10</text>",
                             "lateness against the 2 ms grid (us)", "</svg>\n"})
        EXPECT_TRUE(has(svg, part)) << part;
    EXPECT_EQ(kavro::cli::render_csv(s), "lateness_us,ticks\n0,1\n10,98\n20000,1\n") << "early ticks count at 0";
    kavro::test::ScratchDir dir;
    std::string error;
    EXPECT_TRUE(kavro::cli::write_png(s, info, dir.path() + "/l.png", &error) &&
                kavro::test::read_file(dir.path() + "/l.png").substr(1, 3) == "PNG")
        << error;
}

TEST(CliTool, ExitStatusesAndMessages) {
    kavro::test::ScratchDir dir;
    const std::string missing = dir.path() + "/no/such";
    const struct {
        const char *program;
        std::string args;
        int status;
        std::string out, err;
    } cases[] = {
        {KAVRO_TOOL_PATH, "--version", 0, "libkavro_rt 1.00  Build: 060\nkavro 1.0.0\n", ""},
        {KAVRO_TOOL_PATH, "reg --help", 0, "reg get SUBKEY ENTRY", ""},
        {KAVRO_TOOL_PATH, "nonsense", 2, "", "kavro: unknown command 'nonsense' (try: kavro --help)\n"},
        {KAVRO_TOOL_PATH, "version > /dev/full", 1, "", "kavro: cannot write the output: No space left on device\n"},
        {KAVRO_TOOL_PATH, "ipc --root=" + dir.path(), 1, "", "/kmxipc: No such file or directory\n"},
        {KAVRO_TOOL_PATH, "latency --seconds=1 --svg=" + missing, 1, "",
         "cannot write " + missing + ": No such file or directory\n"},
        {KAVRO_DEMO_PATH, "--help", 0, "usage: kavro-demo", ""},
        {KAVRO_DEMO_PATH, "--seconds 0", 2, "", "--seconds takes"},
        {KAVRO_DEMO_PATH, "--seconds=abc", 2, "", "--seconds takes"},
        {KAVRO_DEMO_PATH, "--seconds 100000", 2, "", "--seconds takes"},
        {KAVRO_DEMO_PATH, "--no-sandbox --seconds 1 --report " + missing, 1, "", "No such file or directory"},
    };
    for (const auto &c : cases) {
        const ChildOutput r = kavro::test::run_shell(c.program + (" " + c.args));
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.out << r.err;
        EXPECT_TRUE(c.out.empty() ? r.out.empty() : has(r.out, c.out)) << c.args << " stdout: " << r.out;
        EXPECT_TRUE(c.err.empty() ? r.err.empty() : has(r.err, c.err)) << c.args << " stderr: " << r.err;
    }
}

TEST(CliTool, CtrlCEndsLatencyWithSummaryAndFiles) {
    KAVRO_REQUIRE_RT();
    KAVRO_REQUIRE_NATIVE("the tick loop needs real-time timing");
    kavro::test::ScratchDir dir;
    const std::string csv = dir.path() + "/l.csv";
    const ChildOutput r = tool("latency --seconds=60 --quiet --csv=" + csv + " & sleep 1; kill -INT $!; wait $!");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(has(r.out, ", ended by Ctrl-C") && has(r.out, "RESULT min_us=")) << r.out;
    EXPECT_EQ(kavro::test::read_file(csv).rfind("lateness_us,ticks\n", 0), 0u);
}

TEST(CliTool, RegistryInPrivateMounts) {
    KAVRO_EXPECT_PASSED(kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        const std::string reg = "/usr/torvanex/cfg/.registry";
        CHILD_CHECK(mkdir("/usr/torvanex/cfg", 0755) == 0);
        const struct {
            std::string file;  // registry content; "=": keep it, "/": make it a directory
            const char *args;
            int status;
            const char *says;  // in stdout, or in stderr when the status is not 0
        } steps[] = {
            {"Tmr\nPeriod\nREG_DWORD\n10\nBlob\nData\nREG_BINARY\n00ff\n", "reg get Tmr Period", 0,
             "0x00000010 (16)\n"},
            {"=", "reg set --dword Tmr Period 10", 0, "stored as 10; a read gives 0x00000010 (16)"},
            {"=", "reg set Net Host alpha", 0, ""},
            {"=", "reg get Net Host", 0, "alpha\n"},
            {"=", "reg list", 0, "Net\tHost\tREG_SZ\talpha\n"},
            {"=", "reg get Blob Data", 1, "Blob Data is a REG_BINARY record, which the library does not read"},
            {"=", "reg get Nope Nothing", 1, "no entry Nope Nothing"},
            {std::string("Tmr\nPer\0iod\nREG_SZ\nx\n", 21), "reg list", 1,
             "not a registry: binary data (a NUL byte at offset 7)"},
            {"/", "reg list", 1, ".registry: Is a directory"},
        };
        for (const auto &s : steps) {
            if (s.file == "/")
                CHILD_CHECK(unlink(reg.c_str()) == 0 && mkdir(reg.c_str(), 0755) == 0);
            else if (s.file != "=")
                CHILD_CHECK(kavro::test::write_file(reg, s.file));
            const ChildOutput r = tool(s.args);
            if (r.status != s.status || !has(s.status ? r.err : r.out, s.says) || (s.status && has(r.err, "\n\n"))) {
                std::fprintf(stderr, "%s: %d\n%s%s", s.args, r.status, r.out.c_str(), r.err.c_str());
                return 1;
            }
        }
        return 0;
    }));
}

TEST(CliTool, IpcCleanRemovesOnlyWhatNobodyUses) {
    KAVRO_EXPECT_PASSED(kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        if (unshare(CLONE_NEWIPC) != 0) return kavro::test::kNoMounts;
        const std::string dir = "/usr/torvanex/kmxipc";
        CHILD_CHECK(mkdir(dir.c_str(), 0755) == 0);
        for (const char *key : {"11", "12"})
            for (std::string p = dir + "/.pipe." + key; p.size() <= dir.size() + 10; p += '_')
                CHILD_CHECK(mkfifo(p.c_str(), 0600) == 0);
        const int reader = open((dir + "/.pipe.12").c_str(), O_RDONLY | O_NONBLOCK);  // 12 is in use
        const int mine = shmget(IPC_PRIVATE, 4096, 0600);                             // creator alive
        int orphan = -1;
        CHILD_CHECK(reader >= 0 && mine >= 0 &&
                    kavro::test::run_in_child([&] {
                        return shmget(0x4711, 4096, IPC_CREAT | 0600) >= 0 ? 0 : 1;  // creator gone once it returns
                    }) == 0);
        orphan = shmget(0x4711, 0, 0);
        const ChildOutput dry = tool("ipc --root=/usr/torvanex --clean --dry-run");
        CHILD_CHECK(dry.status == 0 && has(dry.out, "would remove pipe channel 11, reader absent (no reader)"));
        CHILD_CHECK(has(dry.out, "would remove shm id " + std::to_string(orphan)) &&
                    access((dir + "/.pipe.11").c_str(), F_OK) == 0);
        const ChildOutput done = tool("ipc --root=/usr/torvanex --clean");
        CHILD_CHECK(done.status == 0 && has(done.out, "removed pipe channel 11") &&
                    has(done.out, "2 object(s) removed"));
        CHILD_CHECK(access((dir + "/.pipe.11___").c_str(), F_OK) != 0 &&
                    access((dir + "/.pipe.12").c_str(), F_OK) == 0);
        CHILD_CHECK(shmget(0x4711, 0, 0) < 0 && shmctl(mine, IPC_RMID, nullptr) == 0);
        return 0;
    }));
}

}  // namespace
