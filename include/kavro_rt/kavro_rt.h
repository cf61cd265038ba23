/**
 * @file kavro_rt.h
 * @brief The whole interface of libkavro_rt.
 *
 * A process brings each family up with its `Init` operation and down with
 * its `Exit` operation (reference counted), creates objects through the
 * family's `Create` operations and receives opaque handles; nearly every
 * call returns a 32-bit status (status.h).
 *
 * Decisions:
 * - Live view (`kavro top`). A process publishes its threads, task locks,
 *   semaphores, mailboxes, named-pipe channels and tick statistics, about
 *   once a second, into /dev/shm/kavro_rt-<uid>/<pid>.top (directory 0755
 *   and file 0644, both owned by the process's user; a directory owned by
 *   anyone else or writable by group or others is refused with one line and
 *   nothing is published). Readers open the file read-only and can change
 *   nothing in the process. KAVRO_PUBLISH=0 in the environment turns
 *   publishing off: nothing is then registered or written anywhere.
 * - The snapshot is written by a thread of ordinary scheduling (nice 10,
 *   every signal blocked) that starts with the first published object;
 *   create and delete register and unregister objects, the hot paths only
 *   bump words they already write. The file goes when the process exits
 *   normally; after `_exit` or a kill it stays until the next `kavro top`
 *   (or the tool's cleaning of dead IPC objects) finds its process gone.
 * - A forked child publishes, as itself, only what it creates after the fork.
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
