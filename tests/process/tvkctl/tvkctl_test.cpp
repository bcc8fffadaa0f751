#include "process/tvkctl/tvkctl_test.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "common/process/unique_fd.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "support/wait_until.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using support::kPatience;

const std::string kScratchFolder = support::kLogRoot + "/scratch";

} // namespace

const std::string tvkctl_test::kTvkctlPath = TVKCTL_PATH;
const std::string tvkctl_test::kTvkintifPath = PROGRAM_PATH;

void tvkctl_test::SetUp()
{
    SUPPORT_REQUIRE_PRIVATE_PATHS();
    // A shell that runs the tests in the background has SIGINT ignored, and tvkctl would inherit that.
    signal(SIGINT, SIG_DFL);
    fs::remove_all(support::kLogDirectory);
    fs::remove_all(kScratchFolder);
    fs::create_directory(kScratchFolder);
    support::remove_plugins();
    with_plugin("plugin_good");
}

void tvkctl_test::TearDown()
{
    if (!support::have_private_paths())
        return;
    for (const char* beginning : {"LEFT BEHIND", "MISUSE"})
        EXPECT_EQ(usb_lines_about(beginning).text(), "");
}

void tvkctl_test::with_plugin(const std::string& target, const std::string& file_name)
{
    support::install_plugin(target, file_name);
}

tarvik::launch tvkctl_test::launch_of(const std::string& path, const std::vector<std::string>& arguments)
{
    write_scratch("bus.txt", m_bus);
    tarvik::launch how;
    how.path = path;
    how.arguments = arguments;
    how.working_directory = kScratchFolder;
    how.errors = tarvik::launch::standard_error::capture;
    how.environment = m_environment;
    how.environment["TVKCTL"] = kTvkctlPath;
    how.environment["FAKE_USB_BUS"] = scratch("bus.txt");
    how.environment["FAKE_USB_DIALOGUE"] = scratch("dialogue.txt");
    how.environment["LD_PRELOAD"] = FAKE_USB_PATH;
#ifdef __SANITIZE_ADDRESS__
    // The preloaded library comes before the sanitizer's own, which is initialised first all the same, being
    // linked to it.
    how.environment["ASAN_OPTIONS"] = "verify_asan_link_order=0:detect_leaks=1:exitcode=99";
#endif
    return how;
}

void tvkctl_test::start(const std::vector<std::string>& arguments)
{
    m_process = std::make_unique<tarvik::child_process>(launch_of(kTvkctlPath, arguments));
}

void tvkctl_test::start_on_terminal(const std::string& arguments)
{
    const std::string command =
        "exec script --quiet --return --command '\"$TVKCTL\" " + arguments + "' /dev/null";
    tarvik::launch how = launch_of("/bin/bash", {"-c", command});
    how.environment.emplace("TERM", "xterm");
    m_process = std::make_unique<tarvik::child_process>(how);
}

bool tvkctl_test::have_terminals()
{
    return static_cast<bool>(tarvik::unique_fd(posix_openpt(O_RDWR)));
}

tvkctl_result tvkctl_test::wait()
{
    const tarvik::exit_status status = m_process->wait_for_exit(kPatience);
    EXPECT_EQ(status.end, tarvik::exit_status::how::exited) << status.text();
    return {status.number, m_process->standard_output(kPatience), m_process->standard_error()};
}

tvkctl_result tvkctl_test::run(const std::vector<std::string>& arguments)
{
    start(arguments);
    return wait();
}

tvkctl_result tvkctl_test::run_in_shell(const std::string& command)
{
    return run_launch(launch_of("/bin/bash", {"-c", command}));
}

tvkctl_result tvkctl_test::run_launch(const tarvik::launch& how)
{
    m_process = std::make_unique<tarvik::child_process>(how);
    return wait();
}

lines tvkctl_test::usb_lines_about(const std::string& beginning) const
{
    std::ifstream file(scratch("dialogue.txt"));
    lines result;
    for (std::string line; std::getline(file, line);)
        if (line.rfind(beginning, 0) == 0)
            result += {line};
    return result;
}

std::string tvkctl_test::as_nobody(const std::string& command)
{
    return "setpriv --reuid 65534 --regid 65534 --clear-groups " + command;
}

std::string tvkctl_test::lonely_tvkctl()
{
    fs::copy_file(kTvkctlPath, scratch("tvkctl"), fs::copy_options::overwrite_existing);
    return scratch("tvkctl");
}

std::string tvkctl_test::scratch(const std::string& name)
{
    return kScratchFolder + "/" + name;
}

void tvkctl_test::write_scratch(const std::string& name, const std::string& content)
{
    std::ofstream file(scratch(name), std::ios::binary);
    file << content << std::flush;
    ASSERT_TRUE(file.good()) << "cannot write " << scratch(name);
}

} // namespace process_test
