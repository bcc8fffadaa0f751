#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "target/scanner/device_file.h"

namespace virtual_scanner {

/// One USB device: made in configfs, its functions served by this process over FunctionFS, plugged into one
/// of the machine's device controllers. The order of life: construct, serve the function of each
/// configuration (function_fs), plug, unplug. What it leaves in configfs, unplugged, the next gadget of its
/// name clears away.
///
/// Plugging and unplugging may be asked for by any thread. Failures are std::system_error with the path in
/// front, or std::runtime_error when the host does not follow, or the device is not in the state for it.
class gadget {
public:
    /// `controller` is a device controller of dummy_hcd, as it stands under /sys/class/udc; the gadget is its
    /// only user.
    gadget(const device_description& device, std::string controller);
    gadget(const gadget&) = delete;
    gadget& operator=(const gadget&) = delete;

    /// The folder where the endpoint files of a configuration's function stand.
    std::string function_folder(std::uint8_t configuration) const;

    /// Returns when the host has configured the device.
    void plug();
    /// Takes the device off the bus, and returns when the host has seen it go; harmless when it is off.
    void unplug();
    /// The same, and the device cannot be plugged in any more.
    void vanish();

private:
    void make(const device_description& device) const;
    void make_strings(const device_description& device) const;
    void make_configuration(std::uint8_t value) const;
    void remove() const;
    std::string function_name(std::uint8_t configuration) const;
    void unplug_locked() const;
    bool is_plugged() const;
    std::string host_folder() const;
    bool is_configured() const;
    void wait_until(const std::string& what, const std::function<bool()>& is_so) const;

    std::string m_name;
    std::string m_folder;
    std::string m_controller;
    std::mutex m_plugging;
    bool m_isGone = false; ///< for good
};

} // namespace virtual_scanner
