// Every checked-in fuzz corpus file, crash inputs found earlier included,
// replayed through its fuzz target in the ordinary builds: the parsers stay
// free of the faults the fuzzer found, on both architectures and under the
// sanitizers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "fuzz/fuzz_targets.hpp"

namespace {

namespace fs = std::filesystem;

using Target = int (*)(const uint8_t *, size_t);

// Replays the corpus of one target; returns the number of files replayed.
size_t replay(const char *name, Target target) {
    const fs::path dir = fs::path(KAVRO_FUZZ_CORPUS) / name;
    std::vector<fs::path> files;
    for (const auto &e : fs::directory_iterator(dir))
        if (e.is_regular_file()) files.push_back(e.path());
    std::sort(files.begin(), files.end());
    for (const auto &f : files) {
        // Named first: a crash ends the process, and this line says where.
        std::printf("replay %s\n", f.c_str());
        std::fflush(stdout);
        std::ifstream in(f, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        // An exact heap copy, so that a read past the input is caught.
        auto *data = new uint8_t[bytes.size() + 1];
        std::copy(bytes.begin(), bytes.end(), data);
        EXPECT_EQ(target(data, bytes.size()), 0) << f;
        delete[] data;
    }
    // The empty input is part of every target's domain.
    EXPECT_EQ(target(reinterpret_cast<const uint8_t *>(""), 0), 0);
    return files.size();
}

TEST(FuzzReplay, Registry) { EXPECT_GE(replay("fuzz_registry", kavro::fuzz::fuzz_registry), 5u); }
TEST(FuzzReplay, SysconfigClock) { EXPECT_GE(replay("fuzz_sysconfig_clock", kavro::fuzz::fuzz_sysconfig_clock), 5u); }
TEST(FuzzReplay, ProcNetDev) { EXPECT_GE(replay("fuzz_proc_net_dev", kavro::fuzz::fuzz_proc_net_dev), 5u); }
TEST(FuzzReplay, Version) { EXPECT_GE(replay("fuzz_version", kavro::fuzz::fuzz_version), 5u); }
TEST(FuzzReplay, Format) { EXPECT_GE(replay("fuzz_format", kavro::fuzz::fuzz_format), 5u); }

}  // namespace
