#pragma once

#include <string>

namespace target {

/// An interface of a USB device, claimed as any other program on the machine would. Throws std::system_error.
class interface_claim {
public:
    /// `node` is the device's file under /dev/bus/usb.
    interface_claim(const std::string& node, unsigned int interface_number);
    interface_claim(const interface_claim&) = delete;
    interface_claim& operator=(const interface_claim&) = delete;
    ~interface_claim();

private:
    int m_descriptor;
};

} // namespace target
