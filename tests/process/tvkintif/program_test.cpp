#include "process/tvkintif/program_test.h"

#include <linux/close_range.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "front_end/src/port_line.h"
#include "support/log_reader.h"
#include "support/log_transfers.h"
#include "support/plugin_files.h"
#include "support/proc_files.h"
#include "support/wait_until.h"
#include "tvkintif/src/usb.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

const std::string kBusFile = kScratchDirectory + "/bus.txt";
const std::string kDialogueFile = kScratchDirectory + "/dialogue.txt";

constexpr const char* kOrdinaryBus = "device scanner 1a2b:3c4d\n";

#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream file(path);
    file << content << std::flush;
    ASSERT_TRUE(file.good()) << "cannot write " << path;
}

std::string joined(const std::vector<std::string>& parts, const std::string& separator)
{
    std::string all;
    for (const std::string& part : parts)
        all += all.empty() ? part : separator + part;
    return all;
}

bool ends_with(const std::vector<std::string>& all, const std::vector<std::string>& end)
{
    return all.size() >= end.size() && std::equal(end.rbegin(), end.rend(), all.rbegin());
}

} // namespace

lines usb_opened(const std::string& plugin)
{
    return {plugin + " loaded",
            "init -> 0",
            "set_debug 3",
            "open_device_with_vid_pid 1a2b:3c4d -> scanner",
            "get_device scanner -> scanner",
            "get_device_descriptor scanner -> 0",
            "get_configuration scanner -> 0 (1)",
            "get_config_descriptor scanner 0 -> 0",
            "kernel_driver_active scanner 0 -> 0",
            "claim_interface scanner 0 -> 0",
            "free_config_descriptor scanner 0",
            plugin + " ctor"};
}

lines usb_closed(const std::string& plugin)
{
    return {plugin + " dtor", plugin + " unloaded", "release_interface scanner 0 -> 0", "close scanner",
            "exit",           "end of process"};
}

program_test::program_test() = default;
program_test::~program_test() = default;

void program_test::SetUp()
{
    SUPPORT_REQUIRE_PRIVATE_PATHS();
    // A shell that runs the tests in the background has SIGINT ignored, and the program would inherit that.
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGPIPE})
        signal(number, SIG_DFL);
    // Nor is it to get descriptors that whoever runs the tests has left open.
    ASSERT_EQ(close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC), 0);
    set_up_machine();
}

void program_test::set_up_machine()
{
    m_bus = kOrdinaryBus;
    m_mishaps.clear();
    fs::remove_all(kScratchDirectory);
    fs::create_directory(kScratchDirectory);
    support::remove_plugins();
    support::make_log_directory();
    with_plugin("plugin_good");
}

void program_test::TearDown()
{
    if (!m_program)
        return;
    const lines dialogue = usb();
    for (const std::string& line : dialogue)
        if (line.rfind("LEFT BEHIND", 0) == 0 || line.rfind("MISUSE", 0) == 0)
            ADD_FAILURE() << "on the USB bus: " << line;
    if (HasFailure())
        std::cerr << "standard error of the program:\n"
                  << m_program->standard_error() << "its log:\n"
                  << support::raw_log();
}

std::string program_test::appears_at_attempt(int number)
{
    return "appears_at_search " + std::to_string((number - 1) * usb_transceiver::kOpenTries + 1) + "\n";
}

void program_test::with_plugin(const std::string& target, const std::string& file_name)
{
    support::install_plugin(target, file_name);
}

void program_test::with_no_plugin()
{
    support::remove_plugins();
}

void program_test::with_no_log_directory()
{
    fs::remove_all(support::kLogDirectory);
}

void program_test::with_log_level(int level)
{
    support::make_log_directory(level);
}

void program_test::with_settings(const std::string& text)
{
    write_file(support::kSettingsFile, text);
}

void program_test::with_ignored(int signal_number)
{
    signal(signal_number, SIG_IGN);
}

void program_test::launch()
{
    write_file(kBusFile, m_bus);
    tarvik::launch how;
    std::vector<std::string> command = m_runner;
    command.emplace_back(PROGRAM_PATH);
    command.insert(command.end(), m_arguments.begin(), m_arguments.end());
    how.path = command.front();
    how.arguments.assign(command.begin() + 1, command.end());
    how.working_directory = kScratchDirectory;
    how.errors = tarvik::launch::standard_error::capture;
    how.environment = m_environment;
    how.environment["FAKE_USB_BUS"] = kBusFile;
    how.environment["FAKE_USB_DIALOGUE"] = kDialogueFile;
    how.environment["MISHAPS"] = joined(m_mishaps, "; ");
    // Only where there are some: what is not asked for is not to stand between the program and the system.
    how.environment["LD_PRELOAD"] = (m_mishaps.empty() ? "" : MISHAPS_PATH ":") + std::string(FAKE_USB_PATH);
    if (kIsSanitized) // the preloaded libraries come before the sanitizer's own, which is initialised first
                      // all the same, being linked to them
        how.environment.try_emplace("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=1:exitcode=99");
    m_program = std::make_unique<tarvik::child_process>(how);
}

void program_test::start()
{
    launch();
    m_port = tarvik::read_port_line(*m_program, kPatience);
}

void program_test::start_without_port_line()
{
    launch();
    ASSERT_TRUE(support::wait_until(kPatience, [&] { return (m_port = support::listening_port(pid())) > 0; }))
        << "the program listens nowhere";
}

void program_test::start_in_vain()
{
    launch();
}

void program_test::start_with_memory_for(std::size_t most)
{
    // The sanitizer's allocator ends the process where the ordinary one throws, and needs more address space
    // than any limit leaves.
    if (kIsSanitized)
        with_mishap("limit allocation " + std::to_string(most));
    start_connected();
    const rlimit limit = {most, most};
    if (!kIsSanitized) {
        ASSERT_EQ(prlimit(pid(), RLIMIT_AS, &limit, nullptr), 0);
    }
}

void program_test::send_signal(int number)
{
    ASSERT_TRUE(m_program->signal(number)) << "the program has ended before signal " << number;
}

void program_test::wait_until_stopped()
{
    ASSERT_TRUE(support::wait_until(kPatience, [&] { return support::is_stopped(pid()); }))
        << "the program runs on";
}

void program_test::wait_until_in(long system_call)
{
    ASSERT_TRUE(support::wait_until(kPatience, [&] { return support::is_waiting_in(pid(), system_call); }))
        << "the program does not get to system call " << system_call;
}

void program_test::wait_for_log_end(const lines& end)
{
    ASSERT_TRUE(support::wait_until(kPatience, [&] { return ends_with(support::log_dialogue(), end); }))
        << "the log does not come to end in\n"
        << end.text();
}

void program_test::connect()
{
    m_wire = std::make_unique<support::raw_connection>(m_port);
}

void program_test::start_connected()
{
    start();
    connect();
}

void program_test::tell(const bytes& request)
{
    m_wire->write(request);
}

void program_test::expect_reply(const bytes& expected)
{
    const bytes reply = m_wire->read(expected.size());
    const auto beginning = [](const bytes& all) { // as much as can be read in a message
        return hex(
            {all.begin(), all.begin() + std::min<std::ptrdiff_t>(64, std::distance(all.begin(), all.end()))});
    };
    EXPECT_TRUE(reply == expected) << reply.size() << " bytes: " << beginning(reply) << "\ninstead of "
                                   << expected.size() << ": " << beginning(expected);
}

void program_test::expect_answer(const bytes& request, const bytes& reply)
{
    tell(request);
    expect_reply(reply);
}

void program_test::open(const std::string& udi)
{
    expect_answer(open_request(udi), ok_reply());
}

void program_test::expect_end(const ending& expected)
{
    EXPECT_EQ(m_program->wait_for_exit(kPatience), tarvik::exit_status::exited(expected.status));
    if (m_wire) {
        EXPECT_EQ(hex(m_wire->read_to_end()), "") << "bytes after the last reply";
    }
    EXPECT_EQ(m_program->standard_output(kPatience), expected.output.value_or(std::to_string(m_port) + "\n"));
    EXPECT_EQ(m_program->standard_error(), expected.errors);
}

void program_test::close_and_expect_end()
{
    close();
    expect_end();
}

void program_test::expect_log(const lines& expected)
{
    EXPECT_EQ(support::text(support::log_dialogue()), expected.text());
}

void program_test::expect_log_with_whole_transfers(const lines& expected)
{
    EXPECT_EQ(support::text(support::with_whole_transfers(support::log_dialogue())), expected.text());
}

void program_test::expect_usb(const lines& expected)
{
    expect_usb_about("", expected);
}

void program_test::expect_usb_about(const std::string& beginning, const lines& expected)
{
    EXPECT_EQ(usb_lines_about(beginning).text(), expected.text());
}

void program_test::forget_usb()
{
    fs::remove(kDialogueFile);
}

lines program_test::usb() const
{
    return usb_lines_about("");
}

lines program_test::usb_lines_about(const std::string& beginning) const
{
    std::ifstream file(kDialogueFile);
    lines result;
    for (std::string line; std::getline(file, line);)
        if (line.rfind(beginning, 0) == 0)
            result += {line};
    return result;
}

} // namespace process_test
