// The CMOS write pacing, shared by the two timer families that meet at the
// RTC: the CMOS family sets it from the environment (CMOS_GetEnvironment)
// and decides when a write is due; the timer engine's CMOS thread, woken by
// each RTC interrupt, follows it.
#pragma once

#include <cstdint>

namespace kavro::detail {

// Seconds between CMOS writes; 0 = no writes.
extern int32_t g_WriteIntervalTime_sec;
// Microsecond of the wall-clock second at or after which a write is made.
extern uint32_t g_TimeOffset_usec;

inline constexpr uint32_t kDefaultCmosOffsetUsec = 500000;

// Whether a write is due now; updates *periodStartSec. Pure.
bool cmos_write_due(uint32_t *periodStartSec, uint32_t monoSec, uint32_t wallUsec, int32_t intervalSec,
                    uint32_t offsetUsec);

}  // namespace kavro::detail
