// Internals of the thread family that its tests reach.
#pragma once

#include <cstdint>

namespace kavro::detail {

// Number of thread records alive (created and not yet released).
uint32_t thread_live_count();

}  // namespace kavro::detail
