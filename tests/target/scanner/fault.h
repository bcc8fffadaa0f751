#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace virtual_scanner {

/// What goes wrong with a command. The values are those of the command set; COMMANDS.md tells what happens.
enum class fault_kind : std::uint32_t {
    stall_out = 1,
    stall_in = 2,
    stall_out_always = 3,
    stall_in_always = 4,
    short_answer = 5,
    zlp_before = 6,
    zlp_after = 7,
    silence = 8,
    deaf = 9,
    delay = 10,
    unplug = 11,
    unplug_in_read = 12,
    unplug_in_write = 13,
    vanish = 14,
};

struct fault {
    fault_kind kind;
    std::optional<std::uint32_t> amount; ///< bytes or milliseconds; none: what the kind does without
};

/// The fault that `kind` and `amount` name, as they come over the bus; nothing when there is none such.
std::optional<fault> fault_from(std::uint32_t kind, std::optional<std::uint32_t> amount);

/// The fault of that name; `amount` is empty where there is none. What is wrong is a std::invalid_argument.
fault read_fault(const std::string& kind, const std::string& amount);

std::string name_of(fault_kind kind);

} // namespace virtual_scanner
