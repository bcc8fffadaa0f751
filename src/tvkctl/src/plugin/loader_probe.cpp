#include "tvkctl/src/plugin/loader_probe.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/process/process_handle.h"
#include "common/process/unique_fd.h"
#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

// The child's report, a line each: a word, and what there is to say.
constexpr const char* kRefused = "refused ";
constexpr const char* kMissing = "missing ";
constexpr const char* kLoaded = "loaded";
constexpr const char* kUnloaded = "unloaded";

void tell(int report, const std::string& line)
{
    const std::string whole = line + "\n";
    if (::write(report, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size()))
        _exit(1);
}

/// What the library writes while it is loaded is not this command's output.
void silence_output()
{
    const int nowhere = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nowhere < 0 || dup2(nowhere, STDOUT_FILENO) < 0 || dup2(nowhere, STDERR_FILENO) < 0)
        _exit(1);
}

void load_here(const std::string& path, const std::vector<std::string>& functions, int report)
{
    silence_output();
    void* library = dlopen(path.c_str(), RTLD_LAZY);
    if (library == nullptr) {
        tell(report, kRefused + std::string(dlerror()));
        return;
    }
    for (const std::string& name : functions)
        if (dlsym(library, name.c_str()) == nullptr)
            tell(report, kMissing + name);
    tell(report, kLoaded);
    dlclose(library);
    tell(report, kUnloaded);
}

/// A child of this process, with a process group of its own; killed with all of it and reaped on destruction.
class child {
public:
    explicit child(pid_t pid) : m_pid(pid), m_handle(open_process(pid)) {}
    child(const child&) = delete;
    child& operator=(const child&) = delete;
    ~child() { end(); }

    bool ends_before(const deadline& until) const { return wait_until_ready(m_handle.get(), POLLIN, until); }

    /// Ends it if it still runs.
    exit_status end()
    {
        if (m_pid < 0)
            return m_status;
        ::kill(-m_pid, SIGKILL); // also what it started; its number is still its own, not having been reaped
        m_status = reap_process(std::exchange(m_pid, -1));
        return m_status;
    }

private:
    pid_t m_pid; ///< -1: reaped
    unique_fd m_handle;
    exit_status m_status = exit_status::exited(0);
};

/// What is in a pipe whose writers may still live.
std::string read_what_is_there(int pipe)
{
    std::string text;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while ((count = TEMP_FAILURE_RETRY(read(pipe, piece.data(), piece.size()))) > 0)
        text.append(piece.data(), static_cast<std::size_t>(count));
    return text;
}

bool takes_word(std::string& line, const char* word)
{
    if (line.rfind(word, 0) != 0)
        return false;
    line.erase(0, std::string(word).size());
    return true;
}

load_attempt read_report(const std::string& report, load_attempt::outcome without_end)
{
    load_attempt attempt;
    attempt.end = without_end;
    for (std::string& line : split(report, '\n')) {
        if (takes_word(line, kRefused)) {
            attempt.end = load_attempt::outcome::refused;
            attempt.words = line;
        } else if (takes_word(line, kMissing)) {
            attempt.missing.push_back(line);
        } else if (line == kLoaded) {
            attempt.was_loaded = true;
        } else if (line == kUnloaded) {
            attempt.end = load_attempt::outcome::loaded;
        }
    }
    return attempt;
}

} // namespace

load_attempt try_to_load(const std::string& path, const std::vector<std::string>& functions,
                         milliseconds timeout)
{
    const deadline until(timeout);
    pipe_ends report = new_pipe();
    const pid_t pid = fork();
    if (pid < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    setpgid(pid, 0); // on both sides, so that it is done whoever comes first
    if (pid == 0) {
        load_here(path, functions, report.writing.get());
        _exit(0);
    }
    child loader(pid);
    const bool has_ended = loader.ends_before(until);
    const exit_status status = loader.end();
    // The library may have left a process behind that holds the pipe open.
    fcntl(report.reading.get(), F_SETFL, O_NONBLOCK);
    load_attempt attempt = read_report(read_what_is_there(report.reading.get()),
                                       has_ended ? load_attempt::outcome::died : load_attempt::outcome::hung);
    attempt.status = status;
    return attempt;
}

} // namespace tarvik::tvkctl
