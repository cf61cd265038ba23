/**
 * @file poll.h
 * @brief `POLL_`: a polling interface that this library does not back.
 *
 * The operations exist so that components written against them link and
 * run; each does nothing and returns 0. Nothing is opened, registered or
 * waited for: a caller that relies on `POLL_Wait` reporting events must use
 * `poll` on its descriptors itself. Every operation but `POLL_Init` and
 * `POLL_Exit` accepts any arguments.
 */
#ifndef KAVRO_RT_POLL_H
#define KAVRO_RT_POLL_H

#include "status.h"

KAVRO_BEGIN_DECLS

/** Does nothing. @retval 0 always */
KAVRO_API int32_t POLL_Init(void);
/** Does nothing; touches none of its arguments. @param reserved ignored @retval 0 always */
KAVRO_API int32_t POLL_Open(uintptr_t reserved, ...);
/** Does nothing; touches none of its arguments. @param reserved ignored @retval 0 always */
KAVRO_API int32_t POLL_Ctl(uintptr_t reserved, ...);
/** Does nothing and does not wait; touches none of its arguments. @param reserved ignored @retval 0 always */
KAVRO_API int32_t POLL_Wait(uintptr_t reserved, ...);
/** Does nothing. @retval 0 always */
KAVRO_API int32_t POLL_Exit(void);

KAVRO_END_DECLS

#endif /* KAVRO_RT_POLL_H */
