#pragma once

#include <functional>
#include <string>

#include "target/scanner/device_file.h"

namespace virtual_scanner {

/// One USB device: made in configfs, its function served by this process over FunctionFS, plugged into one of
/// the machine's device controllers. The order of life: construct, serve the function (function_fs), plug,
/// unplug. What it leaves in configfs, unplugged, the next gadget of its name clears away.
///
/// Failures are std::system_error with the path in front, or std::runtime_error when the host does not
/// follow.
class gadget {
public:
    /// `controller` is a device controller of dummy_hcd, as it stands under /sys/class/udc; the gadget is its
    /// only user.
    gadget(const device_description& device, std::string controller);
    gadget(const gadget&) = delete;
    gadget& operator=(const gadget&) = delete;

    /// The folder where the function's endpoint files stand.
    const std::string& function_folder() const { return m_function_folder; }

    /// Returns when the host has configured the device.
    void plug() const;
    /// Takes the device off the bus, and returns when the host has seen it go; harmless when it is off.
    void unplug() const;

private:
    void make(const device_description& device) const;
    void remove() const;
    std::string host_folder() const;
    bool is_configured() const;
    void wait_until(const std::string& what, const std::function<bool()>& is_so) const;

    std::string m_function;
    std::string m_folder;
    std::string m_function_folder;
    std::string m_controller;
};

} // namespace virtual_scanner
