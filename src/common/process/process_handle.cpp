#include "common/process/process_handle.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tarvik {

unique_fd open_process(pid_t pid)
{
    // The C library's own call cannot be linked from C++ in glibc 2.36.
    return own_descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)), "pidfd_open");
}

exit_status reap_process(pid_t pid)
{
    int status = 0;
    if (TEMP_FAILURE_RETRY(waitpid(pid, &status, 0)) != pid)
        throw std::system_error(errno, std::generic_category(), "waitpid");
    return WIFSIGNALED(status) ? exit_status::killed_by(WTERMSIG(status))
                               : exit_status::exited(WEXITSTATUS(status));
}

} // namespace tarvik
