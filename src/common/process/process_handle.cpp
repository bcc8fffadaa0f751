#include "common/process/process_handle.h"

#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tarvik {

namespace {

[[noreturn]] void throw_system_error(const char* call)
{
    throw std::system_error(errno, std::generic_category(), call);
}

unique_fd open_process(pid_t pid)
{
    // The C library's own call cannot be linked from C++ in glibc 2.36.
    return own_descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), "pidfd_open");
}

void kill_and_reap(pid_t pid)
{
    kill(pid, SIGKILL);
    TEMP_FAILURE_RETRY(waitpid(pid, nullptr, 0));
}

} // namespace

process_handle::process_handle(pid_t child) : m_pid(child)
{
    try {
        m_end = open_process(child);
    } catch (const std::system_error&) {
        kill_and_reap(child);
        throw;
    }
}

process_handle::~process_handle()
{
    if (!m_status)
        kill_and_reap(m_pid);
}

std::optional<exit_status> process_handle::wait(const deadline& until)
{
    if (!m_status && wait_until_ready(m_end.get(), POLLIN, until))
        m_status = reap();
    return m_status;
}

bool process_handle::signal(int number)
{
    if (m_status)
        return false;
    if (kill(m_pid, number) != 0)
        throw_system_error("kill");
    return true;
}

exit_status process_handle::end()
{
    if (signal(SIGKILL))
        m_status = reap();
    return *m_status;
}

exit_status process_handle::reap()
{
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(m_pid, &status, 0)) != m_pid)
        throw_system_error("waitpid");
    return WIFSIGNALED(status) ? exit_status::killed_by(WTERMSIG(status))
                               : exit_status::exited(WEXITSTATUS(status));
}

} // namespace tarvik
