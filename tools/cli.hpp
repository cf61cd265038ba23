// The pieces of the `kavro` operator tool that do not touch the system: the
// command line, the registry file's records and the output formats. Kept
// apart so that they are tested directly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "latency.hpp"

namespace kavro::cli {

enum class Command { Help, Version, RegGet, RegSet, RegList, Ipc, Latency };

struct Options {
    Command command = Command::Help;
    std::string topic;              // help: the command whose help is wanted ("" for all)
    std::vector<std::string> args;  // positional arguments of the command
    bool dword = false;             // reg set: the value is a REG_DWORD
    int seconds = 10;               // latency --seconds
    std::string svg, png, csv;      // latency output files
    bool quiet = false;             // latency --quiet: no live progress line
    bool idle = false;              // latency --idle: leave the CPU idle states alone
    std::string root;               // ipc --root DIR (default: $TRVXROOT)
    bool clean = false;             // ipc --clean
    bool dryRun = false;            // ipc --clean --dry-run
};

// Parses argv (without the program name) with getopt_long. On a usage error
// returns false and sets `error` to one line saying what is wrong.
bool parse(const std::vector<std::string> &argv, Options *out, std::string *error);

// The help text: of every command (topic "") or of one.
std::string usage(const std::string &topic = "");

// One record of the registry file, its four lines without their newlines.
struct RegRecord {
    std::string subkey, entry, type, value;
};

// Splits registry text into records. Returns false and says why when the
// text is not a registry (a NUL byte) or ends inside a record; `records`
// then holds the whole records before the fault.
bool parse_registry(const std::string &text, std::vector<RegRecord> *records, std::string *error);

// The record the library reads for subkey and entry: the first whose
// subkey and entry lines are the names or beginnings of them. Null if none.
const RegRecord *find_record(const std::vector<RegRecord> &records, const std::string &subkey,
                             const std::string &entry);

// What the latency pictures state besides the histogram.
struct RunInfo {
    std::string host, kernel, source, date;
    double seconds = 0;
};

// The lateness histogram as a picture: linear bins up to a little beyond the
// 99.9th percentile, the rest in one overflow bar, bar heights on a log
// scale so that rare late ticks stay visible, both axes labelled.
std::string render_svg(const kavro::tool::LatencyStats &stats, const RunInfo &info);
// The same picture as PNG into `path`; false (and errno-style text in
// `error`) when it cannot be written or PNG output is not built in.
bool write_png(const kavro::tool::LatencyStats &stats, const RunInfo &info, const std::string &path,
               std::string *error);
// The raw histogram: "lateness_us,ticks" rows for every non-empty bucket.
std::string render_csv(const kavro::tool::LatencyStats &stats);

}  // namespace kavro::cli
