// Which device an address opens.
#include <string>

#include "target/scenarios/host_device.h"
#include "target/scenarios/scanner_session.h"

using expected::planned_open;
using expected::serial_search;
using target::host_device;

namespace {

class choosing : public target::scanner_session {
protected:
    /// Opens a scanner and tells, by its own word, which one that was.
    std::string serial_of_the_opened(const planned_open& what)
    {
        open(what);
        std::string serial = identified_serial();
        close();
        return serial;
    }

    /// Of the two scanners in "twins", as the host lists them: not by when they were plugged in, but by
    /// where.
    static constexpr const char* kListedFirst = "RIGHT";
    static constexpr const char* kListedLast = "LEFT";

    static planned_open by_serial(const std::string& serial)
    {
        return {"usb:1a2b:3c4d:" + serial, serial, serial_search::finds_it};
    }
};

} // namespace

TEST_F(choosing, ids_open_the_device_that_is_listed_first)
{
    plug_in("twins");
    EXPECT_EQ(serial_of_the_opened({kByIds}), kListedFirst);
    scanner().unplug("left");
    scanner().plug("left");
    EXPECT_EQ(serial_of_the_opened({kByIds}), kListedFirst);
}

TEST_F(choosing, serial_number_opens_its_device_when_that_is_listed_first)
{
    plug_in("twins");
    EXPECT_EQ(serial_of_the_opened(by_serial(kListedFirst)), kListedFirst);
}

TEST_F(choosing, serial_number_opens_its_device_when_that_is_listed_last)
{
    plug_in("twins");
    EXPECT_EQ(serial_of_the_opened(by_serial(kListedLast)), kListedLast);
}

TEST_F(choosing, serial_number_that_no_device_has_opens_the_first_with_the_ids)
{
    plug_in("twins");
    EXPECT_EQ(serial_of_the_opened({"usb:1a2b:3c4d:NOBODY", "NOBODY", serial_search::misses_it}),
              kListedFirst);
}

TEST_F(choosing, bus_and_device_number_do_not_choose_the_device)
{
    plug_in("twins");
    const host_device last("serial", kListedLast);
    const std::string bus = last.attribute("busnum");
    const std::string udi = "usb:1a2b:3c4d:" + bus + ":" + last.attribute("devnum");
    EXPECT_EQ(serial_of_the_opened({udi, bus, serial_search::misses_it}), kListedFirst);
}
