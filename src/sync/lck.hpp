// Internals of the task-lock family that the tests reach.
#pragma once

#include <cstdint>

#include "kavro_rt/lck.h"

namespace kavro::detail {

// The default lock and the second lock (null before the first LCK_Init), and
// the family's reference count.
LckObj *lck_first_lock();
LckObj *lck_lock2();
int32_t lck_refs();

}  // namespace kavro::detail
