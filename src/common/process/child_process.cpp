#include "common/process/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/process/output_collector.h"
#include "common/process/process_error.h"
#include "common/process/process_handle.h"

namespace tarvik {

namespace {

[[noreturn]] void throw_system_error(const char* call)
{
    throw std::system_error(errno, std::generic_category(), call);
}

/// Why the child never got to execute the program, as it tells through a pipe that a successful exec closes.
enum class start_stage { redirection, working_directory, execution };
struct start_report {
    start_stage stage;
    int cause; ///< errno
};

/// Everything that the child needs between fork and exec, made before: in a process with threads it may
/// not allocate there.
class prepared_start {
public:
    explicit prepared_start(const launch& how)
        : m_path(how.path), m_directory(how.working_directory), m_ignored(how.ignored_signals),
          m_input(own_descriptor(open("/dev/null", O_RDONLY | O_CLOEXEC), "open /dev/null")),
          m_output(new_pipe()), m_report(new_pipe())
    {
        if (how.errors == launch::standard_error::capture)
            m_errors = new_pipe();
        add_arguments(how);
        add_environment(how);
    }

    /// In the child only.
    [[noreturn]] void execute()
    {
        for (const int number : m_ignored)
            ::signal(number, SIG_IGN);
        if (!redirect())
            give_up(start_stage::redirection);
        if (!m_directory.empty() && chdir(m_directory.c_str()) != 0)
            give_up(start_stage::working_directory);
        execve(m_path.c_str(), m_argument_pointers.data(), m_environment_pointers.data());
        give_up(start_stage::execution);
    }

    /// In the parent only: waits for the exec; nullopt when it succeeded.
    std::optional<start_report> outcome()
    {
        m_report.writing.reset();
        start_report report = {};
        const ssize_t count = TEMP_FAILURE_RETRY(read(m_report.reading.get(), &report, sizeof report));
        return count == sizeof report ? std::optional<start_report>(report) : std::nullopt;
    }

    /// In the parent only: the reading ends, whose writing ends are then the child's alone.
    unique_fd take_output() { return take(m_output); }
    unique_fd take_errors() { return take(m_errors); }

private:
    void add_arguments(const launch& how)
    {
        m_arguments.push_back(how.path);
        m_arguments.insert(m_arguments.end(), how.arguments.begin(), how.arguments.end());
        m_argument_pointers = pointers_to(m_arguments);
    }

    void add_environment(const launch& how)
    {
        for (char** variable = environ; *variable != nullptr; ++variable) {
            const std::string_view text = *variable;
            if (how.environment.count(std::string(text.substr(0, text.find('=')))) == 0)
                m_environment.emplace_back(text);
        }
        for (const auto& [name, value] : how.environment)
            m_environment.emplace_back(name).append("=").append(value);
        m_environment_pointers = pointers_to(m_environment);
    }

    static std::vector<char*> pointers_to(std::vector<std::string>& strings)
    {
        std::vector<char*> pointers(strings.size() + 1); // the last one stays null
        std::transform(strings.begin(), strings.end(), pointers.begin(),
                       [](std::string& text) { return text.data(); });
        return pointers;
    }

    bool redirect()
    {
        return dup2(m_input.get(), STDIN_FILENO) >= 0 && dup2(m_output.writing.get(), STDOUT_FILENO) >= 0 &&
               (!m_errors.writing || dup2(m_errors.writing.get(), STDERR_FILENO) >= 0);
    }

    [[noreturn]] void give_up(start_stage stage)
    {
        const start_report report = {stage, errno};
        const ssize_t count = ::write(m_report.writing.get(), &report, sizeof report);
        _exit(count == sizeof report ? 127 : 126);
    }

    static unique_fd take(pipe_ends& ends)
    {
        ends.writing.reset();
        return std::move(ends.reading);
    }

    std::string m_path;
    std::string m_directory;
    std::vector<int> m_ignored;
    unique_fd m_input;
    pipe_ends m_output;
    pipe_ends m_errors; ///< none: inherited
    pipe_ends m_report;
    std::vector<std::string> m_arguments;
    std::vector<std::string> m_environment;
    std::vector<char*> m_argument_pointers;
    std::vector<char*> m_environment_pointers;
};

[[noreturn]] void throw_start_error(const launch& how, const start_report& report)
{
    const std::string step = "start " + how.path;
    const std::string came = std::generic_category().message(report.cause);
    switch (report.stage) {
    case start_stage::redirection:
        throw process_error(process_error::failure::start_failed, step, "its standard streams to be set up",
                            came);
    case start_stage::working_directory:
        throw process_error(process_error::failure::start_failed, step,
                            "the directory " + how.working_directory, came);
    case start_stage::execution:
        break;
    }
    throw process_error(process_error::failure::start_failed, step, "a program to execute", came);
}

} // namespace

child_process::child_process(std::string path) : m_path(std::move(path)) {}

// Delegating makes the object whole before anything can fail: whatever throws below, the destructor kills and
// reaps what was started.
child_process::child_process(const launch& how) : child_process(how.path)
{
    prepared_start start(how);
    m_pid = fork();
    if (m_pid == 0)
        start.execute();
    if (m_pid < 0)
        throw_system_error("fork");
    m_handle = open_process(m_pid);
    if (const auto report = start.outcome())
        throw_start_error(how, *report);
    m_output = std::make_unique<output_collector>(start.take_output());
    if (how.errors == launch::standard_error::capture)
        m_errors = std::make_unique<output_collector>(start.take_errors());
}

child_process::~child_process()
{
    if (m_pid <= 0 || m_status)
        return;
    kill(m_pid, SIGKILL);
    TEMP_FAILURE_RETRY(waitpid(m_pid, nullptr, 0));
}

child_process::output_line child_process::first_line(std::size_t limit, milliseconds timeout)
{
    const bool is_decided = m_output->wait_for_first_line(limit, deadline(timeout));
    const std::string text = m_output->text();
    const std::size_t newline = text.find('\n');
    if (newline <= limit)
        return {text.substr(0, newline), line_end::newline};
    if (text.size() > limit)
        return {text.substr(0, limit), line_end::too_long};
    return {text, is_decided ? line_end::end_of_output : line_end::time_up};
}

std::string child_process::standard_output(milliseconds timeout)
{
    if (!m_output->wait_for_end(deadline(timeout)))
        throw process_error(process_error::failure::timed_out, "read the output of " + m_path, "its end",
                            std::to_string(m_output->text().size()) + " bytes and no end within " +
                                std::to_string(timeout.count()) + " ms");
    return m_output->text();
}

std::string child_process::standard_error()
{
    return m_errors ? m_errors->text() : std::string();
}

bool child_process::signal(int number)
{
    if (m_status)
        return false;
    if (kill(m_pid, number) != 0)
        throw_system_error("kill");
    return true;
}

exit_status child_process::wait_for_exit(milliseconds timeout)
{
    if (const auto status = try_wait_for_exit(timeout))
        return *status;
    throw process_error(process_error::failure::timed_out, "wait for " + m_path, "its end",
                        "a process that still runs after " + std::to_string(timeout.count()) + " ms");
}

std::optional<exit_status> child_process::try_wait_for_exit(milliseconds timeout)
{
    if (!m_status && wait_until_ready(m_handle.get(), POLLIN, deadline(timeout)))
        m_status = reap_process(m_pid);
    return m_status;
}

} // namespace tarvik
