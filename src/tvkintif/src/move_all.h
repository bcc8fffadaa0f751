#pragma once

#include <sys/types.h>

/// How far a transfer came that may take several calls.
struct moved_bytes {
    unsigned int total; ///< of all calls
    ssize_t last;       ///< result of the last call: 0 or less when it ended the transfer early
};

/// Calls `move(offset, rest)`, which returns how many bytes it moved, until all `length` bytes have moved or
/// a call moves none.
template <typename Move>
moved_bytes move_all(unsigned int length, Move move)
{
    moved_bytes moved = {};
    while (moved.total < length) {
        moved.last = move(moved.total, length - moved.total);
        if (moved.last < 1)
            break;
        moved.total += static_cast<unsigned int>(moved.last);
    }
    return moved;
}
