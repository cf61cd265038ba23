/**
 * @file format.h
 * @brief `GP_sprintf`, `GP_vsprintf`, `GP_vprintf`: the library's own
 *        printf dialect.
 *
 * A small formatter that does not use the C library's: it parses the format
 * itself and stores one character at a time. Its dialect differs from the
 * standard one, and those differences are its contract:
 *
 * - A conversion is `%[-][0][#0...][width][l|L]conv`. The single `0` right
 *   after `%` (or after `-`) is skipped and means nothing: `%08x` pads with
 *   spaces. A `0` after that (`%008x`, `%#005x`) turns the width into a
 *   minimum digit count: the number is zero-filled to that many characters
 *   (sign and prefix included) and the field width becomes 0.
 * - Padding is always with spaces: before the text, or after it with `-`.
 * - d, i (signed), u, x, X, o (unsigned) take a 32-bit argument; hexadecimal
 *   digits are lower case for X too. `#` adds the prefix "0x" (x), "0X" (X)
 *   or "0" (o), also to the value 0; it counts against the minimum digit
 *   count. `l` and `L` are ignored (there are no 64-bit conversions).
 * - c prints the argument's low byte; s prints the whole string, "(null)"
 *   for a null pointer.
 * - f takes a double and prints it with exactly four fraction digits,
 *   truncated, not rounded (3.14159 prints 3.1415, -2.5 prints -2.5000).
 *   Values whose magnitude exceeds 2147483647 (infinities included) print
 *   "(error)", with no padding in front (with `-`, the whole width follows
 *   it). A NaN prints "nan", padded like any other text.
 * - There is no precision: `.` is a conversion character like any other
 *   unknown one, which prints itself and takes no argument (`%.2f` prints
 *   ".2f"; `%%` prints "%").
 *
 * Decisions of this library:
 * - The minimum digit count is capped at 16, the longest numeric text the
 *   engine renders: `%0030d` prints what `%0016d` prints. Widths saturate at
 *   65535.
 * - A format that ends inside a conversion (`"abc%"`, `"%-0#5"`) ends there:
 *   the incomplete conversion prints nothing and takes no argument.
 *
 * None of the operations reports a character count. The destination is not
 * bounded: the caller provides room for the whole text and its terminating
 * zero byte. Safe from any thread (no shared state).
 */
#ifndef KAVRO_RT_FORMAT_H
#define KAVRO_RT_FORMAT_H

#include <stdarg.h>

#include "status.h"

KAVRO_BEGIN_DECLS

/**
 * Format into a buffer and terminate the text with a zero byte.
 *
 * A null format writes nothing at all, not even the terminator; a null
 * destination consumes the arguments as `GP_vprintf` does and writes
 * nothing.
 *
 * @param dst    destination, large enough for the text and its terminator
 * @param format format in the dialect described above
 */
KAVRO_API void GP_sprintf(char *dst, const char *format, ...);

/**
 * `GP_sprintf` with an argument list.
 *
 * @param dst    destination, large enough for the text and its terminator
 *               (null: nothing is written)
 * @param format format in the dialect described above (null: nothing is
 *               written, not even the terminator)
 * @param args   the arguments, consumed as the format asks
 */
KAVRO_API void GP_vsprintf(char *dst, const char *format, va_list args);

/**
 * Walk a format and consume its arguments without writing anything
 * anywhere. Nothing the arguments point to is read (s arguments need not be
 * valid strings).
 *
 * @param format format in the dialect described above (null: returns at once)
 * @param args   the arguments
 */
KAVRO_API void GP_vprintf(const char *format, va_list args);

KAVRO_END_DECLS

#endif /* KAVRO_RT_FORMAT_H */
