#include "tvkctl/src/plugin/plugin_trial.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

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
constexpr int kPiecesAtOnce = 16; // of 4 KiB: a pipe's capacity
/// For a process that hangs to say where, before it is ended without being asked.
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

/// Takes what is written to a pipe, so that the writer is not held up; keeps the beginning.
class bounded_output {
public:
    bounded_output() = default;
    explicit bounded_output(unique_fd pipe) : m_pipe(std::move(pipe))
    {
        fcntl(m_pipe.get(), F_SETFL, O_NONBLOCK);
    }

    /// Takes what is there, up to a full pipe: a writer that never stops must not hold this up.
    void drain()
    {
        for (int piece = 0; m_pipe && piece < kPiecesAtOnce; ++piece)
            if (!take_piece())
                return;
    }

    pollfd to_poll() const { return {m_pipe.get(), POLLIN, 0}; }
    const std::string& text() const { return m_text; }
    std::uint64_t size() const { return m_size; }

private:
    bool take_piece()
    {
        std::array<char, 4096> piece;
        const ssize_t got = ::read(m_pipe.get(), piece.data(), piece.size());
        if (got > 0)
            keep(piece.data(), static_cast<std::size_t>(got));
        if (got == 0)
            m_pipe.reset(); // nobody can write any more
        return got > 0;
    }

    void keep(const char* piece, std::size_t size)
    {
        m_size += size;
        m_text.append(piece, std::min(size, kOutputKept - m_text.size()));
    }

    unique_fd m_pipe;
    std::string m_text;
    std::uint64_t m_size = 0;
};

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

/// The process of a trial, watched from outside. Ends it, and all that it started, on destruction.
class trial_process {
public:
    trial_process(const trial_plan& plan, trial_notes& notes);
    trial_process(const trial_process&) = delete;
    trial_process& operator=(const trial_process&) = delete;
    ~trial_process();

    /// Waits for the end, taking what is printed meanwhile; false when time is up.
    bool wait_for_end(milliseconds timeout);
    /// Has it write down where it is, and ends it.
    void end_by_force();
    /// Waits for the end; may be called again.
    exit_status take_status();
    /// Ends what it left running; whether there was anything. To be called after take_status().
    bool end_left_processes() const;

    const bounded_output& output() const { return m_output; }
    const bounded_output& errors() const { return m_errors; }

private:
    void start(const trial_plan& plan, trial_notes& notes);

    adoption m_adoption;
    pid_t m_pid = -1;
    unique_fd m_handle;                  ///< readable once the process has ended
    std::optional<exit_status> m_status; ///< set when it has been reaped
    bounded_output m_output;
    bounded_output m_errors;
};

trial_process::trial_process(const trial_plan& plan, trial_notes& notes)
{
    pipe_ends output = new_pipe();
    pipe_ends errors = new_pipe();
    m_pid = fork_trial(plan, notes, output, errors);
    m_output = bounded_output(std::move(output.reading));
    m_errors = bounded_output(std::move(errors.reading));
    try {
        m_handle = open_process(m_pid);
    } catch (const std::system_error&) {
        kill(m_pid, SIGKILL);
        take_status();
        throw;
    }
}

trial_process::~trial_process()
{
    kill(-m_pid, SIGKILL);
    take_status();
    end_left_processes();
}

bool trial_process::wait_for_end(milliseconds timeout)
{
    const deadline until(timeout);
    for (;;) {
        std::array<pollfd, 3> waited = {pollfd{m_handle.get(), POLLIN, 0}, m_output.to_poll(),
                                        m_errors.to_poll()};
        poll(waited.data(), waited.size(), static_cast<int>(until.left().count()));
        m_output.drain();
        m_errors.drain();
        if ((waited[0].revents & POLLIN) != 0)
            return true;
        if (until.left() == milliseconds::zero())
            return false;
    }
}

void trial_process::end_by_force()
{
    kill(m_pid, kWhereAreYou);
    if (!wait_for_end(kLastWords))
        kill(m_pid, SIGKILL);
}

exit_status trial_process::take_status()
{
    if (!m_status)
        m_status = reap_process(m_pid);
    return *m_status;
}

bool trial_process::end_left_processes() const
{
    while (waitpid(-m_pid, nullptr, WNOHANG) > 0) { // those that have ended are no trouble
    }
    const bool has_left_some = kill(-m_pid, SIGKILL) == 0;
    while (waitpid(-m_pid, nullptr, 0) > 0) {
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
    return ctor.result == 0 ? trial_report::outcome::refused : trial_report::outcome::completed;
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
    report.reads = notes.reads;
    report.writes = notes.writes;
    report.bad_transfers = notes.bad_transfers;
    report.late_transfers = notes.late_transfers;
    report.left_buffer_untouched = notes.left_buffer_untouched;
    report.threads = split(text_of(notes.threads), '\n');
    report.descriptors = split(text_of(notes.descriptors), '\n');
}

void take_output(trial_report& report, const trial_process& process)
{
    report.output = process.output().text();
    report.output_size = process.output().size();
    report.errors = process.errors().text();
    report.errors_size = process.errors().size();
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
    trial_process process(from_anywhere, *notes);
    const bool has_ended = process.wait_for_end(plan.timeout + kThreadsMayTake);
    if (!has_ended)
        process.end_by_force();
    trial_report report{};
    report.status = process.take_status();
    report.has_left_processes = process.end_left_processes();
    report.end = has_ended ? outcome_of(*notes, report.status) : trial_report::outcome::hung;
    take_notes(report, *notes);
    take_output(report, process);
    return report;
}

} // namespace tarvik::tvkctl
