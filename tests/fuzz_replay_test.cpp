// Every checked-in corpus file, crash inputs included, replayed through its target in the ordinary builds.
#include <filesystem>
#include <set>

#include "fuzz/fuzz_targets.hpp"
#include "test_support.hpp"

TEST(FuzzReplay, EveryTargetTakesItsCorpusAndTheEmptyInput) {
    using namespace kavro::fuzz;
    const std::pair<const char *, int (*)(const uint8_t *, size_t)> targets[] = {
        {"fuzz_registry", fuzz_registry},
        {"fuzz_sysconfig_clock", fuzz_sysconfig_clock},
        {"fuzz_proc_net_dev", fuzz_proc_net_dev},
        {"fuzz_version", fuzz_version},
        {"fuzz_format", fuzz_format}};
    for (const auto &[name, target] : targets) {
        std::set<std::filesystem::path> files;
        for (const auto &e : std::filesystem::directory_iterator(std::filesystem::path(KAVRO_FUZZ_CORPUS) / name))
            if (e.is_regular_file()) files.insert(e.path());
        EXPECT_GE(files.size(), 5u) << name;
        for (const auto &f : files) {
            std::fprintf(stderr, "replay %s\n", f.c_str());  // named first: a broken invariant ends the process
            const std::string bytes = kavro::test::read_file(f);
            const std::vector<uint8_t> data(bytes.begin(), bytes.end());  // exact: a read past it is caught
            EXPECT_EQ(target(data.data(), data.size()), 0) << f;
        }
        EXPECT_EQ(target(reinterpret_cast<const uint8_t *>(""), 0), 0) << name;
    }
}
