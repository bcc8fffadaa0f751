#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "support/lines.h"
#include "tvkintif/src/models.h"

/// The log that a program should leave, in pieces that are put together in the order of the session. Each
/// line is in the form in which support::log_dialogue() gives the real one: "LEVEL message".
namespace expected {

using support::lines;

/// The size of a message without payload.
constexpr std::size_t kHeaderSize = 20;

/// Lines of the level INFO, given without that word.
lines info(const std::vector<std::string>& messages);

/// The port has been announced.
extern const lines kAnnounced;
/// The loop has ended in order, and with it the process.
extern const lines kLeft;
/// A read between two requests that met the end of the connection; and what the program then goes on to.
extern const lines kStreamEnded;
extern const lines kHungUp;
/// A close request is handled; and the request with that and the end.
extern const lines kClosed;
extern const lines kToldToClose;

/// A call that is to read or write `size` bytes and has not returned.
lines reading(std::size_t size);
lines writing(std::size_t size);
/// A call that read `moved` bytes of a message part of `size` bytes, of which `before` had come before.
lines got_part(std::size_t moved, std::size_t before, std::size_t size);
/// `size` bytes read or written in one call.
lines got(std::size_t size);
lines put(std::size_t size);
/// A call that was to read or write `size` bytes and failed for this reason.
lines failed_to_read(std::size_t size, const std::string& reason);
lines failed_to_write(std::size_t size, const std::string& reason);
/// A whole request or reply, each part in one call.
lines request(std::size_t payload = 0);
lines reply(std::size_t payload = 0);

/// What one attempt to reach the device comes to.
enum class attempt { reaches_it, finds_no_device, finds_no_interface };

/// What the search for a serial number comes to.
enum class serial_search { finds_it, misses_it, finds_one_that_may_not_be_opened };

/// An open request and how it should go; the last attempt decides.
struct planned_open {
    std::string udi;
    std::string serial = {}; ///< the address's field after the ids; empty: it has none
    serial_search search = serial_search::finds_it;
    std::string plugin = kDefaultPlugin;
    std::vector<attempt> attempts = {attempt::reaches_it};

    bool succeeds() const { return attempts.back() == attempt::reaches_it; }
};

/// An open of which every attempt, as many as there may be, comes to this.
planned_open vain_opening(const std::string& udi, attempt each);

/// The handling of an open request up to the reply, and its two parts.
lines open_handled(const planned_open& what);
lines plugin_loaded(const std::string& udi, const std::string& plugin = kDefaultPlugin);
lines device_tried(const planned_open& what);
/// One of the attempts.
lines tried(const planned_open& what, attempt outcome);
/// A complete open, from the request to the reply.
lines open_served(const planned_open& what = {"usb:1a2b:3c4d"});
/// One that is refused for this reason, up to the end of the program.
lines open_refused(const std::string& udi, const lines& reason);

/// USB transfers ("read", "write") that moved `moved` of `size` bytes: without an error, with one, and with a
/// stall, which is cleared.
lines usb_short(const std::string& direction, std::size_t moved, std::size_t size);
lines usb_failed(const std::string& direction, std::size_t moved, std::size_t size, const std::string& error);
lines usb_stalled(const std::string& direction, std::size_t size);

} // namespace expected
