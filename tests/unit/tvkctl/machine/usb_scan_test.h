#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "fake_usb/checked_bus.h"
#include "support/private_paths.h"
#include "tvkctl/src/machine/usb_scan.h"

namespace tarvik::tvkctl {

/// A machine whose device nodes, sysfs and processes are folders of the test, with the fake bus.
class usb_scan_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        std::filesystem::remove_all(root);
        for (const std::string& folder : {machine.devices, machine.sysfs, machine.processes})
            std::filesystem::create_directories(folder);
    }

    /// A device at bus 1, address 4, behind port 3 of the hub at port 2.
    static fake_usb::device scanner()
    {
        fake_usb::device made = fake_usb::scanner_device();
        made.address = 4;
        made.ports = {2, 3};
        return made;
    }

    usb_device only_device()
    {
        const std::vector<usb_device> found = scan_usb(machine);
        EXPECT_EQ(found.size(), 1U);
        return found.at(0);
    }

    std::string node() const { return machine.devices + "/bus/usb/001/004"; }

    static void write_file(const std::filesystem::path& path, const std::string& content)
    {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
    }

    void write_sysfs(const std::string& path, const std::string& content)
    {
        write_file(machine.sysfs + "/bus/usb/devices/" + path, content);
    }

    void bind_driver(const std::string& interface_name, const std::string& driver)
    {
        const std::filesystem::path folder = machine.sysfs + "/bus/usb/devices/" + interface_name;
        std::filesystem::create_directories(folder);
        std::filesystem::create_symlink("../../../../bus/usb/drivers/" + driver, folder / "driver");
    }

    /// A process that has `file` open.
    void add_process(const std::string& pid, const std::string& name, const std::string& file)
    {
        const std::filesystem::path folder = machine.processes + "/" + pid;
        std::filesystem::create_directories(folder / "fd");
        write_file(folder / "comm", name + "\n");
        std::filesystem::create_symlink(file, folder / "fd/3");
    }

    const std::string root = support::kLogRoot + "/machine";
    host machine{root + "/dev", root + "/sys", root + "/proc", ""};
    fake_usb::checked_bus bus;
};

} // namespace tarvik::tvkctl
