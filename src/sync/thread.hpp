// Internals of the thread family that the task lock and the tests reach.
#pragma once

#include <cstdint>

#include "kavro_rt/thread.h"

namespace kavro::detail {

// The calling thread's record; null for a foreign thread or while the
// thread family is down. What THREAD_Self stores, without the checks.
ThreadObj *thread_self();

// Records the task lock the thread is about to wait for (null: none), for `kavro top`.
void thread_set_waiting(ThreadObj *obj, const void *lock);

// Number of thread records alive (created and not yet released).
uint32_t thread_live_count();

}  // namespace kavro::detail
