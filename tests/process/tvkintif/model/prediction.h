#pragma once

#include <cstddef>
#include <vector>

#include "process/tvkintif/model/session.h"
#include "support/lines.h"

namespace session_model {

using support::lines;

/// All that the program must do in a session.
struct prediction {
    struct reply {
        std::size_t due; ///< how much of the stream has been read when it comes
        bytes data;
    };
    std::vector<reply> replies;
    /// What is left in the log, "LEVEL message", and on the bus, in the order in which it happens; each part
    /// of a message on the connection is moved in one call.
    lines log;
    lines bus;
    lines all;
    std::size_t taken = 0; ///< of the stream, by the program
    /// The program waits for this many bytes when the front-end leaves; 0: it has ended by itself before.
    std::size_t awaited = 0;
    /// The session asks for more memory than every machine has: what happens then is up to the machine.
    bool is_up_to_the_machine = false;

    /// How many bytes of replies are due once this much of the stream was sent.
    std::size_t due_after(std::size_t sent) const;
    bytes all_replies() const;
};

/// Plays the session on a fake bus of its own; there must be no other, and the dialogue is emptied.
prediction predict(const session& what);

} // namespace session_model
