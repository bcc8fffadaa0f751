// Which device an address opens, and with which plugin.
#include <fstream>
#include <string>

#include "target/scenarios/host_device.h"
#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"

using target::host_device;
using target::opening;
using target::plugin_folder;
using target::serial_search;

namespace {

class choosing : public target::scanner_session {
protected:
    /// Opens a scanner and tells, by its own word, which one that was.
    std::string serial_of_the_opened(const opening& what)
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

    static opening by_serial(const std::string& serial)
    {
        return {"usb:1a2b:3c4d:" + serial, serial, serial_search::finds_it};
    }

    /// A scanner of this model is opened with the plugin file of this name alone in the plugin folder.
    void expect_plugin(const std::string& product, const std::string& file)
    {
        const plugin_folder plugins(target::kShippedPlugin, file);
        plug_in_model(product);
        opening what{"usb:1a2b:" + product};
        what.plugin = file;
        EXPECT_EQ(serial_of_the_opened(what), "SN" + product);
    }

    void plug_in_model(const std::string& product)
    {
        std::ofstream("/run/model.device") << "device model\n"
                                           << "vendor 1a2b\n"
                                           << "product " << product << "\n"
                                           << "serial SN" << product << "\n"
                                           << "interface ff 00 ff\n"
                                           << "endpoint bulk out\n"
                                           << "endpoint bulk in\n";
        plug_in("/run/model");
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

TEST_F(choosing, product_0a71_takes_its_own_plugin_file)
{
    expect_plugin("0a71", "libqvintZ4.so");
}

TEST_F(choosing, product_0a72_takes_its_own_plugin_file)
{
    expect_plugin("0a72", "libquban-plugin-stellan-x440.so");
}

TEST_F(choosing, product_0a75_takes_the_plugin_file_of_two_products)
{
    expect_plugin("0a75", "libryo-mora-rt0915.so");
}

TEST_F(choosing, product_0a76_takes_the_plugin_file_of_two_products)
{
    expect_plugin("0a76", "libryo-mora-rt0915.so");
}

TEST_F(choosing, product_0a7e_takes_its_own_plugin_file)
{
    expect_plugin("0a7e", "libmora-interpreter-stellan-x120.so");
}

TEST_F(choosing, product_0a83_takes_its_own_plugin_file)
{
    expect_plugin("0a83", "libquban-plugin-stellan-x660.so");
}

TEST_F(choosing, product_that_is_not_listed_takes_the_default_plugin_file)
{
    expect_plugin("0a77", "libryo-mora-hk-t210.so");
}
