// CMOS clock synchronisation: clock file, environment, writes and edge measurement via an emulated RTC.
#include "test_support.hpp"
#include "timer/cmos.hpp"
#include "timer/pacing.hpp"

namespace {
using namespace kavro::detail;
using namespace kavro::test;
using Env = std::vector<std::pair<std::string, std::string>>;

// run_captured in a zone three hours ahead of UTC, with the environment `env` set first.
ChildOutput in_child(Env env, const std::function<int()> &fn) {
    return run_captured([&] {
        env.emplace_back("TZ", "<+03>-3");
        for (const auto &[k, v] : env) setenv(k.c_str(), v.c_str(), 1);
        tzset();
        return fn();
    });
}
// In the child: a private /etc/sysconfig holding `text` as the clock file (none when null).
bool clock_file(const char *text) {
    std::string why;
    if (!private_mounts({"/etc/sysconfig"}, &why)) return std::fprintf(stderr, "%s\n", why.c_str()), false;
    return text == nullptr || write_file(kSysconfigClockPath, text);
}
int count_of(const std::string &text, const std::string &part, size_t from = 0) {
    const size_t p = text.find(part, from);
    return p == std::string::npos ? 0 : 1 + count_of(text, part, p + part.size());
}

TEST(ClockFile, ScanReadsPiecesAndSkipsTheUnterminatedLastLine) {
    using V = ClockFileVerdict;
    const std::pair<std::string, V> cases[] = {
        {"UTC=noyes\n", V::Utc},                        // true words are searched first
        {"UTC=maybe\nUTC=\nUTC=true", V::TagUnparsed},  // the last line lacks its newline
        {" UTC=true\n# UTC=true\n", V::NoTag},
        {std::string(79, 'x') + "UTC=no\n", V::Local},  // long lines: 79-character pieces, each alone
        {"UTC=yes" + std::string(72, ' '), V::Utc},
    };
    for (const auto &[text, verdict] : cases) EXPECT_EQ(scan_clock_text(text.data(), text.size()), verdict) << text;
}

// The clock file is read only when there is an interval; without a verdict it defaults to UTC, saying why.
TEST(CmosEnvironment, VariablesSetIntervalOffsetAndReport) {
    const char *kMin = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_MINUTES", *kSec = "TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE",
               *kOff = "TORVANEX_CMOS_CLOCK_UPDATE_CMOS_OFFSET_USEC";
    const std::string fn = "\nKAVRO:CMOS_GetEnvironment: ";
    const char *kNo = "UTC=no\n";
    const struct {
        Env env;
        const char *file;      // the clock file; none when null
        std::string out, err;  // out: interval offset afterwards; err: a part of the report ("" = silent)
    } cases[] = {
        {{{kSec, "0"}}, nullptr, "0 500000", ""},
        {{{kMin, "11"}, {kOff, "1000000"}}, kNo, "660 500000", "LOCAL" + fn + "UTC to LOCAL Delta=10800\n"},
        {{{kMin, "11"}, {kSec, "30"}}, kNo, "30 500000", "issues" + fn + "KMX CMOS UPDATE Interval =30 seconds\n"},
        {{{kMin, "11xyz"}, {kOff, "250000"}}, kNo, "660 250000", "KMX CMOS UPDATE OFFSET =250000 \n"},
        {{{kMin, "99999999999"}}, kNo, "2147483647 500000", "Interval =35791394 minutes\n"},
        {{{kMin, "1"}}, nullptr, "60 500000", "not found assuming CMOS in UTC" + fn + "CMOS clock in UTC\n"},
        {{{kMin, "1"}}, "UTC=maybe\n", "60 500000", "parse data - assuming UTC" + fn + "CMOS clock in UTC\n"},
        {{{kMin, "1"}}, "UTC=true", "60 500000", "UTC tag Assuming UTC" + fn + "CMOS clock in UTC\n"},
    };
    for (const auto &c : cases) {
        const ChildOutput r = in_child(c.env, [&] {
            if (!clock_file(c.file)) return kNoMounts;
            if (CMOS_GetEnvironment() != 0) return 1;
            return std::printf("%d %u", g_WriteIntervalTime_sec, g_TimeOffset_usec), 0;
        });
        KAVRO_SKIP_IF_NO_MOUNTS(r.status) << r.err;
        EXPECT_TRUE(r.out == c.out && r.err.find(c.err) != std::string::npos && (!c.err.empty() || r.err.empty()))
            << r.out << r.err;
    }
}

// On a descriptor where every RTC request fails: a failed reading counts no edge.
TEST(CmosWrite, PrintsAreCappedIntervalMismatchesWarnedAndFailuresReported) {
    const ChildOutput c = in_child({}, [] {
        const int fd = open("/dev/null", O_RDONLY);
        g_WriteIntervalTime_sec = 60;
        for (int i = 0; i < 12; ++i)
            if (Set_CMOS_From_OSTime(fd) != 0) return 1;
        return std::printf("%d", Read_CMOS_UntilChange(fd, 1) + Read_CMOS_UntilChange(fd, 0)), 0;
    });
    std::string counts;  // the prints stop at ten, the failures are reported each time
    for (const char *part : {"KAVRO:Read_CMOS_UntilChange: ", "Set_CMOS_From_OSTime: Error ", "CMOS RTC SET WARNING",
                             "KMX Setting CMOS clock now! ", "KMX No More CMOS Updates prints this run\n"})
        counts += std::to_string(count_of(c.err, part)) + " ";
    EXPECT_TRUE(c.out == "0" && counts == "2 12 10 10 1 ") << counts << c.err;
}

// A copy of this program started with KAVRO_CMOS_CLOCK_TEXT writes the CMOS clock once, then finds its seconds' turn.
[[gnu::constructor]] void run_driver_role() {
    if (std::getenv("KAVRO_CMOS_CLOCK_TEXT") == nullptr) return;
    if (!clock_file(std::getenv("KAVRO_CMOS_CLOCK_TEXT"))) _exit(kNoMounts);
    CMOS_GetEnvironment();
    const int fd = open("/dev/rtc", O_RDONLY);
    Set_CMOS_From_OSTime(fd);
    Read_CMOS_UntilChange(fd, 1);
    for (int i = 0; i < 3000 && Read_CMOS_UntilChange(fd, 0) == 0; ++i) usleep(1000);
    _exit(std::fflush(nullptr));
}

// A local and a UTC clock file: the write carries the zone's offset; the turn found is the write's restart, 500 ms on.
TEST(CmosEmulated, WriteCarriesTheZoneOffsetAndTheEdgeIsFound) {
    for (const auto &[delta, file] : {std::pair<int64_t, const char *>{10800, "UTC=no\n"}, {0, "UTC=yes\n"}}) {
        const ChildOutput c =
            in_child({{"TORVANEX_CMOS_CLOCK_UPDATE_RATE_PRIVATE", "60"},
                      {"KAVRO_CMOS_CLOCK_TEXT", file},
                      {"LD_PRELOAD", KAVRO_RTC_EMULATOR_PATH}},
                     [] { return execl("/proc/self/exe", "cmos", static_cast<char *>(nullptr)), 127; });
        KAVRO_SKIP_IF_NO_MOUNTS(c.status) << c.err;
        long long epoch = 0, wallSec = 0, wallUsec = 0, edge = 0;
        float average = 0;
        ASSERT_TRUE(c.status == 0 && std::sscanf(c.out.c_str(), "SET %lld wall=%lld.%lld\nDelta=%lld Average =%f micro",
                                                 &epoch, &wallSec, &wallUsec, &edge, &average) == 5)
            << file << c.out << c.err;
        // Written with its own second (or the one before, when the write straddled a boundary); the turn measured.
        const long long turn = (wallUsec + 500000) % 1000000;
        EXPECT_TRUE(epoch - wallSec >= delta - 1 && epoch - wallSec <= delta && static_cast<int>(average) == edge &&
                    (emulated() || std::abs(edge - (turn > 900000 ? turn - 1000000 : turn)) <= 50000))
            << c.out;
    }
}
}  // namespace
