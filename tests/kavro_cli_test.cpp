// The operator tool: its command line, its output formats and its exit
// statuses (not its timing).
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "cli.hpp"
#include "test_support.hpp"

namespace {

using kavro::cli::Command;
using kavro::cli::Options;

bool try_parse(std::vector<std::string> argv, Options *o, std::string *err = nullptr) {
    std::string e;
    bool ok = kavro::cli::parse(argv, o, &e);
    if (err) *err = e;
    return ok;
}

TEST(CliParse, CommandsAndTheirOptions) {
    Options o;
    ASSERT_TRUE(try_parse({}, &o));
    EXPECT_EQ(o.command, Command::Help);
    ASSERT_TRUE(try_parse({"version"}, &o));
    EXPECT_EQ(o.command, Command::Version);
    ASSERT_TRUE(try_parse({"reg", "get", "Tmr", "Period", "--dword"}, &o));
    EXPECT_EQ(o.command, Command::RegGet);
    EXPECT_TRUE(o.dword);
    EXPECT_EQ(o.args, (std::vector<std::string>{"Tmr", "Period"}));
    ASSERT_TRUE(try_parse({"reg", "set", "Net", "Host", "alpha"}, &o));
    EXPECT_EQ(o.command, Command::RegSet);
    EXPECT_FALSE(o.dword);
    ASSERT_TRUE(try_parse({"reg", "set", "--dword", "Tmr", "Period", "0x10"}, &o));
    EXPECT_EQ(o.args[2], "0x10");
    ASSERT_TRUE(try_parse({"ipc", "--root", "/opt/x"}, &o));
    EXPECT_EQ(o.root, "/opt/x");
    ASSERT_TRUE(try_parse({"latency", "--seconds", "3", "--svg", "out.svg", "--quiet"}, &o));
    EXPECT_EQ(o.seconds, 3);
    EXPECT_EQ(o.svg, "out.svg");
    EXPECT_TRUE(o.quiet);
}

TEST(CliParse, UsageErrorsSayWhatIsWrong) {
    Options o;
    std::string err;
    struct Case {
        std::vector<std::string> argv;
        const char *says;
    } cases[] = {
        {{"frobnicate"}, "unknown command 'frobnicate'"},
        {{"reg"}, "reg needs a subcommand"},
        {{"reg", "drop"}, "unknown reg subcommand 'drop'"},
        {{"reg", "get", "Tmr"}, "reg get takes SUBKEY ENTRY"},
        {{"reg", "set", "a", "b"}, "reg set takes SUBKEY ENTRY VALUE"},
        {{"reg", "list", "extra"}, "reg list takes no arguments"},
        {{"reg", "set", "a", "b", "-5", "--dword"}, "unknown option '-5'"},
        {{"reg", "set", "a", "b", "4294967296", "--dword"}, "REG_DWORD value"},
        {{"reg", "set", "a", "b", "12x", "--dword"}, "REG_DWORD value"},
        {{"latency", "--seconds"}, "--seconds needs a number"},
        {{"latency", "--seconds", "0"}, "--seconds takes a number from 1 to 3600"},
        {{"latency", "--svg"}, "--svg needs a file name"},
        {{"version", "--dword"}, "unknown option '--dword'"},
        {{"ipc", "stray"}, "ipc takes no arguments"},
    };
    for (const auto &c : cases) {
        EXPECT_FALSE(try_parse(c.argv, &o, &err)) << c.says;
        EXPECT_NE(err.find(c.says), std::string::npos) << "got: " << err;
        EXPECT_EQ(err.find('\n'), std::string::npos) << "one line: " << err;
    }
}

TEST(CliLatency, GridLatenessHistogramAndPercentiles) {
    using kavro::tool::LatencyStats;
    constexpr int64_t kMs = 1000000;
    const int64_t grid[][2] = {{10 * kMs + 7000, 7000}, {10 * kMs - 100000, -100000}, {10 * kMs - 400000, 1600000}};
    for (auto &g : grid) EXPECT_EQ(kavro::tool::grid_lateness_ns(g[0], 0, 2 * kMs, 300000), g[1]);  // within 300 us: early
    EXPECT_EQ(kavro::tool::grid_lateness_ns(-1 * kMs, 0, 2 * kMs, 0), kMs);

    static LatencyStats s;
    for (int i = 0; i < 98; ++i) s.add(10000 + i);
    s.add(-20000);
    s.add(50 * kMs);  // beyond the histogram
    EXPECT_TRUE(s.count == 100 && s.early == 1 && s.minNs == -20000 && s.maxNs == 50 * kMs);
    EXPECT_TRUE(s.percentile_us(0.01) == 0 && s.percentile_us(0.5) == 10 && s.percentile_us(0.99) == 10);
    EXPECT_EQ(s.percentile_us(1.0), LatencyStats::kMaxUs);
    EXPECT_NEAR(s.mean_us(), (98 * 10000 + 4753 - 20000 + 50 * kMs) / 100.0 / 1000.0, 1e-9);
}

TEST(CliSvg, HistogramPictureIsWellFormedAndEscapesTheTitle) {
    kavro::tool::LatencyStats st;
    for (int i = 0; i < 1000; ++i) st.add((20 + i % 30) * 1000);
    st.add(900000);  // one very late tick lands in the overflow bar
    std::string svg = kavro::cli::render_svg(st, "a <b> & c");
    EXPECT_EQ(svg.rfind("<svg ", 0), 0u);
    EXPECT_NE(svg.find("</svg>\n"), std::string::npos);
    EXPECT_NE(svg.find("a &lt;b&gt; &amp; c"), std::string::npos);
    EXPECT_NE(svg.find("1001 ticks"), std::string::npos);
    EXPECT_NE(svg.find("#c0392b"), std::string::npos) << "overflow bar drawn";
    // Every rectangle's tooltip count adds up to the ticks.
    unsigned long long sum = 0;
    for (size_t at = svg.find("<title>"); at != std::string::npos; at = svg.find("<title>", at + 1))
        sum += std::strtoull(svg.c_str() + at + 7, nullptr, 10);
    EXPECT_EQ(sum, 1001u);
}

struct ToolRun {
    int status;
    std::string out;
};

ToolRun run_tool(const std::string &args) {
    std::string cmd = std::string(KAVRO_TOOL_PATH) + " " + args + " 2>&1";
    ToolRun r{-1, ""};
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof buf, p)) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

TEST(CliTool, ExitStatusesAndOutputs) {
    ToolRun r = run_tool("version");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "libkavro_rt 1.00  Build: 060\n");
    r = run_tool("help");
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("usage: kavro"), std::string::npos);
    r = run_tool("nonsense");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "kavro: unknown command 'nonsense' (try: kavro help)\n");

    kavro::test::ScratchDir root;
    r = run_tool("ipc --root " + root.path());
    EXPECT_EQ(r.status, 1) << "no IPC directory yet";
    EXPECT_EQ(r.out.rfind("kavro: cannot open " + root.path() + "/kmxipc", 0), 0u) << r.out;
}

TEST(CliTool, RegistryRoundTripInPrivateMounts) {
    int rc = kavro::test::run_in_private_mounts("/usr/torvanex", [] {
        system("mkdir -p /usr/torvanex/cfg && printf 'Tmr\\nPeriod\\nREG_DWORD\\n10\\n' > /usr/torvanex/cfg/.registry");
        if (run_tool("reg get Tmr Period --dword").out != "16\n") return 3;  // stored hex
        if (run_tool("reg set Net Host alpha").status != 0) return 4;
        if (run_tool("reg get Net Host").out != "alpha\n") return 5;
        ToolRun list = run_tool("reg list");
        if (list.status != 0 || list.out.find("Net\tHost\tREG_SZ\talpha\n") == std::string::npos) return 6;
        if (list.out.find("2 record(s)") == std::string::npos) return 7;
        ToolRun missing = run_tool("reg get Nope Nothing");
        if (missing.status != 1 || missing.out.find("no entry Nope Nothing") == std::string::npos) return 8;
        return 0;
    });
    KAVRO_SKIP_IF_NO_MOUNTS(rc);
    EXPECT_EQ(rc, 0);
}

}  // namespace
