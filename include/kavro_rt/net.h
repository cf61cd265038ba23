/**
 * @file net.h
 * @brief `NET_`: enumerating the network interfaces that are up and have an
 *        IPv4 address, and reading an interface's hardware address.
 *
 * `NET_Init` reads the interface names of the calling process's network
 * namespace from /proc/net/dev into a process-wide list (at most 1024 names
 * of at most 31 characters, in the file's order, without lo) and rewinds a
 * cursor. Each `NET_GetInterface` call walks from the cursor to the next
 * interface that is up and has an IPv4 address, and hands out a record
 * naming it. `NET_GetMacAddress` gives a record's hardware address as text.
 *
 * The list and the cursor are shared by the whole process and not locked:
 * enumerate from one thread at a time, and never call `NET_Init` while
 * another thread walks. The family has no exit operation.
 *
 * Decisions of this library:
 * - Every `NET_Init` (and `_getDeviceList`) replaces the whole list: names
 *   of an earlier, longer list never reappear, and when /proc/net/dev cannot
 *   be read the list is left empty.
 * - A line of /proc/net/dev is read whole, however long; its name must end
 *   with ':' within 31 characters (blanks do not count). Names beyond the
 *   1024th are ignored.
 * - Names longer than 15 characters cannot name a kernel interface: the
 *   walk skips them and `NET_GetMacAddress` refuses them.
 * - Records come from `KAVRO_OBJ_Alloc`; the caller releases each one with
 *   `KAVRO_OBJ_Free(record, 0)`. `NET_GetInterface` writes `*record` only
 *   when it examines an interface, so a caller that sets `*record` to NULL
 *   before each call owns any non-null `*record` after it.
 * - `NET_GetMacAddress` reports a failed query with KAVRO_E_FAIL and an empty
 *   text (48 zero bytes) instead of success with no text.
 */
#ifndef KAVRO_RT_NET_H
#define KAVRO_RT_NET_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** Size of an interface name field, terminator included. */
#define KAVRO_NET_NAME_SIZE 32
/** Size of the text buffer of `NET_GetMacAddress`. */
#define KAVRO_NET_MAC_TEXT_SIZE 48

/** An interface handed out by `NET_GetInterface`. */
typedef struct InterfaceRecord {
    uint32_t tag;                   /**< KAVRO_TAG_NET (0x2434A432) */
    char name[KAVRO_NET_NAME_SIZE]; /**< the interface name, zero-terminated */
} InterfaceRecord;

/**
 * Read the interface list and rewind the cursor.
 *
 * @retval 0          the list holds at least one interface other than lo
 * @retval KAVRO_E_FAIL /proc/net/dev cannot be opened, or lists no interface
 *                    but lo (the list is then empty)
 */
KAVRO_API KAVRO_STATUS NET_Init(void);

/**
 * Read the interface names from /proc/net/dev into the list, without
 * touching the cursor.
 *
 * @return the index of the last name stored (number of names minus 1): -1
 *         when the file cannot be opened or lists no name but lo
 */
KAVRO_API int32_t _getDeviceList(void);

/**
 * Hand out the next interface, from the cursor on, that has an IPv4 address
 * and is up; interfaces that are down or have no IPv4 address are passed
 * over (and the cursor with them).
 *
 * @param record receives the new record. Left as it was when the call fails
 *               before examining an interface (end of the list, out of
 *               memory); on a failure after an interface was examined it
 *               holds a record naming that interface, the caller's to free.
 * @retval 0          @p record names the interface
 * @retval KAVRO_E_FAIL no further usable interface, out of memory, or no
 *                    socket could be opened
 * @retval KAVRO_E_INVALIDARG @p record is null
 */
KAVRO_API KAVRO_STATUS NET_GetInterface(InterfaceRecord **record);

/**
 * Not supported: always stores NULL.
 *
 * @param record receives NULL (when not null itself)
 * @retval KAVRO_E_FAIL always
 */
KAVRO_API KAVRO_STATUS NET_GetNextInterface(InterfaceRecord **record);

/**
 * The hardware address of an interface as text: six bytes as two upper-case
 * hexadecimal digits each, separated by colons ("00:1A:2B:3C:4D:5E"),
 * followed by zero bytes up to 48 characters. The record is not checked
 * for its tag: any record holding a name will do.
 *
 * @param record the interface (only its name is used)
 * @param text   buffer of KAVRO_NET_MAC_TEXT_SIZE (48) characters
 * @retval 0          @p text holds the address
 * @retval KAVRO_E_INVALIDARG @p record is null
 * @retval KAVRO_E_FAIL @p text is null; or the name is not a kernel interface
 *                    name, no socket could be opened or the interface has
 *                    no hardware address to give (then @p text is 48 zero
 *                    bytes)
 */
KAVRO_API KAVRO_STATUS NET_GetMacAddress(const InterfaceRecord *record, char *text);

KAVRO_END_DECLS

#endif /* KAVRO_RT_NET_H */
