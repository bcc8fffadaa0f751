#include "target/scenarios/expected_log.h"

namespace target {

namespace {

constexpr std::size_t kHeaderSize = 20;
constexpr const char* kReadCall = "ipc connection read get called = ";
constexpr const char* kReadResult = "ipc connection read get bail rv = ";
constexpr const char* kWriteCall = "ipc connection wrute get called = ";
constexpr const char* kWriteResult = "ipc connection wrte  bail rv = ";

} // namespace

void expected_log::start()
{
    line("port = 0");
}

void expected_log::request(std::size_t payload)
{
    transfer(kReadCall, kReadResult, kHeaderSize);
    if (payload > 0)
        transfer(kReadCall, kReadResult, payload);
}

void expected_log::reply(std::size_t payload)
{
    transfer(kWriteCall, kWriteResult, kHeaderSize);
    if (payload > 0)
        transfer(kWriteCall, kWriteResult, payload);
}

void expected_log::open(const opening& what)
{
    load_plugin(what);
    reach_device(what);
    if (what.succeeds()) {
        line("send ok");
        return;
    }
    line("usb connection failer.");
    line("open fails");
    line("send ng");
}

void expected_log::load_plugin(const opening& what)
{
    line("open " + what.udi); // the dispatcher
    line("open " + what.udi); // the session
    line("interpName " + what.plugin);
    line("interpreter load /usr/lib/arm-linux-gnueabihf/tarvik/libexec/" + what.plugin);
}

void expected_log::reach_device(const opening& what)
{
    line("usb_transceiver start");
    for (const attempt each : what.attempts) {
        search(what);
        outcome(each);
    }
    line(what.succeeds() ? "break" : "retry finish");
}

void expected_log::search(const opening& what)
{
    line("usb_transceiver open start");
    line("usb_transceiver open " + what.serial);
    if (what.serial.empty())
        return;
    if (what.search != serial_search::misses_it)
        line("found device");
    if (what.search != serial_search::finds_it)
        line("not found retry");
}

void expected_log::outcome(attempt what)
{
    if (what == attempt::finds_no_device)
        line("usb_transceiver open fails");
    else
        line("usb_transceiver set_bulk_endpoints");
    if (what == attempt::finds_no_interface)
        line("usb_transceiver set_bulk_endpoints fails");
    line(std::string("connection open isSuccess = ") + (what == attempt::reaches_it ? "1" : "0"));
}

void expected_log::stall(const std::string& direction, std::size_t length)
{
    short_transfer(direction, 0, length);
    line("clearing halt: LIBUSB_ERROR_PIPE");
    line("usb " + direction + " : LIBUSB_ERROR_PIPE");
}

void expected_log::cut(const std::string& direction, std::size_t length, std::size_t moved,
                       const std::string& error)
{
    short_transfer(direction, moved, length);
    line("usb " + direction + " : " + error);
}

void expected_log::short_transfer(const std::string& direction, std::size_t moved, std::size_t length)
{
    line("usb " + direction + " : transferred " + std::to_string(moved) + " of " + std::to_string(length) +
         " bytes");
}

void expected_log::failed_read(std::size_t length, const std::string& reason)
{
    line(kReadCall + std::to_string(length));
    line("read failed: " + reason);
    line(std::string(kReadResult) + "-1");
}

void expected_log::failed_write(std::size_t length, const std::string& reason)
{
    line(kWriteCall + std::to_string(length));
    line("write failed: " + reason);
    line(std::string(kWriteResult) + "-1");
}

void expected_log::waiting()
{
    line(kReadCall + std::to_string(kHeaderSize));
}

void expected_log::hung_up()
{
    waiting();
    line(std::string(kReadResult) + "0");
    line("transferred 0 bytes, total 0/" + std::to_string(kHeaderSize));
    line("do_cleanup 1");
}

void expected_log::close()
{
    line("enter close");
    line("leave close");
}

void expected_log::end()
{
    line("Leave do_cleanup 1");
    line("End Run");
    line("--- Leave int interface ---");
}

void expected_log::line(const std::string& text)
{
    m_lines.push_back("INFO " + text);
}

void expected_log::transfer(const std::string& call, const std::string& result, std::size_t length)
{
    const std::string count = std::to_string(length);
    line(call + count);
    line(result + count);
    line("transferred " + count + " bytes, total " + count + "/" + count);
}

} // namespace target
