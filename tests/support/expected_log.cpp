#include "support/expected_log.h"

#include "tvkintif/src/scanner.h"

namespace expected {

namespace {

/// One kind of call on the connection.
struct call {
    const char* begin;
    const char* end;
};
const call kRead = {"ipc connection read get called = ", "ipc connection read get bail rv = "};
const call kWrite = {"ipc connection wrute get called = ", "ipc connection wrte  bail rv = "};

lines begun(const call& which, std::size_t size)
{
    return info({which.begin + std::to_string(size)});
}

lines moved_part(const call& which, std::size_t moved, std::size_t before, std::size_t size)
{
    const std::string n = std::to_string(moved);
    return begun(which, size - before) +
           info({which.end + n, "transferred " + n + " bytes, total " + std::to_string(before + moved) + "/" +
                                    std::to_string(size)});
}

lines failed(const call& which, std::size_t size, const std::string& what)
{
    return begun(which, size) + info({what, which.end + std::string("-1")});
}

} // namespace

lines info(const std::vector<std::string>& messages)
{
    lines all;
    for (const std::string& message : messages)
        all += {"INFO " + message};
    return all;
}

const lines kAnnounced = info({"port = 0"});
const lines kLeft = info({"Leave do_cleanup 1", "End Run", "--- Leave int interface ---"});
const lines kStreamEnded = got_part(0, 0, kHeaderSize) + info({"do_cleanup 1"});
const lines kHungUp = kStreamEnded + kLeft;
const lines kClosed = info({"enter close", "leave close"});
const lines kToldToClose = request() + kClosed + kLeft;

lines reading(std::size_t size)
{
    return begun(kRead, size);
}

lines writing(std::size_t size)
{
    return begun(kWrite, size);
}

lines got_part(std::size_t moved, std::size_t before, std::size_t size)
{
    return moved_part(kRead, moved, before, size);
}

lines got(std::size_t size)
{
    return moved_part(kRead, size, 0, size);
}

lines put(std::size_t size)
{
    return moved_part(kWrite, size, 0, size);
}

lines failed_to_read(std::size_t size, const std::string& reason)
{
    return failed(kRead, size, "read failed: " + reason);
}

lines failed_to_write(std::size_t size, const std::string& reason)
{
    return failed(kWrite, size, "write failed: " + reason);
}

lines request(std::size_t payload)
{
    return payload == 0 ? got(kHeaderSize) : got(kHeaderSize) + got(payload);
}

lines reply(std::size_t payload)
{
    return payload == 0 ? put(kHeaderSize) : put(kHeaderSize) + put(payload);
}

planned_open vain_opening(const std::string& udi, attempt each)
{
    planned_open what{udi};
    what.attempts = std::vector<attempt>(scanner::kConnectionAttempts, each);
    return what;
}

lines open_handled(const planned_open& what)
{
    const lines verdict =
        what.succeeds() ? info({"send ok"}) : info({"usb connection failer.", "open fails", "send ng"});
    return plugin_loaded(what.udi, what.plugin) + device_tried(what) + verdict;
}

lines plugin_loaded(const std::string& udi, const std::string& plugin)
{
    return info({"open " + udi, // the dispatcher
                 "open " + udi, // the session
                 "interpName " + plugin, "interpreter load " + lib_path(plugin)});
}

lines device_tried(const planned_open& what)
{
    lines all = info({"usb_transceiver start"});
    for (const attempt each : what.attempts)
        all += tried(what, each);
    return all + info({what.succeeds() ? "break" : "retry finish"});
}

lines tried(const planned_open& what, attempt outcome)
{
    lines all = info({"usb_transceiver open start", "usb_transceiver open " + what.serial});
    if (!what.serial.empty() && what.search != serial_search::misses_it)
        all += info({"found device"});
    if (!what.serial.empty() && what.search != serial_search::finds_it)
        all += info({"not found retry"});
    all += info({outcome == attempt::finds_no_device ? "usb_transceiver open fails"
                                                     : "usb_transceiver set_bulk_endpoints"});
    if (outcome == attempt::finds_no_interface)
        all += info({"usb_transceiver set_bulk_endpoints fails"});
    return all +
           info({"connection open isSuccess = " + std::string(outcome == attempt::reaches_it ? "1" : "0")});
}

lines open_served(const planned_open& what)
{
    return request(what.udi.size()) + open_handled(what) + reply();
}

lines open_refused(const std::string& udi, const lines& reason)
{
    return request(udi.size()) + reason + info({"send ng"}) + reply() + kLeft;
}

lines usb_short(const std::string& direction, std::size_t moved, std::size_t size)
{
    return info({"usb " + direction + " : transferred " + std::to_string(moved) + " of " +
                 std::to_string(size) + " bytes"});
}

lines usb_failed(const std::string& direction, std::size_t moved, std::size_t size, const std::string& error)
{
    return usb_short(direction, moved, size) + info({"usb " + direction + " : " + error});
}

lines usb_stalled(const std::string& direction, std::size_t size)
{
    return usb_short(direction, 0, size) +
           info({"clearing halt: LIBUSB_ERROR_PIPE", "usb " + direction + " : LIBUSB_ERROR_PIPE"});
}

} // namespace expected
