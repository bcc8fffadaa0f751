#include "tvkctl/src/plugin/plugin_trial.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <utility>

#include "common/process/output_collector.h"
#include "common/process/process_handle.h"
#include "common/process/unique_fd.h"
#include "common/text/text.h"
#include "tvkctl/src/plugin/crash_place.h"
#include "tvkctl/src/plugin/trial_child.h"
#include "tvkctl/src/plugin/trial_notes.h"

namespace tarvik::tvkctl {

namespace {

/// A plugin may print without end.
constexpr std::size_t kOutputKept = 4096;
/// How long a process that hangs may take to write down where, before it is killed.
constexpr milliseconds kLastWords{1000};

[[noreturn]] void throw_system_error(const char* call)
{
    throw std::system_error(errno, std::generic_category(), call);
}

struct shared_notes_deleter {
    void operator()(trial_notes* notes) const { munmap(notes, sizeof *notes); }
};
using shared_notes = std::unique_ptr<trial_notes, shared_notes_deleter>;

/// Zeroed notes that a forked process shares.
shared_notes new_shared_notes()
{
    void* memory =
        mmap(nullptr, sizeof(trial_notes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw_system_error("mmap");
    return shared_notes(new (memory) trial_notes{});
}

/// Gives the process of the trial its surroundings. It gets a group of its own, so that whatever it starts
/// can be ended with it; it must not outlive the one that watches it.
void settle_in_child(int output, int errors)
{
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const int input = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const bool is_redirected = dup2(input, STDIN_FILENO) >= 0 && dup2(output, STDOUT_FILENO) >= 0 &&
                               dup2(errors, STDERR_FILENO) >= 0;
    if (!is_redirected)
        _exit(EXIT_FAILURE);
    closefrom(STDERR_FILENO + 1);
}

/// While it lives, processes whose parent ends become this process's children: what a plugin starts and
/// leaves behind can be waited for.
class adoption {
public:
    adoption() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    adoption(const adoption&) = delete;
    adoption& operator=(const adoption&) = delete;
    ~adoption() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
};

pid_t fork_trial(const trial_plan& plan, trial_notes& notes, const pipe_ends& output, const pipe_ends& errors)
{
    std::fflush(nullptr); // what this process has not written yet must not be written twice
    const pid_t pid = fork();
    if (pid == -1)
        throw_system_error("fork");
    if (pid == 0) {
        settle_in_child(output.writing.get(), errors.writing.get());
        run_trial_here(plan, notes);
    }
    setpgid(pid, pid); // on both sides, so that it holds whoever comes first
    return pid;
}

/// The process of a trial with all that it starts, which is its process group. Ends them on destruction.
class trial_process {
public:
    explicit trial_process(pid_t leader) : m_leader(leader) {}
    trial_process(const trial_process&) = delete;
    trial_process& operator=(const trial_process&) = delete;
    ~trial_process()
    {
        m_leader.end();
        end_left_processes();
    }

    /// Waits for the end; nullopt when time is up.
    std::optional<exit_status> wait(milliseconds timeout) { return m_leader.wait(deadline(timeout)); }
    /// Has it write down where it is, and ends it.
    exit_status end_by_force();
    /// Ends what it left running; whether there was anything. To be called after its own end.
    bool end_left_processes() const;

private:
    process_handle m_leader;
};

exit_status trial_process::end_by_force()
{
    m_leader.signal(kWhereAreYou);
    m_leader.wait(deadline(kLastWords));
    return m_leader.end();
}

bool trial_process::end_left_processes() const
{
    const pid_t group = m_leader.pid();
    while (waitpid(-group, nullptr, WNOHANG) > 0) { // those that have ended do not count
    }
    const bool has_left_some = kill(-group, SIGKILL) == 0;
    while (waitpid(-group, nullptr, 0) > 0) {
    }
    return has_left_some;
}

std::string text_of(const trial_notes::text& text)
{
    return {text.data(), strnlen(text.data(), text.size())};
}

trial_step step_of(const trial_notes& notes)
{
    return static_cast<trial_step>(std::clamp(notes.step.load(), 0, static_cast<int>(trial_step::done)));
}

trial_report::outcome outcome_of(const trial_notes& notes, const exit_status& status)
{
    if (status != exit_status::exited(EXIT_SUCCESS))
        return trial_report::outcome::died;
    if (notes.is_not_loadable)
        return trial_report::outcome::not_loadable;
    if (notes.has_thrown)
        return trial_report::outcome::threw;
    if (step_of(notes) != trial_step::done)
        return trial_report::outcome::died;
    const auto& ctor = notes.calls[static_cast<std::size_t>(trial_step::ctor)];
    const bool has_refused = ctor.has_returned && ctor.result == 0;
    return has_refused ? trial_report::outcome::refused : trial_report::outcome::completed;
}

std::vector<trial_call> calls_of(const trial_notes& notes)
{
    std::vector<trial_call> calls;
    for (std::size_t step = 0; step < notes.calls.size(); ++step)
        if (const trial_notes::call& call = notes.calls[step]; call.has_returned)
            calls.push_back({static_cast<trial_step>(step), call.result,
                             std::chrono::microseconds(call.microseconds.load())});
    return calls;
}

void take_notes(trial_report& report, const trial_notes& notes)
{
    report.last = step_of(notes);
    report.place = text_of(notes.place);
    report.words = text_of(notes.words);
    report.calls = calls_of(notes);
    report.missing = split(text_of(notes.missing), '\n');
    report.reads = notes.reads;
    report.writes = notes.writes;
    report.bad_transfers = notes.bad_transfers;
    report.late_transfers = notes.late_transfers;
    report.left_buffer_untouched = notes.left_buffer_untouched;
    report.threads = split(text_of(notes.threads), '\n');
    report.descriptors = split(text_of(notes.descriptors), '\n');
}

/// For how long a trial may run; what is left behind is looked for after the last call.
milliseconds time_for(const trial_plan& plan)
{
    return plan.extent == trial_extent::session ? plan.timeout + kThreadsMayTake : plan.timeout;
}

} // namespace

const char* trial_step_name(trial_step step)
{
    switch (step) {
    case trial_step::start:
        return "start";
    case trial_step::load:
        return "load";
    case trial_step::ctor:
        return "interpreter_ctor";
    case trial_step::writer:
        return "interpreter_writer";
    case trial_step::reader:
        return "interpreter_reader";
    case trial_step::dtor:
        return "interpreter_dtor";
    case trial_step::unload:
        return "unload";
    case trial_step::done:
        break;
    }
    return "end";
}

trial_report try_plugin(const trial_plan& plan)
{
    trial_plan from_anywhere = plan;
    from_anywhere.path = std::filesystem::absolute(plan.path); // a bare name would be searched for
    const shared_notes notes = new_shared_notes();
    pipe_ends output_pipe = new_pipe();
    pipe_ends errors_pipe = new_pipe();
    const adoption of_orphans;
    trial_process process(fork_trial(from_anywhere, *notes, output_pipe, errors_pipe));
    output_collector output(std::move(output_pipe.reading), kOutputKept);
    output_collector errors(std::move(errors_pipe.reading), kOutputKept);

    trial_report report{};
    const auto status = process.wait(time_for(plan));
    report.end = status ? outcome_of(*notes, *status) : trial_report::outcome::hung;
    report.status = status ? *status : process.end_by_force();
    report.has_left_processes = process.end_left_processes();
    take_notes(report, *notes);
    report.output = output.text();
    report.output_size = output.size();
    report.errors = errors.text();
    report.errors_size = errors.size();
    return report;
}

} // namespace tarvik::tvkctl
