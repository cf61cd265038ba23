/**
 * @file err.h
 * @brief `err_*`: report an error line, then return or end the process.
 *
 * Five printf-style operations share one formatter. Each formats its
 * message into a 1024-byte line (longer text is cut) and then:
 *
 * - always writes the message followed by " \n" to standard output;
 * - before the process has daemonised (`PEL_daemonized` is 0): flushes
 *   standard output and writes the line to standard error, followed by ": "
 *   and the text of the error number that was current at the call (for
 *   `err_sys` and `err_dump` only) and a newline;
 * - after daemonising: hands that same line to the system log, at LOG_INFO
 *   for `err_ret` and `err_msg`, at LOG_ERR for the other three.
 *
 * The calls take no lock and never fail; the error number seen by the caller
 * is the one it had before the call. The library itself reports failing
 * system calls of its inter-process families through `err_ret`.
 *
 * Decision: a NULL format is taken as an empty message.
 */
#ifndef KAVRO_RT_ERR_H
#define KAVRO_RT_ERR_H

#include "status.h"

#if defined(__GNUC__)
#define KAVRO_NORETURN __attribute__((noreturn))
#else
#define KAVRO_NORETURN
#endif

KAVRO_BEGIN_DECLS

/**
 * Report a non-fatal error (typically a failed system call) and return.
 * System-log priority LOG_INFO; no error text is appended.
 *
 * @param format printf-style format of the message, then its arguments
 */
KAVRO_API void err_ret(const char *format, ...) KAVRO_PRINTF(1, 2);

/**
 * Report a non-fatal message and return.
 * System-log priority LOG_INFO; no error text is appended.
 *
 * @param format printf-style format of the message, then its arguments
 */
KAVRO_API void err_msg(const char *format, ...) KAVRO_PRINTF(1, 2);

/**
 * Report a fatal error unrelated to a system call and end the process with
 * `exit(1)` (at-exit handlers run, streams are flushed).
 * System-log priority LOG_ERR; no error text is appended.
 *
 * @param format printf-style format of the message, then its arguments
 */
KAVRO_API KAVRO_NORETURN void err_quit(const char *format, ...) KAVRO_PRINTF(1, 2);

/**
 * Report a fatal system-call failure, with the text of the current error
 * number, and end the process with `exit(1)`.
 * System-log priority LOG_ERR.
 *
 * @param format printf-style format of the message, then its arguments
 */
KAVRO_API KAVRO_NORETURN void err_sys(const char *format, ...) KAVRO_PRINTF(1, 2);

/**
 * Report a fatal system-call failure, with the text of the current error
 * number, and end the process abnormally with `abort()` (a core dump where
 * the system allows one).
 * System-log priority LOG_ERR.
 *
 * @param format printf-style format of the message, then its arguments
 */
KAVRO_API KAVRO_NORETURN void err_dump(const char *format, ...) KAVRO_PRINTF(1, 2);

KAVRO_END_DECLS

#endif /* KAVRO_RT_ERR_H */
