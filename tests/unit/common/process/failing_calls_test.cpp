#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "common/process/child_process.h"
#include "common/process/output_collector.h"
#include "common/process/process_handle.h"
#include "support/caught_error.h"

using namespace std::chrono_literals;
using tarvik::process_handle;

namespace {

constexpr const char* kFolderOfNoMemory = "/no/memory";

/// A child of this process that has ended.
pid_t ended_child()
{
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    return child;
}

void reap(pid_t child)
{
    waitpid(child, nullptr, 0);
}

void start_in_a_folder()
{
    tarvik::launch how;
    how.path = "/bin/true";
    how.working_directory = kFolderOfNoMemory;
    tarvik::child_process child(how);
}

void hold_a_reaped_process()
{
    const pid_t child = ended_child();
    reap(child);
    process_handle handle(child);
}

void signal_a_process_that_another_reaped()
{
    process_handle handle(ended_child());
    reap(handle.pid());
    handle.signal(SIGTERM);
}

void wait_for_a_process_that_another_reaped()
{
    process_handle handle(ended_child());
    reap(handle.pid());
    handle.wait(tarvik::deadline(10s));
}

/// While it lives, this process may have no descriptor: the system then refuses to look at any.
class no_descriptor_allowed {
public:
    no_descriptor_allowed()
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit none = {0, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    no_descriptor_allowed(const no_descriptor_allowed&) = delete;
    no_descriptor_allowed& operator=(const no_descriptor_allowed&) = delete;
    ~no_descriptor_allowed() { setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before = {};
};

void collect_from_nowhere()
{
    tarvik::output_collector collector{tarvik::unique_fd()};
}

void wait_where_no_descriptor_is_allowed()
{
    // The sanitizers' run-time needs descriptors itself when it sees an error of this type for the first
    // time.
    support::caught<std::system_error>(collect_from_nowhere);
    const no_descriptor_allowed here;
    tarvik::wait_until_ready(STDIN_FILENO, POLLIN, tarvik::deadline(0ms));
}

struct failing_call {
    const char* name;
    int error;
    void (*make)();
};

void PrintTo(const failing_call& shown, std::ostream* out)
{
    *out << shown.name;
}

class failing_system_call : public testing::TestWithParam<failing_call> {};

} // namespace

/// In place of the C library's, which only fails without memory.
extern "C" int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t* actions,
                                                    const char* folder) noexcept
{
    if (std::strcmp(folder, kFolderOfNoMemory) == 0)
        return ENOMEM;
    void* const real = dlsym(RTLD_NEXT, "posix_spawn_file_actions_addchdir_np");
    return reinterpret_cast<decltype(&posix_spawn_file_actions_addchdir_np)>(real)(actions, folder);
}

TEST_P(failing_system_call, is_named_in_the_error_with_its_cause)
{
    const auto error = support::caught<std::system_error>(GetParam().make);
    EXPECT_EQ(error.code(), std::error_code(GetParam().error, std::generic_category()));
    EXPECT_EQ(std::string(error.what()).substr(0, std::strlen(GetParam().name) + 2),
              GetParam().name + std::string(": "));
}

INSTANTIATE_TEST_SUITE_P(
    process, failing_system_call,
    testing::Values(failing_call{"posix_spawn_file_actions_addchdir_np", ENOMEM, start_in_a_folder},
                    failing_call{"pidfd_open", ESRCH, hold_a_reaped_process},
                    failing_call{"kill", ESRCH, signal_a_process_that_another_reaped},
                    failing_call{"waitpid", ECHILD, wait_for_a_process_that_another_reaped},
                    failing_call{"poll", EINVAL, wait_where_no_descriptor_is_allowed},
                    failing_call{"fcntl", EBADF, collect_from_nowhere}));
