/**
 * @file version.h
 * @brief `_libTorVersion2String`, `qLibVersionString`: readable version text
 *        from a component identity string.
 *
 * A component identity string names a release in fixed character positions,
 * for example the library's own "TXcid 01001000-060 libkavro_rt.so ":
 *
 * | Positions | Field                                             | Here            |
 * |-----------|---------------------------------------------------|-----------------|
 * | 0-4       | the tag "TXcid"                                   | TXcid           |
 * | 5         | separator                                         |                 |
 * | 6         | release kind, 0 to 4                              | 0               |
 * | 7         | major version digit                               | 1               |
 * | 8-9       | minor version, two digits                         | 00              |
 * | 10-11     | release number, two decimal digits                | 10              |
 * | 12-13     | release sub-number, two characters                | 00              |
 * | 14        | separator                                         | -               |
 * | 15-       | build label, up to the next blank or the end      | 060             |
 * | next      | one separator, skipped                            |                 |
 * | then      | module name, up to a blank or the end, 32 at most | libkavro_rt.so  |
 * | rest      | from the character that ended the module name     | a blank         |
 *
 * The version text v is "major.minor" (1.00), the release number n is
 * positions 10-11 read as a decimal number, the sub-number s is positions
 * 12-13 as text. The release kinds print as "v " (0, release), "v Beta n"
 * (1), "v Alpha n.s" (2), "v Exp n.s" (3, experimental) and "v Spec n" (4,
 * special).
 *
 * Decisions of this library:
 * - An identity string is read no further than its first
 *   KAVRO_VERSION_ID_MAX characters. One with no terminator within them, or
 *   one shorter than its 15 fixed characters (the bare tag among them), is
 *   refused: the result is -1 and nothing is written.
 * - A release kind outside 0 to 4 has no text: the forms that print the kind
 *   refuse the string (-1, nothing written); forms 2, 3 and 4 still work.
 * - Because the identity string is bounded, every text fits in a buffer of
 *   KAVRO_VERSION_TEXT_SIZE bytes, terminator included.
 * - The KAVRO_RT_VERSION_ macros give the package version at compile time.
 *   Its major and minor numbers are those of the library's identity string
 *   (1.00 is 1.0); the build refuses to configure when the two disagree.
 */
#ifndef KAVRO_RT_VERSION_H
#define KAVRO_RT_VERSION_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** @name Version of these headers (the package version; the build reads it from here) */
/**@{*/
#define KAVRO_RT_VERSION_MAJOR  1
#define KAVRO_RT_VERSION_MINOR  0
#define KAVRO_RT_VERSION_PATCH  0
#define KAVRO_RT_VERSION_STRING "1.0.0"
/** One number that orders versions: MAJOR * 10000 + MINOR * 100 + PATCH. */
#define KAVRO_RT_VERSION_NUMBER (KAVRO_RT_VERSION_MAJOR * 10000 + KAVRO_RT_VERSION_MINOR * 100 + KAVRO_RT_VERSION_PATCH)
/**@}*/

/** Longest identity string accepted, in characters (terminator excluded). */
#define KAVRO_VERSION_ID_MAX 224
/** A buffer of this many bytes holds every version text. */
#define KAVRO_VERSION_TEXT_SIZE 256

/** @name Forms of the version text */
/**@{*/
#define KAVRO_VERSION_KIND  0 /**< the release kind's text: "1.00 " */
#define KAVRO_VERSION_FULL  1 /**< the kind's text and " Build: <label>": "1.00  Build: 060" */
#define KAVRO_VERSION_BUILD 2 /**< "Build: <label>" */
#define KAVRO_VERSION_NAME  3 /**< the module name */
#define KAVRO_VERSION_REST  4 /**< what follows the module name, from its ending character */
/**@}*/

/**
 * Turn an identity string into version text.
 *
 * Forms other than 1 to 4 write the release kind's text alone, as form 0.
 *
 * @param id   the identity string
 * @param form one of the KAVRO_VERSION_ forms
 * @param out  receives the zero-terminated text; KAVRO_VERSION_TEXT_SIZE
 *             bytes always suffice
 * @retval 0  the text is in @p out
 * @retval -1 @p id or @p out is null, or @p id is refused (see above);
 *            @p out is untouched
 */
KAVRO_API int32_t _libTorVersion2String(const char *id, int32_t form, char *out);

/**
 * The library's own version text, form 1 of its identity string:
 * "1.00  Build: 060" (two blanks: one ends the release text, one opens the
 * build suffix).
 *
 * @param out receives the text; KAVRO_VERSION_TEXT_SIZE bytes suffice
 * @retval 0  the text is in @p out
 * @retval -1 @p out is null
 */
KAVRO_API int32_t qLibVersionString(char *out);

KAVRO_END_DECLS

#endif /* KAVRO_RT_VERSION_H */
