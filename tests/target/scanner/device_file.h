#pragma once

#include <cstdint>
#include <istream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "target/scanner/command_set.h"
#include "target/scanner/fault.h"

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

struct configuration_description {
    std::uint8_t value; ///< by which the host chooses it
    std::vector<interface_description> interfaces;
};

/// A fault that strikes with the n-th command after plugging in, counted from 1.
struct planned_fault {
    fault what;
    std::uint32_t at_command;
};

/// In place of what the scanner would answer by itself.
struct given_answer {
    answer_status status;
    bytes data;
};

struct device_description {
    std::string name; ///< for our own use; never seen on the bus
    std::uint16_t vendor = 0;
    std::uint16_t product = 0;
    std::string serial;               ///< empty: none
    std::optional<std::string> maker; ///< none: one of ours, if the device has names at all
    std::optional<std::string> model;
    std::string firmware = "1.0"; ///< at most kFirmwareWidth bytes
    bool starts_plugged = true;
    std::optional<std::uint32_t> plugged_after_ms; ///< of one that starts unplugged; none: when ordered
    std::vector<configuration_description> configurations;
    std::vector<planned_fault> faults;
    std::map<command_code, given_answer> answers; ///< commands without one are served
};

/// The kernel gives a device all three strings or none. One that has names and no serial number therefore has
/// an empty serial number.
bool has_strings(const device_description& device);
std::string maker_of(const device_description& device);
std::string model_of(const device_description& device);

/// By their place among the endpoints of a configuration, counted from 1; 0: none.
struct served_endpoints {
    unsigned out = 0;
    unsigned in = 0;
};

/// Where a host sends commands and reads answers: the first vendor-specific interface that has bulk endpoints
/// both ways, and the last of each way. Both 0 when there is no such interface.
served_endpoints endpoints_to_serve(const std::vector<interface_description>& interfaces);

/// What is wrong with a device file; what() is "<file>:<line>: <reason>".
class device_file_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads the devices described by `text`; `file_name` is only for the errors. The format is in the README of
/// the folder above. Throws device_file_error.
std::vector<device_description> read_devices(std::istream& text, const std::string& file_name);

} // namespace virtual_scanner
