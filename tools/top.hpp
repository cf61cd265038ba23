// `kavro top`: the live view of every process that uses the library, read
// from the snapshots the processes publish (see frame/publish.hpp).
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace kavro::top {

// Removes the snapshots of processes that are gone, from every snapshot
// directory the caller may write; reports each on `out` when it is not
// null ("<pid> <command> gone, snapshot removed"). Returns how many.
int remove_dead_snapshots(std::FILE *out);

// kavro top [--once] [--json] [--pid N]; args without the word "top".
// Returns the exit status.
int run(const std::vector<std::string> &args);

}  // namespace kavro::top
