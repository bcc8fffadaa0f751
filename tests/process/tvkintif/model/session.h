#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "process/wire.h"

/// A model of the program, written from the protocol page: what any bytes from a front-end bring about, for
/// any behaviour of plugin and bus. Random sessions are played against the program and compared with it.
///
///     session      what is special about the machine, and what the front-end does
///     draw()       the session that belongs to a seed and a number
///     predict()    all that the program must do in a session
///     player       the session, played; and the comparison
namespace session_model {

using process_test::bytes;

/// What the log directory asks for. `in_order`: as at_info, and the lines are watched among the calls of
/// libusb.
enum class logging { off, errors, at_info, in_order, verbose };

/// How the front-end leaves once it has sent everything and has every reply; the end of its stream may come
/// before the last replies.
enum class departure { ends_stream, hangs_up, resets };

/// A piece of the stream and what was meant by it. To the program the stream is all there is.
struct message {
    std::string what;
    bytes data;
};

struct session {
    std::uint64_t seed = 0;
    std::uint64_t number = 0;
    std::string bus;         ///< in the language of fake_usb/script.h
    std::string plugin;      ///< one of known_plugins(); empty: none is installed
    std::string plugin_file; ///< the name under which it is installed
    logging log = logging::off;
    std::vector<message> messages;
    std::vector<std::size_t> writes; ///< the sizes of the pieces in which the stream is written
    bool is_patient = false;         ///< waits for each reply that is due before it writes the next piece
    departure end = departure::ends_stream;

    bytes stream() const;
};

/// For people.
std::ostream& operator<<(std::ostream& out, const session& shown);

} // namespace session_model
