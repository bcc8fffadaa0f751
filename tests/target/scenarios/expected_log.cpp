#include "target/scenarios/expected_log.h"

namespace target {

namespace {

constexpr std::size_t kHeaderSize = 20;

} // namespace

void expected_log::start()
{
    line("port = 0");
}

void expected_log::request(std::size_t payload)
{
    transfer("read get called = ", "read get bail rv = ", kHeaderSize);
    if (payload > 0)
        transfer("read get called = ", "read get bail rv = ", payload);
}

void expected_log::reply(std::size_t payload)
{
    transfer("wrute get called = ", "wrte  bail rv = ", kHeaderSize);
    if (payload > 0)
        transfer("wrute get called = ", "wrte  bail rv = ", payload);
}

void expected_log::open(const std::string& udi, const std::string& serial)
{
    line("open " + udi); // the dispatcher
    line("open " + udi); // the session
    line("interpName libryo-mora-hk-t210.so");
    line("interpreter load /usr/lib/arm-linux-gnueabihf/tarvik/libexec/libryo-mora-hk-t210.so");
    line("usb_transceiver start");
    line("usb_transceiver open start");
    line("usb_transceiver open " + serial);
    if (!serial.empty())
        line("found device");
    line("usb_transceiver set_bulk_endpoints");
    line("connection open isSuccess = 1");
    line("break");
    line("send ok");
}

void expected_log::stall(const std::string& direction, std::size_t length)
{
    line("usb " + direction + " : transferred 0 of " + std::to_string(length) + " bytes");
    line("clearing halt: LIBUSB_ERROR_PIPE");
    line("usb " + direction + " : LIBUSB_ERROR_PIPE");
}

void expected_log::close()
{
    line("enter close");
    line("leave close");
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
    line("ipc connection " + call + count);
    line("ipc connection " + result + count);
    line("transferred " + count + " bytes, total " + count + "/" + count);
}

} // namespace target
