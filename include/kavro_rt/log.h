/**
 * @file log.h
 * @brief The log sink `GP_printf` and the debug family `DBG_`.
 *
 * Every diagnostic of the library is one line through `GP_printf`, whose
 * text starts with "KAVRO:<operation>: ". Before the process daemonises the
 * lines go to standard error; after `ULX_Daemonize` they go to the system
 * log at LOG_INFO. Debug output of the product (`DBG_Printf`, `DBG_Trace`)
 * is switched off in this library.
 */
#ifndef KAVRO_RT_LOG_H
#define KAVRO_RT_LOG_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** 1 once the process has daemonised (set by `ULX_Daemonize`, never cleared). */
KAVRO_API extern int32_t PEL_daemonized;

/**
 * Format one diagnostic line and hand it to the sink.
 *
 * The line is formatted into a 1024-byte buffer: longer output is cut at
 * 1023 characters. No newline is added. Before daemonising, standard output
 * is flushed first so that the two streams keep their order. After, the
 * line goes to the system log as literal text (a '%' in it is not read as
 * a conversion again). Safe from any thread; takes no lock.
 *
 * @param format printf-style format
 */
KAVRO_API void GP_printf(const char *format, ...) KAVRO_PRINTF(1, 2);

/** Bring the debug family up. @retval 1 always. */
KAVRO_API int32_t DBG_Init(void);
/** Take the debug family down. @retval 0 always. */
KAVRO_API int32_t DBG_Exit(void);
/** Debug print: switched off. Accepts anything. @retval 0 always. */
KAVRO_API int32_t DBG_Printf(const char *format, ...);
/** Debug trace: switched off. Accepts anything. @retval 0 always. */
KAVRO_API int32_t DBG_Trace(const char *format, ...);

KAVRO_END_DECLS

#endif /* KAVRO_RT_LOG_H */
