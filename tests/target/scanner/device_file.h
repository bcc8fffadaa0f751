#pragma once

#include <cstdint>
#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

#include "target/scanner/command_set.h"

namespace virtual_scanner {

enum class endpoint_type { bulk, interrupt };
enum class endpoint_direction { out, in };

struct endpoint_description {
    endpoint_type type;
    endpoint_direction direction;
};

struct interface_description {
    std::uint8_t interface_class;
    std::uint8_t subclass;
    std::uint8_t protocol;
    std::vector<endpoint_description> endpoints;
};

/// A fault that strikes with the n-th command after plugging in, counted from 1.
struct planned_fault {
    fault_kind kind;
    std::uint32_t at_command;
};

struct device_description {
    std::string name; ///< for our own use; never seen on the bus
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string serial; ///< empty: the device has no serial number string
    std::string maker = "Tarvik";
    std::string model = "Virtual scanner";
    bool starts_plugged = true;
    std::vector<interface_description> interfaces;
    std::vector<planned_fault> faults;
};

/// What is wrong with a device file; what() is "<file>:<line>: <reason>".
class device_file_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads the devices described by `text`; `file_name` is only for the errors. The format is in the README of
/// the folder above. Throws device_file_error.
std::vector<device_description> read_devices(std::istream& text, const std::string& file_name);

} // namespace virtual_scanner
