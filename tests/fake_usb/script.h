#pragma once

#include <istream>
#include <string>

#include "fake_usb/bus.h"

namespace fake_usb {

/// What a script says beside the bus itself.
struct script_options {
    bool is_clock_recorded = false; ///< sleep() and usleep() leave a line in the dialogue and do not sleep
    bool is_clock_slow = false;     ///< sleep() lasts a thousand times as long
};

/// Sets up a bus from text. One statement a line, '#' begins a comment, indentation is free. N is decimal;
/// CLASS, PROTOCOL and ADDRESS are hexadecimal; RESULT is a name such as LIBUSB_ERROR_BUSY, or a number.
///
///     device NAME VVVV:PPPP [serial TEXT]   plugs in the device of scanner_device(); then, about it:
///         configuration VALUE               the first one replaces the ready-made configuration
///             interface N [CLASS PROTOCOL]  with its first alternate setting; ff ff when left out
///             setting [CLASS PROTOCOL]      one more alternate setting of that interface
///             endpoint ADDRESS [TYPE]       of that setting; control, isochronous, bulk (when left out) or
///                                           interrupt
///             null_endpoints                that setting reports its endpoints with a null array
///         manufacturer TEXT
///         product TEXT
///         place BUS ADDRESS [PORT...]       where it stands; PORT... is the way to it from the root hub
///         active_configuration VALUE
///         kernel_driver N                   one is bound to interface N
///         open_error RESULT
///         appears_at_search N
///     fail FUNCTION RESULT [of NAME] [from_call N] [times N]
///     throw FUNCTION N TEXT                 call N of FUNCTION throws std::runtime_error(TEXT)
///     throw_number FUNCTION N               call N of FUNCTION throws an int
///     unplug NAME FUNCTION N                just before call N of FUNCTION
///     transfer NAME ADDRESS [result RESULT] [count N] [bytes HEX] [untouched] [hold FIFO]
///     share_claims FOLDER                   see bus::share_claims()
///     clock recorded | clock slow
///
/// Throws std::invalid_argument, with `source`, line number and reason, for anything else.
script_options load_script(std::istream& text, const std::string& source, bus& target);

} // namespace fake_usb
