/**
 * @file ulx.h
 * @brief `ULX_`: the Linux process layer (deadlines, daemonising).
 */
#ifndef KAVRO_RT_ULX_H
#define KAVRO_RT_ULX_H

#include <time.h>

#include "status.h"

/* Plain C99 <time.h> does not define it: declared here, so that the
   prototype below names the one file-scope type. */
struct timespec;

KAVRO_BEGIN_DECLS

/** Bring the process layer up. @retval 0 always. */
KAVRO_API int32_t ULX_Init(void);
/** Take the process layer down. @retval 0 always. */
KAVRO_API int32_t ULX_Exit(void);

/**
 * Turn a relative wait into an absolute wall-clock deadline (the clock that
 * `gettimeofday` reads), as the platform's timed waits expect.
 *
 * @param deadline     receives now + @p milliseconds, nanoseconds in 0..999,999,999
 * @param milliseconds the relative wait
 * @retval 0          stored
 * @retval KAVRO_E_INVALIDARG @p deadline is NULL
 */
KAVRO_API KAVRO_STATUS _ULX_MakeAbsTime(struct timespec *deadline, uint32_t milliseconds);

/**
 * Detach the process and make it a real-time daemon.
 *
 * Call once, first, from the main thread, before any other thread exists.
 * The parent process exits with status 0 (so does the caller when `fork`
 * fails). The child starts a new session, clears its file-creation mask,
 * puts "/dev/null" on descriptors 0-2, closes every other descriptor,
 * restores the default action of SIGINT, SIGQUIT, SIGHUP, SIGTERM, SIGTSTP
 * and SIGCHLD, asks for SCHED_FIFO 99 and locked memory (both best effort),
 * and from then on `GP_printf` writes to the system log.
 *
 * @retval 0          in the daemon
 * @retval KAVRO_E_FAIL "/dev/null" could not be opened (already detached)
 */
KAVRO_API KAVRO_STATUS ULX_Daemonize(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_ULX_H */
