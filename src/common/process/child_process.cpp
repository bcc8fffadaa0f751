#include "common/process/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <system_error>
#include <utility>

#include "common/process/process_error.h"

namespace tarvik {

namespace {

void check(int error, const char* call)
{
    if (error != 0)
        throw std::system_error(error, std::generic_category(), call);
}

/// What happens in the child before the program is executed.
class spawn_actions {
public:
    spawn_actions() { check(posix_spawn_file_actions_init(&m_actions), "posix_spawn_file_actions_init"); }
    spawn_actions(const spawn_actions&) = delete;
    spawn_actions& operator=(const spawn_actions&) = delete;
    ~spawn_actions() { posix_spawn_file_actions_destroy(&m_actions); }

    void open_nothing(int as)
    {
        check(posix_spawn_file_actions_addopen(&m_actions, as, "/dev/null", O_RDONLY, 0),
              "posix_spawn_file_actions_addopen");
    }

    void redirect(int as, const unique_fd& to)
    {
        check(posix_spawn_file_actions_adddup2(&m_actions, to.get(), as), "posix_spawn_file_actions_adddup2");
    }

    void change_directory(const std::string& folder)
    {
        check(posix_spawn_file_actions_addchdir_np(&m_actions, folder.c_str()),
              "posix_spawn_file_actions_addchdir_np");
    }

    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions = {};
};

std::vector<std::string> arguments_of(const launch& how)
{
    std::vector<std::string> arguments = {how.path};
    arguments.insert(arguments.end(), how.arguments.begin(), how.arguments.end());
    return arguments;
}

std::vector<std::string> environment_of(const launch& how)
{
    std::vector<std::string> environment;
    for (char** variable = environ; *variable != nullptr; ++variable) {
        const std::string_view text = *variable;
        if (how.environment.count(std::string(text.substr(0, text.find('=')))) == 0)
            environment.emplace_back(text);
    }
    for (const auto& [name, value] : how.environment)
        environment.emplace_back(name).append("=").append(value);
    return environment;
}

std::vector<char*> pointers_to(std::vector<std::string>& strings)
{
    std::vector<char*> pointers(strings.size() + 1); // the last one stays null
    std::transform(strings.begin(), strings.end(), pointers.begin(),
                   [](std::string& text) { return text.data(); });
    return pointers;
}

/// Whether a start failed because no process could be made, and not because of the program.
bool is_shortage(int error)
{
    return error == EAGAIN || error == ENOMEM;
}

} // namespace

child_process::child_process(const launch& how) : child_process(how, new_streams(how)) {}

child_process::child_process(const launch& how, streams ends)
    : m_path(how.path), m_output(std::move(ends.output.reading)), m_process(spawn(how, ends))
{
    if (ends.errors.reading)
        m_errors.emplace(std::move(ends.errors.reading));
}

child_process::streams child_process::new_streams(const launch& how)
{
    const bool are_errors_captured = how.errors == launch::standard_error::capture;
    return {new_pipe(), are_errors_captured ? new_pipe() : pipe_ends()};
}

pid_t child_process::spawn(const launch& how, const streams& ends)
{
    spawn_actions actions;
    actions.open_nothing(STDIN_FILENO);
    actions.redirect(STDOUT_FILENO, ends.output.writing);
    if (ends.errors.writing)
        actions.redirect(STDERR_FILENO, ends.errors.writing);
    if (!how.working_directory.empty())
        actions.change_directory(how.working_directory);
    std::vector<std::string> arguments = arguments_of(how);
    std::vector<std::string> environment = environment_of(how);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, how.path.c_str(), actions.get(), nullptr,
                                  pointers_to(arguments).data(), pointers_to(environment).data());
    if (is_shortage(error))
        throw std::system_error(error, std::generic_category(), "posix_spawn");
    if (error != 0)
        throw process_error(process_error::failure::start_failed, "start " + how.path,
                            how.working_directory.empty()
                                ? "a program to execute"
                                : "a program to execute in " + how.working_directory,
                            std::generic_category().message(error));
    return pid;
}

child_process::output_line child_process::first_line(std::size_t limit, milliseconds timeout)
{
    const bool is_decided = m_output.wait_for_first_line(limit, deadline(timeout));
    const std::string text = m_output.text();
    const std::size_t newline = text.find('\n');
    if (newline <= limit)
        return {text.substr(0, newline), line_end::newline};
    if (text.size() > limit)
        return {text.substr(0, limit), line_end::too_long};
    return {text, is_decided ? line_end::end_of_output : line_end::time_up};
}

std::string child_process::standard_output(milliseconds timeout)
{
    if (!m_output.wait_for_end(deadline(timeout)))
        throw process_error(process_error::failure::timed_out, "read the output of " + m_path, "its end",
                            std::to_string(m_output.text().size()) + " bytes and no end within " +
                                std::to_string(timeout.count()) + " ms");
    return m_output.text();
}

std::string child_process::standard_error()
{
    return m_errors ? m_errors->text() : std::string();
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
    return m_process.wait(deadline(timeout));
}

} // namespace tarvik
