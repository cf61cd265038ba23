// The registry's record codec (reader, writer, lookup, rewrite; reg_codec.cpp),
// used by the library, the kavro tool, the tests, the fuzzer and the benchmark,
// and the file operations (reg.cpp): the exported REG_ operations are thin
// calls of reg_get_file and reg_set_file with the fixed paths.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kavro_rt/reg.h"
#include "kavro_rt/status.h"

namespace kavro::detail {

// A registry line is read as a 255-byte line buffer reads it: at most 254
// bytes, ending after the first newline. A longer line arrives in pieces,
// each piece counting as a line of its own.
inline constexpr size_t kRegPieceMax = 254;
// Longest subkey, entry name or string value that reads back as one line.
inline constexpr size_t kRegTextMax = kRegPieceMax - 1;
static_assert(KAVRO_REG_VALUE_MAX == kRegPieceMax + 1, "a value is at most one piece and its terminator");

struct RegLine {
    const char *p;
    size_t n;  // >= 1 for a line that was read
};

// Source of registry text: fills buf with up to cap bytes; returns the count,
// 0 at the end, -1 on a read error.
using RegReadFn = long (*)(void *ctx, char *buf, size_t cap);
// Sink of registry text: takes all n bytes or returns false.
using RegWriteFn = bool (*)(void *ctx, const char *p, size_t n);

class RegReader {
public:
    // Text already in memory (tests, fuzzing): lines point into it.
    RegReader(const char *text, size_t len);
    // Streamed text through a caller's buffer of at least 2 * kRegPieceMax bytes.
    RegReader(RegReadFn fn, void *ctx, char *buf, size_t cap);

    // The next line; false at the end of the text or on a read error. The
    // line stays valid until the next call.
    bool next(RegLine *line);
    bool failed() const { return failed_; }

private:
    bool refill();

    RegReadFn fn_ = nullptr;
    void *ctx_ = nullptr;
    char *buf_ = nullptr;
    size_t cap_ = 0;
    const char *cur_ = nullptr;
    const char *end_ = nullptr;
    bool eof_ = true;
    bool failed_ = false;
};

class RegWriter {
public:
    RegWriter(RegWriteFn fn, void *ctx) : fn_(fn), ctx_(ctx) {}
    bool put(const char *p, size_t n);
    bool put(const char *s);
    // Hands the buffered rest to the sink; false if any write failed.
    bool finish();
    bool failed() const { return failed_; }
    // The last byte put, or '\n' before the first.
    char last() const { return last_; }

private:
    bool drain();

    RegWriteFn fn_;
    void *ctx_;
    char buf_[8192];
    size_t used_ = 0;
    char last_ = '\n';
    bool failed_ = false;
};

// Value type codes of REG_SetValue.
inline constexpr uint32_t kRegSz = 1;
inline constexpr uint32_t kRegBinary = 3;
inline constexpr uint32_t kRegDword = 4;

// Finds the first record whose subkey and entry lines match (a line without
// its final character equal to the wanted name or a beginning of it) and
// reads its value into `value`, a buffer of `capacity` bytes. Writes the
// diagnostic lines of REG_GetValue. Returns 0, 0x80004001 (not found, or a
// REG_BINARY value), 0x80004005 (unknown type word, read error) or
// 0x80070057 (buffer too small).
KAVRO_STATUS reg_lookup(RegReader &in, const char *subkey, const char *entry, void *value, uint32_t capacity);

// Copies the registry from `in` to `out` with the record subkey/entry given
// the value (type kRegSz: a string; kRegDword: a uint32_t), appended as a new
// record when no record's subkey and entry lines have them as first word.
// Returns 0, or 0x80004005 on a read or write error, or when a new record
// would have to follow an incomplete last record (it would not read back).
KAVRO_STATUS reg_rewrite(RegReader &in, RegWriter &out, const char *subkey, const char *entry, uint32_t type,
                         const void *value);

// The value of a REG_DWORD line: hexadecimal, with optional leading blanks,
// sign and 0x; saturates at 0xFFFFFFFF; 0 when there are no digits.
uint32_t reg_parse_hex(const char *p, size_t n);

// REG_GetValue and REG_SetValue on a registry at `path` (temporary copy at
// `tmp_path`, in the same directory), with the lines of those operations.
KAVRO_STATUS reg_get_file(const char *path, const char *subkey, const char *entry, void *value, uint32_t capacity);
KAVRO_STATUS reg_set_file(const char *path, const char *tmp_path, const char *subkey, const char *entry, uint32_t type,
                          const void *value);

// Steps of a registry replacement, for fault injection in tests: a hook that
// returns true makes that step fail (as a full disk would); at Renamed the
// replacement is already done and the result is ignored.
enum class RegStep { TempOpened, ChunkWritten, Synced, Closed, Renamed };
using RegStepHook = bool (*)(RegStep step);
extern RegStepHook reg_step_hook;

// What REG_SetValue accepts: a name is 1..253 characters without white
// space; a string value at most 253 characters without a newline.
bool is_space(char c);
bool valid_name(const char *s);
bool valid_string(const char *s);

}  // namespace kavro::detail
