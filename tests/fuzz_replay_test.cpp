// Every checked-in corpus file, crash inputs included, replayed through its target in the ordinary builds.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "fuzz/fuzz_targets.hpp"

namespace {

TEST(FuzzReplay, EveryTargetTakesItsCorpusAndTheEmptyInput) {
    const struct {
        const char *name;
        int (*target)(const uint8_t *, size_t);
    } targets[] = {{"fuzz_registry", kavro::fuzz::fuzz_registry},
                   {"fuzz_sysconfig_clock", kavro::fuzz::fuzz_sysconfig_clock},
                   {"fuzz_proc_net_dev", kavro::fuzz::fuzz_proc_net_dev},
                   {"fuzz_version", kavro::fuzz::fuzz_version},
                   {"fuzz_format", kavro::fuzz::fuzz_format}};
    for (const auto &t : targets) {
        std::vector<std::filesystem::path> files;
        for (const auto &e : std::filesystem::directory_iterator(std::filesystem::path(KAVRO_FUZZ_CORPUS) / t.name))
            if (e.is_regular_file()) files.push_back(e.path());
        std::sort(files.begin(), files.end());
        EXPECT_GE(files.size(), 5u) << t.name;
        for (const auto &f : files) {
            std::printf("replay %s\n", f.c_str());  // named first: a broken invariant ends the process
            std::fflush(stdout);
            std::ifstream in(f, std::ios::binary);
            const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
            // An exact heap copy, so that a read past the input is caught.
            const std::unique_ptr<uint8_t[]> data(new uint8_t[bytes.size() + 1]);
            std::copy(bytes.begin(), bytes.end(), data.get());
            EXPECT_EQ(t.target(data.get(), bytes.size()), 0) << f;
        }
        EXPECT_EQ(t.target(reinterpret_cast<const uint8_t *>(""), 0), 0) << t.name;
    }
}

}  // namespace
