#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "process/wire.h"
#include "support/expected_log.h"
#include "support/lines.h"
#include "support/private_paths.h"
#include "support/raw_connection.h"
#include "support/wait_until.h"
#include "tvkintif/src/models.h"

namespace process_test {

using namespace expected; // the vocabulary of the tests
using support::kPatience;

/// Empty at the start of each test, beside the log directory; the program's working directory.
inline const std::string kScratchDirectory = support::kLogRoot + "/scratch";

/// How a process ends.
struct ending {
    int status = 0;
    std::optional<std::string> output = {}; ///< all of standard output; absent: the port line
    std::string errors = {};                ///< all of standard error
};

/// One run of the finished program. A test tells in order: what is special about the machine (with_...), what
/// the front-end does, how the process ends (expect_end), and what it left in the log and on the USB bus:
///
///     with_plugin("plugin_failing");
///     start_connected();
///     open();
///     expect_answer(recv_request(5), ng_reply());
///     close_and_expect_end();
///     expect_log(announced + open_served() + request() + reply() + told_to_close);
///
/// What is not special: one scanner 1a2b:3c4d on the bus, plugin_good as its plugin, logging at INFO. Each
/// test fails for anything that the program leaves behind on the bus, and for a misuse of libusb.
class program_test : public testing::Test {
protected:
    program_test();
    ~program_test() override;
    void SetUp() override;
    void TearDown() override;

    /// As at the start of the test: nothing is special, nothing is left of an earlier run.
    void set_up_machine();

    // The machine. The bus in the language of fake_usb/script.h, failures in that of mishaps.cpp.
    void with_bus(const std::string& script) { m_bus = script; }
    /// For the script: the device comes in time for this attempt of an open.
    static std::string appears_at_attempt(int number);
    void with_plugin(const std::string& target, const std::string& file_name = kDefaultPlugin);
    void with_no_plugin();
    void with_no_log_directory();
    void with_log_level(int level);
    void with_settings(const std::string& text);
    void with_mishap(const std::string& statement) { m_mishaps.push_back(statement); }
    /// The program ignores what this process ignores when it starts it.
    void with_ignored(int signal_number);
    void with_argument(const std::string& text) { m_arguments.push_back(text); }
    /// The program is run by another one, which is given its path after its own arguments.
    void with_runner(const std::vector<std::string>& command) { m_runner = command; }
    void with_environment(const std::string& name, const std::string& value) { m_environment[name] = value; }

    // The program.
    void start();
    /// A start without a standard output to read the port from; the kernel tells it.
    void start_without_port_line();
    /// A start that is to fail: no port is awaited.
    void start_in_vain();
    /// A start, and a connection, in which every single allocation that is larger than about this fails.
    void start_with_memory_for(std::size_t most);
    void send_signal(int number);
    /// Waits until a SIGSTOP has stopped the program.
    void wait_until_stopped();
    /// Waits until the program sleeps in this system call.
    void wait_until_in(long system_call);
    /// Waits until these are the last lines of the log.
    void wait_for_log_end(const lines& end);
    tarvik::child_process& program() { return *m_program; }
    pid_t pid() const { return m_program->pid(); }
    int port() const { return m_port; }

    // The front-end.
    void connect();
    void start_connected();
    void tell(const bytes& request);
    void expect_reply(const bytes& expected);
    /// A request and its reply.
    void expect_answer(const bytes& request, const bytes& reply);
    /// An open that is answered ok.
    void open(const std::string& udi = "usb:1a2b:3c4d");
    /// The request to close.
    void close() { tell(close_request()); }
    void hang_up() { m_wire.reset(); }
    support::raw_connection& wire() { return *m_wire; }

    /// Waits for the process's end and compares everything about it; also that no byte followed the last
    /// reply.
    void expect_end(const ending& expected = {});
    void close_and_expect_end();

    void expect_log(const lines& expected);
    /// As expect_log(), with transfers that took several calls counted as one.
    void expect_log_with_whole_transfers(const lines& expected);
    /// The dialogue with the USB bus and the plugin.
    void expect_usb(const lines& expected);
    /// The same of those lines alone that begin so.
    void expect_usb_about(const std::string& beginning, const lines& expected);
    /// What comes after is a dialogue of its own.
    void forget_usb();
    lines usb() const;
    lines usb_lines_about(const std::string& beginning) const;

private:
    void launch();

    std::string m_bus;
    std::vector<std::string> m_mishaps;
    std::vector<std::string> m_arguments;
    std::vector<std::string> m_runner; ///< empty: none
    std::map<std::string, std::string> m_environment;
    int m_port = -1;
    std::unique_ptr<tarvik::child_process> m_program;
    std::unique_ptr<support::raw_connection> m_wire;
};

/// The dialogue of a complete session on the ordinary bus: opening the device, and closing it again. `plugin`
/// is one of those in tests/plugins.
lines usb_opened(const std::string& plugin = "plugin_good");
lines usb_closed(const std::string& plugin = "plugin_good");

} // namespace process_test
