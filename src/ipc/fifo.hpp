// Internals of the named-pipe family shared by its reader side, its write
// path and the tests.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#include "kavro_rt/fifo.h"

namespace kavro::detail {

// One channel of a writer's table. Free while writefifo is 0.
struct FifoKeyEntry {
    uint32_t key;
    int32_t writefifo;    // index pipe, opened for writing
    int32_t rankFifo[3];  // rank pipes 0, 1, 2
    int8_t rank;          // rank of the latest write, 0..2
    uint32_t removed;     // 1 once the reader is known to be gone
    int32_t minTag;
    int32_t maxTag;
};

inline constexpr int kFifoTableSize = IPC_FIFO_TABLE_SIZE;

// Paths live in buffers of this size; longer ones are refused.
inline constexpr size_t kFifoPathSize = 256;

// The family lock: serialises the write path and every table change.
extern pthread_mutex_t fifo_lock;

// The table of one kind (isStreams != 0: streams), or null while the
// family is down. Read and changed only under fifo_lock.
FifoKeyEntry *fifo_table(int32_t isStreams);

// Builds the index pipe's name of a channel into buf (kFifoPathSize bytes),
// leaving room for the three underscores of the rank pipes. Returns the
// name's length, or -1 when TRVXROOT is unset, -2 when the root is
// too long for the longest channel name (nothing usable is left in buf).
int fifo_index_path(char *buf, uint32_t key, int32_t isStreams);
// The same from an explicit install root.
int fifo_index_path(char *buf, const char *root, uint32_t key, int32_t isStreams);

// True once the process's first write has decided whether to trace.
bool fifo_trace_decided();

// Table operations; callers hold fifo_lock and the family is up. Lookups
// go through an index kept beside each table, so their cost does not grow
// with the number of channels; they still find the first entry (lowest
// position) whose key matches. Key 0 names no channel: search_key returns
// 0, add_key refuses it, mark_key_removed and remove_key ignore it.
//
// search_key: 0 when the key is absent; otherwise advances the entry's
// round-robin rank, widens its tags with msgTag, hands out the rank pipes
// and the new rank and returns writefifo.
int32_t search_key(uint32_t key, int32_t msgTag, int32_t isStreams, int32_t *rank0, int32_t *rank1, int32_t *rank2,
                   int8_t *rank);
// Enters a channel in the first free entry (rank 2, tags = msgTag) and
// returns key; 0 when the table is full (nothing stored).
uint32_t add_key(uint32_t key, int32_t msgTag, int32_t isStreams, int32_t writefifo, int32_t rank0, int32_t rank1,
                 int32_t rank2, int8_t *rank);
void mark_key_removed(uint32_t key, int32_t isStreams);
// Closes the four descriptors of every entry with that key and frees them.
void remove_key(uint32_t key, int32_t isStreams);

}  // namespace kavro::detail
