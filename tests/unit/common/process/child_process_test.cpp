#include "common/process/child_process.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <system_error>

#include "common/process/process_error.h"
#include "common/process/unique_fd.h"
#include "support/caught_error.h"
#include "support/process_limits.h"

using namespace std::chrono_literals;
using tarvik::child_process;
using tarvik::exit_status;
using tarvik::launch;
using failure = tarvik::process_error::failure;

namespace {

template <typename Action>
tarvik::process_error error_of(Action action)
{
    return support::caught<tarvik::process_error>(action);
}

constexpr auto kSoon = 10s; ///< longer than anything here takes, but for what must not happen

launch shell(const std::string& script)
{
    launch how;
    how.path = "/bin/sh";
    how.arguments = {"-c", script};
    how.errors = launch::standard_error::capture;
    return how;
}

std::string output_of(const launch& how)
{
    child_process child(how);
    return child.standard_output(kSoon);
}

/// Closes a standard stream of this process for a while.
class closed_stream {
public:
    explicit closed_stream(int number) : m_number(number), m_copy(fcntl(number, F_DUPFD_CLOEXEC, 3))
    {
        close(number);
    }
    closed_stream(const closed_stream&) = delete;
    closed_stream& operator=(const closed_stream&) = delete;
    ~closed_stream() { dup2(m_copy.get(), m_number); }

private:
    int m_number;
    tarvik::unique_fd m_copy;
};

/// Leaves this process without a free descriptor for a while.
class no_descriptors_left {
public:
    no_descriptors_left()
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit none = m_before;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &none);
    }
    no_descriptors_left(const no_descriptors_left&) = delete;
    no_descriptors_left& operator=(const no_descriptors_left&) = delete;
    ~no_descriptors_left() { setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before = {};
};

bool exists(pid_t pid)
{
    return kill(pid, 0) == 0 || errno != ESRCH;
}

} // namespace

TEST(child_process, start_names_the_file_that_is_not_there)
{
    const auto error = error_of([] { child_process child(launch{"/nowhere/program"}); });
    EXPECT_STREQ(error.what(),
                 "start /nowhere/program: expected a program to execute, got No such file or directory");
}

TEST(child_process, start_fails_with_start_failed_when_the_file_may_not_be_executed)
{
    const auto error = error_of([] { child_process child(launch{"/etc/passwd"}); });
    EXPECT_EQ(error.cause(), failure::start_failed);
}

TEST(child_process, start_names_the_working_directory_that_is_not_there)
{
    launch how = shell("exit 0");
    how.working_directory = "/nowhere";
    const auto error = error_of([&] { child_process child(how); });
    EXPECT_STREQ(error.what(),
                 "start /bin/sh: expected a program to execute in /nowhere, got No such file or directory");
}

TEST(child_process, failed_start_leaves_no_child_behind)
{
    error_of([] { child_process child(launch{"/nowhere/program"}); });
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(child_process, start_without_a_free_descriptor_is_an_error_of_this_machine)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' run-time needs descriptors itself; run this in a build without them";
#endif
    const no_descriptors_left here;
    EXPECT_THROW(child_process child(shell("exit 0")), std::system_error);
}

TEST(child_process, start_without_a_process_left_is_an_error_of_this_machine)
{
    SUPPORT_REQUIRE_NO_PROCESSES_LEFT();
    try {
        child_process child(shell("exit 0"));
        FAIL() << "it was started";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
}

TEST(child_process, closed_standard_streams_of_this_process_are_no_obstacle)
{
    const closed_stream input(STDIN_FILENO);
    const closed_stream output(STDOUT_FILENO);
    EXPECT_EQ(output_of(shell("cat 2>&1; echo end")), "end\n");
}

TEST(child_process, arguments_reach_the_program)
{
    launch how;
    how.path = "/bin/echo";
    how.arguments = {"one", "two words"};
    EXPECT_EQ(output_of(how), "one two words\n");
}

TEST(child_process, environment_is_added_to_the_inherited_one)
{
    launch how = shell("echo $ADDED $PATH");
    how.environment["ADDED"] = "new";
    EXPECT_EQ(output_of(how), std::string("new ") + std::getenv("PATH") + "\n");
}

TEST(child_process, environment_replaces_an_inherited_variable)
{
    setenv("REPLACED", "old", 1);
    launch how;
    how.path = "/usr/bin/env";
    how.environment["REPLACED"] = "new";
    const std::string output = output_of(how);
    unsetenv("REPLACED");
    EXPECT_TRUE(output.find("REPLACED=new\n") != std::string::npos &&
                output.find("REPLACED=old\n") == std::string::npos)
        << output;
}

TEST(child_process, working_directory_is_where_the_program_starts)
{
    launch how = shell("pwd");
    how.working_directory = "/proc";
    EXPECT_EQ(output_of(how), "/proc\n");
}

TEST(child_process, standard_input_is_empty)
{
    EXPECT_EQ(output_of(shell("cat; echo end")), "end\n");
}

TEST(child_process, signal_that_this_process_ignores_stays_ignored_in_the_program)
{
    signal(SIGUSR1, SIG_IGN);
    const std::string output = output_of(shell("kill -USR1 $$; echo survived"));
    signal(SIGUSR1, SIG_DFL);
    EXPECT_EQ(output, "survived\n");
}

TEST(child_process, first_line_returns_before_the_program_ends)
{
    child_process child(shell("echo first; exec sleep 600"));
    EXPECT_EQ(child.first_line(100, kSoon).text, "first");
}

TEST(child_process, first_line_tells_that_the_output_ended_without_one)
{
    child_process child(shell("printf half"));
    EXPECT_EQ(child.first_line(100, kSoon).end, child_process::line_end::end_of_output);
}

TEST(child_process, first_line_stops_at_its_limit)
{
    child_process child(shell("printf 123456; exec sleep 600"));
    EXPECT_EQ(child.first_line(4, kSoon).end, child_process::line_end::too_long);
}

TEST(child_process, first_line_of_exactly_the_limit_is_whole)
{
    child_process child(shell("echo 1234"));
    EXPECT_EQ(child.first_line(4, kSoon).text, "1234");
}

TEST(child_process, first_line_returns_what_came_when_time_is_up)
{
    child_process child(shell("exec sleep 600"));
    EXPECT_EQ(child.first_line(4, 20ms).end, child_process::line_end::time_up);
}

TEST(child_process, full_pipe_does_not_hold_up_a_talkative_program)
{
    child_process child(shell("head -c 1000000 /dev/zero; head -c 1000000 /dev/zero >&2; exit 5"));
    EXPECT_EQ(child.wait_for_exit(kSoon), exit_status::exited(5));
}

TEST(child_process, standard_output_is_all_that_was_written)
{
    EXPECT_EQ(output_of(shell("echo one; echo two; head -c 100000 /dev/zero")).size(), 8u + 100000u);
}

TEST(child_process, standard_output_gives_up_when_the_program_does_not_end)
{
    child_process child(shell("echo one; exec sleep 600"));
    child.first_line(100, kSoon);
    const auto error = error_of([&] { child.standard_output(20ms); });
    EXPECT_EQ(error.came(), "4 bytes and no end within 20 ms");
}

TEST(child_process, standard_error_is_complete_when_the_program_has_ended)
{
    child_process child(shell("head -c 50000 /dev/zero >&2"));
    child.wait_for_exit(kSoon);
    EXPECT_EQ(child.standard_error().size(), 50000u);
}

TEST(child_process, standard_error_is_empty_when_it_is_not_captured)
{
    launch how = shell("echo 'this line is expected' >&2");
    how.errors = launch::standard_error::inherit;
    child_process child(how);
    child.wait_for_exit(kSoon);
    EXPECT_EQ(child.standard_error(), "");
}

TEST(child_process, wait_for_exit_returns_the_status_again)
{
    child_process child(shell("exit 7"));
    child.wait_for_exit(kSoon);
    EXPECT_EQ(child.wait_for_exit(kSoon), exit_status::exited(7));
}

TEST(child_process, wait_for_exit_gives_up_at_its_deadline)
{
    child_process child(shell("exec sleep 600"));
    const auto error = error_of([&] { child.wait_for_exit(20ms); });
    EXPECT_STREQ(error.what(),
                 "wait for /bin/sh: expected its end, got a process that still runs after 20 ms");
}

TEST(child_process, try_wait_for_exit_returns_nothing_at_its_deadline)
{
    child_process child(shell("exec sleep 600"));
    EXPECT_EQ(child.try_wait_for_exit(20ms), std::nullopt);
}

TEST(child_process, signal_that_ends_the_program_is_its_exit_status)
{
    child_process child(shell("exec sleep 600"));
    child.signal(SIGTERM);
    EXPECT_EQ(child.wait_for_exit(kSoon), exit_status::killed_by(SIGTERM));
}

TEST(child_process, signal_to_a_reaped_process_goes_nowhere)
{
    child_process child(shell("exit 0"));
    child.wait_for_exit(kSoon);
    EXPECT_FALSE(child.signal(SIGTERM));
}

TEST(child_process, destructor_kills_and_reaps)
{
    pid_t pid = 0;
    {
        child_process child(shell("trap '' TERM; echo ready; exec sleep 600"));
        child.first_line(100, kSoon);
        pid = child.pid();
    }
    EXPECT_FALSE(exists(pid));
}

TEST(child_process, grandchild_that_keeps_the_pipe_does_not_hold_up_the_destructor)
{
    pid_t grandchild = 0;
    {
        child_process child(shell("sleep 600 & echo $!"));
        grandchild = std::stoi(child.first_line(100, kSoon).text);
        child.wait_for_exit(kSoon);
    }
    EXPECT_EQ(kill(grandchild, SIGKILL), 0);
}

TEST(exit_status, text_names_a_status)
{
    EXPECT_EQ(exit_status::exited(3).text(), "exit status 3");
}

TEST(exit_status, stream_shows_the_text)
{
    std::ostringstream out;
    out << exit_status::exited(3);
    EXPECT_EQ(out.str(), "exit status 3");
}

TEST(exit_status, text_names_a_signal)
{
    EXPECT_EQ(exit_status::killed_by(9).text(), "signal 9 (Killed)");
}

TEST(exit_status, text_of_a_signal_without_a_name_is_its_number)
{
    EXPECT_EQ(exit_status::killed_by(120).text(), "signal 120 (unnamed)");
}

TEST(exit_status, status_and_signal_of_the_same_number_differ)
{
    EXPECT_NE(exit_status::exited(9), exit_status::killed_by(9));
}
