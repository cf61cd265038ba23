// The pieces of the `kavro` operator tool that do not touch the system:
// the command line and the output formats. Kept apart so they are tested
// directly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "latency.hpp"

namespace kavro::cli {

enum class Command { Help, Version, RegGet, RegSet, RegList, Ipc, Latency };

struct Options {
    Command command = Command::Help;
    std::vector<std::string> args;  // positional arguments of the command
    bool dword = false;             // reg get/set: the value is a REG_DWORD
    int seconds = 10;               // latency --seconds
    std::string svg;                // latency --svg FILE
    bool quiet = false;             // latency --quiet: no live progress line
    bool idle = false;              // latency --idle: leave the CPU idle states alone
    std::string root;               // ipc --root DIR (default: $TRVXROOT)
};

// Parses argv (without the program name). On a usage error returns false
// and sets `error` to one line saying what is wrong.
bool parse(const std::vector<std::string> &argv, Options *out, std::string *error);

// The help text.
std::string usage();

// The lateness histogram as a self-contained SVG picture: linear bins up to
// a little beyond the 99.9th percentile, the rest in one overflow bar, bar
// heights on a log scale so that rare late ticks stay visible.
std::string render_svg(const kavro::tool::LatencyStats &stats, const std::string &title);

}  // namespace kavro::cli
