// Reading a value from a 1000-record registry, against a plain stdio
// reader of the same records (fopen, fgets line by line, prefix compare).
//
// The registry lives at a fixed path under /usr/torvanex: when the process
// may make a private mount namespace, a tmpfs is put over that directory and
// REG_GetValue itself is measured; otherwise the same reader runs on a
// scratch file through the internal entry point.
#include <benchmark/benchmark.h>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "kavro_rt/reg.h"
#include "util/reg.hpp"

namespace {

constexpr int kRecords = 1000;
std::string g_path = "/usr/torvanex/cfg/.registry";
bool g_fixed_path = false;

std::string name(const char *what, int i) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%s%04d", what, i);
    return buf;
}

bool make_registry() {
    if (unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        (mkdir("/usr/torvanex", 0755) == 0 || errno == EEXIST) &&
        mount("tmpfs", "/usr/torvanex", "tmpfs", 0, "mode=0755") == 0 && mkdir("/usr/torvanex/cfg", 0755) == 0) {
        g_fixed_path = true;
    } else {
        char tmpl[] = "/tmp/kavro-reg-bench-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return false;
        g_path = std::string(tmpl) + "/.registry";
    }
    FILE *f = std::fopen(g_path.c_str(), "w");
    if (f == nullptr) return false;
    for (int i = 0; i < kRecords; ++i)
        std::fprintf(f, "%s\n%s\nREG_DWORD\n%x\n", name("Subkey", i).c_str(), name("Entry", i).c_str(), i);
    return std::fclose(f) == 0;
}

KAVRO_STATUS get(const char *sub, const char *entry, uint32_t *v) {
    uint32_t size = sizeof *v;
    if (g_fixed_path) return REG_GetValue(nullptr, sub, entry, v, &size);
    return kavro::detail::reg_get_file(g_path.c_str(), sub, entry, v, size);
}

// The straightforward reader: four fgets per record, prefix compare, sscanf.
KAVRO_STATUS get_fgets(const char *sub, const char *entry, uint32_t *v) {
    FILE *f = std::fopen(g_path.c_str(), "r");
    if (f == nullptr) return KAVRO_E_FAIL;
    char l1[255], l2[255], l3[255], l4[255];
    KAVRO_STATUS st = KAVRO_E_NOTIMPL;
    const size_t sl = std::strlen(sub), el = std::strlen(entry);
    while (std::fgets(l1, sizeof l1, f) && std::fgets(l2, sizeof l2, f) && std::fgets(l3, sizeof l3, f) &&
           std::fgets(l4, sizeof l4, f)) {
        const size_t n1 = std::strlen(l1) - 1, n2 = std::strlen(l2) - 1;
        if (n1 > sl || std::strncmp(l1, sub, n1) != 0 || n2 > el || std::strncmp(l2, entry, n2) != 0) continue;
        unsigned long x = 0;
        std::sscanf(l4, "%lx", &x);
        *v = static_cast<uint32_t>(x);
        st = KAVRO_OK;
        break;
    }
    std::fclose(f);
    return st;
}

template <KAVRO_STATUS (*Fn)(const char *, const char *, uint32_t *)>
void lookup(benchmark::State &state, int which) {
    const std::string sub = name("Subkey", which), entry = name("Entry", which);
    uint32_t v = 0;
    for (auto _ : state) {
        if (Fn(sub.c_str(), entry.c_str(), &v) != KAVRO_OK || v != static_cast<uint32_t>(which)) {
            state.SkipWithError("lookup failed");
            break;
        }
        benchmark::DoNotOptimize(v);
    }
}

void set_value(benchmark::State &state) {
    uint32_t v = 0, size = 4;
    const std::string sub = name("Subkey", 500), entry = name("Entry", 500);
    const std::string tmp = g_path + ".1";
    for (auto _ : state) {
        ++v;
        const KAVRO_STATUS st = g_fixed_path
                                    ? REG_SetValue(nullptr, sub.c_str(), entry.c_str(), KAVRO_REG_DWORD, &v, &size)
                                    : kavro::detail::reg_set_file(g_path.c_str(), tmp.c_str(), sub.c_str(),
                                                                  entry.c_str(), KAVRO_REG_DWORD, &v);
        if (st != KAVRO_OK) {
            state.SkipWithError("set failed");
            break;
        }
    }
}

}  // namespace

int main(int argc, char **argv) {
    if (!make_registry()) {
        std::fprintf(stderr, "cannot make the registry\n");
        return 1;
    }
    std::fprintf(stderr, "registry: %s (%s)\n", g_path.c_str(),
                 g_fixed_path ? "REG_GetValue, private mount" : "internal entry point, scratch file");
    benchmark::RegisterBenchmark("reg.get.last_of_1000/kavro", lookup<get>, kRecords - 1)->MinTime(0.2);
    benchmark::RegisterBenchmark("reg.get.last_of_1000/ref:fgets", lookup<get_fgets>, kRecords - 1)->MinTime(0.2);
    benchmark::RegisterBenchmark("reg.get.first_of_1000/kavro", lookup<get>, 0)->MinTime(0.2);
    benchmark::RegisterBenchmark("reg.get.first_of_1000/ref:fgets", lookup<get_fgets>, 0)->MinTime(0.2);
    // Rewrites the whole file and flushes it to disk each time; the figure
    // depends on the file system (a tmpfs under a private mount).
    benchmark::RegisterBenchmark("reg.set.1000/kavro", set_value)->MinTime(0.2);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    if (!g_fixed_path) {
        const std::string dir = g_path.substr(0, g_path.rfind('/'));
        std::remove(g_path.c_str());
        rmdir(dir.c_str());
    }
    return 0;
}
