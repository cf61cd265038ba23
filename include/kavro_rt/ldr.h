/**
 * @file ldr.h
 * @brief `LDR_`: loading shared modules at run time and finding their symbols.
 *
 * A module handle is a family object (tag "LDR_", 0x5F52444C) holding the
 * dynamic loader's handle. Modules are loaded with every symbol resolved at
 * once (RTLD_NOW), so a module with an unresolved reference fails to load
 * instead of failing later at the first call. `LDR_LoadModule` and
 * `LDR_GetProcAddress` print a progress line on standard output
 * ("KAVRO:LDR_LoadModule: load module <path> ", "KAVRO:LDR_GetProcAddress:
 * find library symbol <name> "); failures give a diagnostic line with the
 * loader's own error text.
 *
 * Bringing the family up writes the board file "/usr/torvanex/cfg/.board.0"
 * (the single character 1), a marker for the product's other tools.
 *
 * Decisions of this implementation:
 * - When the board file cannot be written (its directory missing or not
 *   writable, a full disk), `LDR_Init` writes one diagnostic line saying so
 *   and the family comes up all the same: loading modules does not need it.
 * - Every operation that takes a module handle checks its tag first: a
 *   freed or foreign handle is refused with KAVRO_E_FAIL and nothing is
 *   called on it (a second `LDR_FreeModule` of the same handle is refused,
 *   not a double free, as long as the heap has not reused the block).
 * - A NULL handle, out-pointer, path or symbol name gives KAVRO_E_INVALIDARG.
 * - The family takes no lock; the counters are plain increments.
 */
#ifndef KAVRO_RT_LDR_H
#define KAVRO_RT_LDR_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** A loaded module. Fields in this order. */
typedef struct LDR_Module {
    uint32_t tag;  /**< KAVRO_TAG_LDR while loaded; 0xDEADBEEF once freed */
    void *hModule; /**< the dynamic loader's handle */
} LDR_Module;

/** Module objects created by `LDR_LoadModule` (also those whose load failed). */
KAVRO_API extern uint32_t ldralloc_calls;
/** Calls of `LDR_FreeModule` (refused ones included). */
KAVRO_API extern uint32_t ldrfree_calls;

/**
 * Bring the family (and the memory family) up. The call that brings it up
 * writes the board file.
 * @retval 0 this call brought the family up
 * @retval 1 the family was already up
 */
KAVRO_API int32_t LDR_Init(void);

/** Take the family down (the memory family too, at the last call). */
KAVRO_API void LDR_Exit(void);

/**
 * Load a shared module, resolving all its symbols now.
 *
 * @param phModule  receives the module handle, or NULL on failure
 * @param pstrPath  the module's path, as for `dlopen`
 * @retval 0          loaded
 * @retval KAVRO_E_INVALIDARG @p phModule or @p pstrPath is NULL
 * @retval KAVRO_E_OUTOFMEMORY no memory for the module object
 * @retval KAVRO_E_LOADFAILED the loader refused the module (its reason as a line)
 */
KAVRO_API KAVRO_STATUS LDR_LoadModule(LDR_Module **phModule, const char *pstrPath);

/**
 * Find a symbol of a loaded module. The address is valid while the module
 * stays loaded.
 *
 * @param hModule    the module
 * @param pstrSymbol the symbol's name
 * @param ppAddress  receives the address; left unchanged on failure
 * @retval 0          found
 * @retval KAVRO_E_INVALIDARG @p hModule, @p pstrSymbol or @p ppAddress is NULL
 * @retval KAVRO_E_FAIL @p hModule is not a loaded module (freed or foreign)
 * @retval errno|0x80000000 the module has no such symbol (the loader's
 *                    reason as a line): the thread's errno as it stands
 *                    after the lookup, not cleared before it (0x80000000
 *                    when errno is 0)
 */
KAVRO_API KAVRO_STATUS LDR_GetProcAddress(LDR_Module *hModule, const char *pstrSymbol, void **ppAddress);

/**
 * Unload a module and free its handle. Should the loader fail to close
 * it, "ret is <n> " goes to standard output and the loader's reason to
 * standard error, and the handle is freed all the same.
 *
 * @param hModule the module
 * @retval 0          freed
 * @retval KAVRO_E_INVALIDARG @p hModule is NULL
 * @retval KAVRO_E_FAIL @p hModule is not a loaded module (nothing freed)
 */
KAVRO_API KAVRO_STATUS LDR_FreeModule(LDR_Module *hModule);

KAVRO_END_DECLS

#endif /* KAVRO_RT_LDR_H */
