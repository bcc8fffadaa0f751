#include "process/tvkintif/expected_log.h"

namespace process_test {

namespace {

const std::string read_call = "INFO ipc connection read get called = ";
const std::string read_result = "INFO ipc connection read get bail rv = ";
const std::string write_call = "INFO ipc connection wrute get called = ";
const std::string write_result = "INFO ipc connection wrte  bail rv = ";

lines transferred(const std::string& call, const std::string& result, int size)
{
    const std::string n = std::to_string(size);
    return {call + n, result + n, "INFO transferred " + n + " bytes, total " + n + "/" + n};
}

} // namespace

const lines announced = {"INFO port = 0"};
const lines left = {"INFO Leave do_cleanup 1", "INFO End Run", "INFO --- Leave int interface ---"};
const lines hung_up =
    lines{read_call + "20", read_result + "0", "INFO transferred 0 bytes, total 0/20", "INFO do_cleanup 1"} +
    left;
const lines told_to_close = got(20) + lines{"INFO enter close", "INFO leave close"} + left;

lines got(int size)
{
    return transferred(read_call, read_result, size);
}

lines put(int size)
{
    return transferred(write_call, write_result, size);
}

lines failed_to_read(int size, const std::string& reason)
{
    return {read_call + std::to_string(size), "INFO read failed: " + reason, read_result + "-1"};
}

lines failed_to_write(int size, const std::string& reason)
{
    return {write_call + std::to_string(size), "INFO write failed: " + reason, write_result + "-1"};
}

lines request(int payload)
{
    return payload == 0 ? got(20) : got(20) + got(payload);
}

lines reply(int payload)
{
    return payload == 0 ? put(20) : put(20) + put(payload);
}

lines plugin_loaded(const std::string& udi, const std::string& plugin)
{
    return {"INFO open " + udi, "INFO interpName " + plugin, "INFO interpreter load " + lib_path(plugin)};
}

lines opened_by_ids()
{
    return {"INFO usb_transceiver open start", "INFO usb_transceiver open ",
            "INFO usb_transceiver set_bulk_endpoints", "INFO connection open isSuccess = 1", "INFO break"};
}

lines not_opened()
{
    return {"INFO usb_transceiver open start", "INFO usb_transceiver open ",
            "INFO usb_transceiver open fails", "INFO connection open isSuccess = 0"};
}

lines open_served(const std::string& udi, const std::string& plugin)
{
    return request(static_cast<int>(udi.size())) + lines{"INFO open " + udi} + plugin_loaded(udi, plugin) +
           lines{"INFO usb_transceiver start"} + opened_by_ids() + lines{"INFO send ok"} + reply();
}

lines open_refused(const std::string& udi, const lines& reason)
{
    return request(static_cast<int>(udi.size())) + lines{"INFO open " + udi} + reason +
           lines{"INFO send ng"} + reply() + left;
}

} // namespace process_test
