#include "support/process_limits.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

namespace support {

namespace {

constexpr uid_t kSomebody = 54321;

} // namespace

no_processes_left::no_processes_left() : m_wasRoot(getuid() == 0)
{
    getrlimit(RLIMIT_NPROC, &m_before);
    rlimit none = m_before;
    none.rlim_cur = 0;
    const bool is_limited_user = !m_wasRoot || setresuid(kSomebody, kSomebody, 0) == 0;
    m_isArranged = is_limited_user && setrlimit(RLIMIT_NPROC, &none) == 0;
}

no_processes_left::~no_processes_left()
{
    const bool is_itself_again = !m_wasRoot || setresuid(0, 0, 0) == 0;
    if (!is_itself_again || setrlimit(RLIMIT_NPROC, &m_before) != 0)
        std::abort(); // what follows would be tested as somebody
}

few_descriptors_left::few_descriptors_left(int count)
{
    const int lowest_free = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(lowest_free);
    getrlimit(RLIMIT_NOFILE, &m_before);
    rlimit few = m_before;
    few.rlim_cur = static_cast<rlim_t>(lowest_free) + static_cast<rlim_t>(count);
    setrlimit(RLIMIT_NOFILE, &few);
}

few_descriptors_left::~few_descriptors_left()
{
    setrlimit(RLIMIT_NOFILE, &m_before);
}

} // namespace support
