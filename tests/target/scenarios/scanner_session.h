#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "support/expected_log.h"
#include "target/scanner/command_set.h"
#include "target/scenarios/conversation.h"
#include "target/scenarios/scanner_process.h"

namespace target {

using expected::planned_open;

constexpr std::uint32_t kMebibyte = 1024 * 1024;

/// The program, where the machine has it installed.
constexpr const char* kProgram = "/usr/bin/tvkintif";

/// Shorter than the limit of a scenario, so that the logs of one that hangs are seen.
constexpr tarvik::milliseconds kStepLimit{30'000};

/// How the program is started here.
tarvik::launch program_launch();

/// The interfaces that programs have claimed on all buses of the machine, as the kernel names them
/// ("1-1:1.0").
std::vector<std::string> claimed_interfaces();

/// A front-end's session with a scanner: the real program, started as a front-end starts it, the real plugin,
/// the kernel's USB, and the virtual scanner at its end. Each step is done, its reply checked, and the log
/// lines that it must leave noted; close() ends the session and compares the exit status and the whole log.
class scanner_session : public testing::Test {
protected:
    /// The device file "plain" describes these.
    static constexpr const char* kByIds = "usb:1a2b:3c4d";
    static constexpr const char* kBySerial = "usb:1a2b:3c4d:SN0042";
    static constexpr const char* kSerial = "SN0042";

    scanner_session();
    /// Expects that the program has let go of the scanner.
    void TearDown() override;

    void plug_in(const std::string& device_file) { m_scanner.emplace(device_file); }
    /// The devices that were plugged in last, for orders.
    scanner_process& scanner() { return m_scanner.value(); }
    /// Has a library loaded into the programs that are started from now on.
    void preload(const std::string& library) { m_environment["LD_PRELOAD"] = library; }

    /// Starts the program and opens the scanner; the serial is the one in the address, if it has one.
    void open(const std::string& udi, const std::string& serial = "") { open(planned_open{udi, serial}); }
    void open(const planned_open& what);
    /// An open that fails, with which the program ends.
    void open_in_vain(const planned_open& what);
    /// Starts the program, which then awaits its front-end; and connects to it and asks it for the open.
    void start(tarvik::launch how = program_launch());
    void request_open(const std::string& udi);
    /// An open in two halves: the request has gone out, the reply is there. Between them the program is at
    /// work, and wait_for_failed_attempts() tells how far it has come.
    void begin_to_open(const std::string& udi);
    void end_opening(const planned_open& what);
    /// Returns when so many attempts to reach the device have failed.
    static void wait_for_failed_attempts(int count);
    void close();
    /// Asks the program to close the scanner and to end, without waiting for it.
    void request_close();
    /// Waits, with the connection kept, until a program has ended that was told to.
    tarvik::exit_status wait_for_exit();
    /// The same, and compares its exit status and its whole log.
    void end_program();
    /// The same of one that ends in another way, and in the middle of its log.
    void end_program(const tarvik::exit_status& expected);

    /// Passes bytes to the scanner, which takes them.
    void send(const virtual_scanner::bytes& data);
    /// Takes bytes from the scanner, which gives them all.
    virtual_scanner::bytes receive(std::uint32_t count);
    /// The same, with a scanner that stalls: nothing moves, and the reply says so.
    void send_into_a_stall(const virtual_scanner::bytes& data);
    void receive_from_a_stall(std::uint32_t count);
    /// The same, with a scanner that was unplugged.
    void send_to_nobody(const virtual_scanner::bytes& data);
    void receive_from_nobody(std::uint32_t count);
    /// The same, with a scanner that is unplugged when `moved` bytes have crossed: the plugin asks for the
    /// rest, of which nothing comes.
    void send_to_one_that_leaves(const virtual_scanner::bytes& data, std::uint32_t moved);
    void receive_from_one_that_leaves(std::uint32_t count, std::uint32_t moved);

    /// The same in two halves; after the first one the program waits for the scanner.
    void begin_send(const virtual_scanner::bytes& data);
    void end_send();
    void begin_receive(std::uint32_t count);
    virtual_scanner::bytes end_receive(std::uint32_t count);
    /// Both return when the log is all that is expected so far and the program waits: for the scanner, or for
    /// the next request.
    void wait_until_in_a_transfer();
    void wait_until_idle();

    /// Sends a command of the scanner's own set.
    void command(virtual_scanner::command_code code, std::uint32_t argument = 0,
                 const virtual_scanner::bytes& payload = {});
    /// Passes bytes to the plugin, which sends and receives over USB on its own for them and gets by one
    /// stall of a transfer of this direction ("read" or "write") and length.
    void send_past_a_stall(const virtual_scanner::bytes& data, const std::string& direction,
                           std::size_t length);
    /// Sends one whose payload follows in requests of its own.
    void announce(virtual_scanner::command_code code, std::uint32_t payload_length);
    /// Takes an answer: checks its block, returns its data.
    virtual_scanner::bytes answer_to(virtual_scanner::command_code code);
    /// Takes the block of an answer and checks it; how many bytes of data are to follow.
    std::uint32_t answer_block(virtual_scanner::command_code code);
    /// The serial number that the scanner at the other end has, by its own word.
    std::string identified_serial();
    /// Has the scanner do something wrong with the next command.
    void arm(virtual_scanner::fault_kind fault, std::optional<std::uint32_t> amount = std::nullopt);

    static virtual_scanner::bytes encoded(virtual_scanner::command_code code, std::uint32_t argument = 0,
                                          const virtual_scanner::bytes& payload = {});

    virtual_scanner::scanner_status status();
    /// Reads so many bytes of the pattern, in one request, and looks at each.
    void expect_pattern(std::uint32_t length);

    /// For steps of a suite's own. begin() sends a request, and leaves the reply to program().
    void begin(tarvik::request_code code, std::uint32_t value, tarvik::byte_view payload);
    void expect_refusal(const tarvik::reply& reply);
    conversation& program() { return m_program.value(); }
    support::lines& log() { return m_log; }

private:
    void expect_parting(const std::string& direction, std::size_t length, std::size_t moved);
    void wait_until_in(long system_call, const support::lines& so_far);

    std::map<std::string, std::string> m_environment; ///< of the programs
    std::optional<scanner_process> m_scanner;
    std::optional<conversation> m_program;
    support::lines m_log;
};

} // namespace target
