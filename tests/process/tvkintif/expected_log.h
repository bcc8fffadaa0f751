#pragma once

#include <string>

#include "process/lines.h"
#include "tvkintif/src/models.h"

/// The pieces that the program's log is made of, each as "LEVEL message" lines.
namespace process_test {

/// The port has been announced.
extern const lines announced;
/// The loop has ended in order, and with it the process.
extern const lines left;
/// The connection ended between two requests.
extern const lines hung_up;
/// The request to close, and the end.
extern const lines told_to_close;

/// `size` bytes read in one call.
lines got(int size);
/// `size` bytes written in one call.
lines put(int size);
/// A call that was to read or write `size` bytes and failed for this reason.
lines failed_to_read(int size, const std::string& reason);
lines failed_to_write(int size, const std::string& reason);
/// A whole request, each part in one call.
lines request(int payload = 0);
/// A whole reply, each part in one call.
lines reply(int payload = 0);

/// What the session says before it looks for the device: address, plugin file.
lines plugin_loaded(const std::string& udi, const std::string& plugin = kDefaultPlugin);
/// One attempt to open the device by its ids.
lines opened_by_ids();
lines not_opened();
/// A complete open by ids, from the request to the reply.
lines open_served(const std::string& udi = "usb:1a2b:3c4d", const std::string& plugin = kDefaultPlugin);
/// A failed open, from the request to the reply and the end, with what the session says of it.
lines open_refused(const std::string& udi, const lines& reason);

} // namespace process_test
