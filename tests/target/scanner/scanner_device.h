#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "target/scanner/command_set.h"
#include "target/scanner/device_file.h"
#include "target/scanner/function_fs.h"

namespace virtual_scanner {

/// Serves the command set of COMMANDS.md on one function, one command after the other, on the caller's
/// thread.
class scanner_device {
public:
    /// Borrows both for its life.
    scanner_device(const device_description& description, function_fs& link);

    /// Serves until an error that plugging in again does not cure, which it throws.
    [[noreturn]] void serve();

private:
    /// What one plugging-in has seen.
    struct session {
        scanner_status status{};
        std::multimap<std::uint32_t, fault_kind> faults; ///< by the command they strike with, counted from 1
    };

    [[noreturn]] void serve_one_plugging();
    void serve_one_command();
    bool fault_strikes(fault_kind kind);

    bool take_command(command& what);
    bytes take_payload(const command& what);
    void take_at_least(std::size_t length);

    bytes data_for(const command& what, const bytes& payload, answer_status& status);
    bytes identification() const;
    answer_status arm_fault(std::uint32_t which);
    void give_answer(const answer& head, const bytes& data);

    const device_description& m_description;
    function_fs& m_link;
    session m_session;
    bytes m_taken; ///< came from the host, not yet understood
};

} // namespace virtual_scanner
