#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "target/scanner/command_set.h"
#include "target/scenarios/expected_log.h"
#include "target/scenarios/scanner_process.h"
#include "tvkctl/src/front_end.h"

namespace target {

constexpr std::uint32_t kMebibyte = 1024 * 1024;

/// A front-end's session with a scanner: the real program, started as a front-end starts it, the real plugin,
/// the kernel's USB, and the virtual scanner at its end. Each step is done, its reply checked, and the log
/// lines that it must leave noted; close() ends the session and compares the exit status and the whole log.
class scanner_session : public testing::Test {
protected:
    scanner_session();
    /// After a failure, shows what the program logged and what the scanner saw.
    void TearDown() override;

    void plug_in(const std::string& device_file) { m_scanner.emplace(device_file); }
    /// Starts the program and opens the scanner; the serial is the one in the address, if it has one.
    void open(const std::string& udi, const std::string& serial = "");
    void close();

    /// Passes bytes to the scanner, which takes them.
    void send(const virtual_scanner::bytes& data);
    /// Takes bytes from the scanner, which gives them all.
    virtual_scanner::bytes receive(std::uint32_t count);
    /// The same, with a scanner that stalls: nothing moves, and the reply says so.
    void send_into_a_stall(const virtual_scanner::bytes& data);
    void receive_from_a_stall(std::uint32_t count);

    /// Sends a command of the scanner's own set.
    void command(virtual_scanner::command_code code, std::uint32_t argument = 0,
                 const virtual_scanner::bytes& payload = {});
    /// Takes an answer: checks its block, returns its data.
    virtual_scanner::bytes answer_to(virtual_scanner::command_code code);
    /// Has the scanner do something wrong with the next command.
    void arm(virtual_scanner::fault_kind fault, std::optional<std::uint32_t> amount = std::nullopt);

    static virtual_scanner::bytes encoded(virtual_scanner::command_code code, std::uint32_t argument = 0,
                                          const virtual_scanner::bytes& payload = {});

private:
    std::optional<scanner_process> m_scanner;
    std::optional<tvkctl::front_end> m_program;
    expected_log m_log;
};

} // namespace target
