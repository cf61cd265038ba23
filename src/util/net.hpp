// Internals of the network-interface family that the tests reach directly.
#pragma once

#include <cstdint>

namespace kavro::detail {

inline constexpr int32_t kNetNameSize = 32;  // a name slot, terminator included

// Collects the interface name at the start of one /proc/net/dev line, fed one
// character at a time so that lines of any length cost no buffer: blanks are
// skipped wherever they stand, ':' ends the name, and a name that reaches 32
// characters first, or a line without ':', yields nothing. So does a NUL
// byte before the ':': the name would be stored cut short at it (an empty
// one would end the list of names).
class DevNameScanner {
public:
    void feed(char c) {
        if (state_ != State::Scanning || c == ' ') return;
        if (c == '\0') {
            state_ = State::Dropped;
        } else if (c == ':') {
            name_[len_] = '\0';
            state_ = State::Done;
        } else if (len_ == kNetNameSize - 1) {
            state_ = State::Dropped;
        } else {
            name_[len_++] = c;
        }
    }
    // The name, or null when the line yields none (no name, an empty one, lo).
    const char *name() const {
        if (state_ != State::Done || len_ == 0) return nullptr;
        if (len_ == 2 && name_[0] == 'l' && name_[1] == 'o') return nullptr;
        return name_;
    }
    void reset() {
        state_ = State::Scanning;
        len_ = 0;
    }

private:
    enum class State { Scanning, Done, Dropped };
    State state_ = State::Scanning;
    int32_t len_ = 0;
    char name_[kNetNameSize];
};

// One line (ending at '\n' or the terminator): true and the name in `name`
// when the line names an interface other than lo.
bool parse_dev_line(const char *line, char name[kNetNameSize]);

// Reads a whole /proc/net/dev-style stream from fd into the slots, zeroes the
// slots after the last name, and returns the number of names stored (at most
// maxSlots).
int32_t read_dev_names(int fd, char (*slots)[kNetNameSize], int32_t maxSlots);

}  // namespace kavro::detail
