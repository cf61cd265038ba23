// Internals of the IPC key, message-queue and shared-memory families that
// the tests reach.
#pragma once

#include <cstdint>

#include "kavro_rt/ipc.h"

namespace kavro::detail {

// Full-queue polling of IPC_MSGQ_Send: 5000 retries, 10 ms apart.
inline constexpr uint32_t kMsgqRetries = 5000;
inline constexpr uint32_t kMsgqRetryPauseUs = 10000;

// The send step of IPC_MSGQ_Send with its polling made adjustable: sends
// `rec` and, while the queue is full (or a retry fails in any way), retries
// `retries` times `pause_us` apart. 0, kFail or kAgain.
KAVRO_STATUS msgq_send_polling(int32_t queueId, MessageRecord *rec, int32_t flags, uint32_t retries, uint32_t pause_us);

// Unique-key table size: keys 1..kUniqueKeys-1 are handed out.
inline constexpr int32_t kUniqueKeys = 5000;

}  // namespace kavro::detail
