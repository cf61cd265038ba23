/**
 * @file report.h
 * @brief Test-report printers: coloured pass/fail lines about system calls.
 *
 * Written in the manner of a test program: failures are printed in red on
 * standard error and counted in `global_error`; `MYperror` ends the process
 * with an end-of-test summary. The colour sequences are ESC "[1;31m" (red),
 * ESC "[1;33m" (yellow, a summary with no failures) and ESC "[0;39m" (back
 * to the default colour). "perror of t" below means the C library's
 * `perror(t)`: t, ": ", the message for the current errno and a newline.
 * Every printer except `printfx` and `printf2` ends by flushing standard
 * error and then standard output.
 *
 * The printers take no lock; they are meant for single-threaded test
 * programs and the timer engine's rare reports.
 *
 * Decisions:
 * - A NULL file name or text is printed as "(null)".
 * - The error number a printer reports is the one current when it is
 *   called, whatever its own writes do to errno.
 * - `printfx` with b = 0 prints nothing and returns -1 with errno EDOM; the
 *   quotient of INT32_MIN by -1 wraps to INT32_MIN (remainder 0).
 * - `printfx` and `printf2` with a NULL format print nothing and return -1.
 */
#ifndef KAVRO_RT_REPORT_H
#define KAVRO_RT_REPORT_H

#include "status.h"

#ifndef KAVRO_NORETURN
#if defined(__GNUC__)
#define KAVRO_NORETURN __attribute__((noreturn))
#else
#define KAVRO_NORETURN
#endif
#endif

KAVRO_BEGIN_DECLS

/** Number of failures reported so far; 0 at load, only ever incremented. */
KAVRO_API extern int32_t global_error;

/**
 * Report a failure without an error number: writes
 * "\e[1;31m<file>,<line>:<text>\e[0;39m" (no newline) and counts 1.
 *
 * @param file source file name
 * @param line source line
 * @param text what failed
 */
KAVRO_API void MYerror(const char *file, int32_t line, const char *text);

/**
 * Report a fatal failure of a call and end the process: writes
 * "\e[1;31m<file>,<line>:", perror of @p text and the reset sequence,
 * counts 1, then writes "End of test, <n> error(s) found.\n" (red when the
 * count is non-zero, else yellow) followed by the reset sequence, and ends
 * the process with `exit(global_error)`.
 *
 * @param file source file name
 * @param line source line
 * @param text the failed call
 */
KAVRO_API KAVRO_NORETURN void MYperror(const char *file, int32_t line, const char *text);

/**
 * Report a call that failed (errno holds its error). Writes
 * "expected <file>,<line>:" when @p expected is non-zero, else
 * "\e[1;31mUNEXPECTED <file>,<line>:", followed by perror of @p text.
 * When @p expected is positive and differs from errno, a second line
 * "\e[1;31mExpected: <message of expected>" follows, errno is left at
 * @p expected, 1 is counted and the reset sequence written. When @p expected
 * is 0, 1 is counted and the reset sequence written. A negative
 * @p expected accepts any error.
 *
 * @param expected the error that was expected; 0 when none was
 * @param file     source file name
 * @param line     source line
 * @param text     the call
 * @retval -1 @p expected is 0 (the failure was unexpected)
 * @retval 0  otherwise
 */
KAVRO_API int32_t MY_c_perror(int32_t expected, const char *file, int32_t line, const char *text);

/**
 * Report a call that succeeded. Writes "Cool <file>,<line>:<text>\n\e[0;39m"
 * when @p expected is 0; otherwise
 * "\e[1;31mERROR expected but not found <file>,<line>:<text>\n\e[0;39m",
 * and, when @p expected is positive and differs from errno, the lines
 * "Found   : Success" and "Expected: <message of expected>" (errno is left
 * at @p expected); then 1 is counted and the reset sequence written.
 *
 * @param expected the error that was expected; 0 when none was
 * @param file     source file name
 * @param line     source line
 * @param text     the call
 * @retval 0  @p expected is 0
 * @retval -1 an error was expected
 */
KAVRO_API int32_t No_error(int32_t expected, const char *file, int32_t line, const char *text);

/**
 * Print, on standard output, @p format with the quotient a / b and the
 * remainder a % b (truncating towards zero) as two int arguments.
 *
 * @param format printf format taking two ints
 * @param a      dividend
 * @param b      divisor
 * @return what `printf` returns
 * @retval -1 @p format is NULL, or @p b is 0 (errno EDOM)
 */
KAVRO_API int32_t printfx(const char *format, int32_t a, int32_t b);

/**
 * Print, on standard output, @p format with x / 1000, x % 1000, y / 1000 and
 * y % 1000 as four int arguments: two millisecond counts split into seconds
 * and milliseconds (the parts keep the sign of the value).
 *
 * @param format printf format taking four ints
 * @param x      first value, milliseconds
 * @param y      second value, milliseconds
 * @return what `printf` returns
 * @retval -1 @p format is NULL
 */
KAVRO_API int32_t printf2(const char *format, int32_t x, int32_t y);

KAVRO_END_DECLS

#endif /* KAVRO_RT_REPORT_H */
