/**
 * @file kavro_rt.h
 * @brief The whole interface of libkavro_rt.
 *
 * A process brings each family up with its `Init` operation and down with
 * its `Exit` operation (reference counted), creates objects through the
 * family's `Create` operations and receives opaque handles; nearly every
 * call returns a 32-bit status (status.h).
 */
#ifndef KAVRO_RT_KAVRO_RT_H
#define KAVRO_RT_KAVRO_RT_H

#include "status.h"
#include "log.h"
#include "mem.h"
#include "smp.h"
#include "ulx.h"
#include "lst.h"
#include "thread.h"
#include "lck.h"
#include "sem.h"
#include "mbx.h"
#include "clock.h"
#include "report.h"
#include "tmr.h"
#include "cmos.h"
#include "err.h"
#include "ipc.h"
#include "fifo.h"
#include "poll.h"
#include "reg.h"
#include "ldr.h"
#include "kfile.h"
#include "net.h"
#include "version.h"
#include "format.h"
/* family headers: keep one line per family, in the order of the layers */

#endif /* KAVRO_RT_KAVRO_RT_H */
