/**
 * @file reg.h
 * @brief `REG_`: typed values by subkey and entry name, kept in a text file.
 *
 * The registry is the file "/usr/torvanex/cfg/.registry": records of exactly
 * four lines each (subkey, entry name, type word, value), nothing between
 * them. The type words are "REG_SZ" (a string), "REG_DWORD" (an unsigned
 * 32-bit number) and "REG_BINARY" (recognised, not supported). Every line
 * is read with a 255-byte buffer, so a line holds at most 253 characters
 * before its newline; a longer, blank or missing line shifts the four-line
 * grouping of everything after it.
 *
 * Reading (`REG_GetValue`) matches the subkey, entry and type lines by
 * prefix: a file line matches when, without its last character (the
 * newline), it is the wanted name or a beginning of it ("Tmr" matches the
 * wanted subkey "TmrConfig"; an empty line matches anything). The first
 * matching record wins. A string value is the first word of the value line;
 * a DWORD value line is read as HEXADECIMAL digits, while `REG_SetValue`
 * writes DWORDs in decimal: a DWORD written as 10 reads back as 16.
 *
 * Writing (`REG_SetValue`) finds the record whose subkey and entry lines
 * have the names as their first word, replaces its type and value lines and
 * keeps every other line byte for byte, in order; a missing record is added
 * at the end. The registry must exist: neither operation creates it.
 *
 * Decisions of this implementation:
 * - Replacing the file never loses the registry: the new content goes to
 *   "/usr/torvanex/cfg/.registry.1", is flushed to disk and renamed over
 *   the registry in one step (the old file's permissions are kept). A
 *   crash, a full disk or any failed write leaves the old registry whole
 *   and the call returns KAVRO_E_FAIL; readers see the old or the new file,
 *   never a mixture.
 * - A refused type code (3, or an unknown code) leaves the registry exactly
 *   as it was.
 * - `REG_SetValue` takes an advisory lock on the registry while it
 *   replaces it, so writers in several threads or processes follow one
 *   another instead of losing updates (a writer waits up to 10 s, then
 *   fails). Readers need no lock.
 * - `REG_SetValue` refuses (KAVRO_E_INVALIDARG) names that could not be found
 *   again: an empty subkey or entry, one containing white space, and a name
 *   or string value longer than 253 characters or holding a newline.
 * - A new record is not added behind a last record that is incomplete
 *   (the file ends inside a record): it would not read back. The call
 *   fails with KAVRO_E_FAIL and the file stays as it was.
 * - The value size of `REG_GetValue` must not be NULL; it is read, never
 *   written. A size of 0 sets no bound, so a caller that states none gets
 *   its value: the buffer must then hold any value (KAVRO_REG_VALUE_MAX
 *   bytes for a string, 4 for a DWORD). A non-zero size is the buffer's
 *   capacity in bytes, and a value that does not fit (a string needs its
 *   length plus the terminator, a DWORD 4 bytes) is refused with
 *   KAVRO_E_INVALIDARG instead of overrunning the buffer.
 * - No operation leaves the file open, so `REG_Exit` has nothing to close
 *   (also when the temporary file could not be created).
 * - An empty value line reads as "" (REG_SZ) or 0 (REG_DWORD, also when
 *   the line has no hexadecimal digits). A DWORD above 0xFFFFFFFF reads as
 *   0xFFFFFFFF.
 */
#ifndef KAVRO_RT_REG_H
#define KAVRO_RT_REG_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** @name Value type codes of REG_SetValue */
/**@{*/
#define KAVRO_REG_SZ     1u /**< "REG_SZ": the value is a NUL-terminated string */
#define KAVRO_REG_BINARY 3u /**< "REG_BINARY": not supported */
#define KAVRO_REG_DWORD  4u /**< "REG_DWORD": the value points to a uint32_t */
/**@}*/

/** Most bytes a value read by REG_GetValue takes: a string of 254 characters and its terminator. */
#define KAVRO_REG_VALUE_MAX 255u

/**
 * Count a user of the family. Nothing else is needed before use.
 * @retval 1 always
 */
KAVRO_API int32_t REG_Init(void);

/**
 * Count a user off.
 * @retval 0 always (no operation leaves the registry file open)
 */
KAVRO_API int32_t REG_Exit(void);

/**
 * Read a value.
 *
 * @param phKey        key handle; must be NULL
 * @param pstrSubkey   subkey wanted
 * @param pstrEntry    entry name wanted
 * @param pValue       receives the value: a NUL-terminated string (first
 *                     word of the value line) or a uint32_t
 * @param pdwValueSize capacity of @p pValue in bytes, or 0 for no bound (see
 *                     Decisions); not written
 * @retval 0          the value was stored
 * @retval KAVRO_E_INVALIDARG @p pstrSubkey, @p pstrEntry or @p pdwValueSize is NULL
 *                    (with a line); @p pValue is NULL; or the value does not
 *                    fit a non-zero size (a string then becomes "")
 * @retval KAVRO_E_NOTIMPL @p phKey is not NULL (with a line); no record matches
 *                    (no line); the value is a REG_BINARY (with a line)
 * @retval KAVRO_E_FAIL the registry cannot be opened or read; the type line
 *                    of the matching record is not a known word (with a line)
 */
KAVRO_API KAVRO_STATUS REG_GetValue(void *phKey, const char *pstrSubkey, const char *pstrEntry, void *pValue,
                                    uint32_t *pdwValueSize);

/**
 * Write a value, adding its record at the end of the registry when it is
 * missing. All other lines are kept byte for byte, in order.
 *
 * @param hKey         key handle; ignored
 * @param pstrSubkey   subkey: 1 to 253 characters, no white space
 * @param pstrEntry    entry name: 1 to 253 characters, no white space
 * @param dwType       KAVRO_REG_SZ or KAVRO_REG_DWORD
 * @param pValue       the string (up to 253 characters, no newline), or a
 *                     pointer to the uint32_t, written in decimal
 * @param pdwValueSize must not be NULL; not otherwise read
 * @retval 0          the registry now holds the value
 * @retval KAVRO_E_INVALIDARG a pointer argument is NULL; a name or the string is
 *                    refused (see above; with a line)
 * @retval KAVRO_E_NOTIMPL @p dwType is 3 (REG_BINARY); registry unchanged
 * @retval KAVRO_E_FAIL @p dwType is unknown (registry unchanged); the registry
 *                    is missing, unreadable or ends inside a record; the
 *                    temporary file cannot be made, written, flushed or
 *                    renamed (registry unchanged); another writer held the
 *                    registry for 10 s
 */
KAVRO_API KAVRO_STATUS REG_SetValue(void *hKey, const char *pstrSubkey, const char *pstrEntry, uint32_t dwType,
                                    const void *pValue, uint32_t *pdwValueSize);

/**
 * Delete an entry: not implemented; the registry is not touched.
 *
 * @param hKey       key handle; ignored
 * @param pstrSubkey subkey
 * @param pstrEntry  entry name
 * @retval KAVRO_E_INVALIDARG @p pstrSubkey or @p pstrEntry is NULL
 * @retval KAVRO_E_NOTIMPL otherwise
 */
KAVRO_API KAVRO_STATUS REG_DeleteEntry(void *hKey, const char *pstrSubkey, const char *pstrEntry);

KAVRO_END_DECLS

#endif /* KAVRO_RT_REG_H */
