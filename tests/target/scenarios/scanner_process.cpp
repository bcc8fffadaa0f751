#include "target/scenarios/scanner_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace target {

namespace {

constexpr const char* kVirtualScanner = "/usr/bin/virtual_scanner";
constexpr const char* kDeviceFiles = "/usr/share/virtual-scanner";
constexpr const char* kDiary = "/run/scanner.log";
constexpr tarvik::milliseconds kAnswerLimit{20'000};
constexpr tarvik::milliseconds kEndLimit{5'000};

struct channel_ends {
    tarvik::unique_fd reading;
    tarvik::unique_fd writing;
};

/// Unlike a pipe, it can be written to without a signal when its reader has ended.
channel_ends make_socket_pair()
{
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        throw std::system_error(errno, std::generic_category(), "socketpair");
    return {tarvik::unique_fd(ends[0]), tarvik::unique_fd(ends[1])};
}

/// Where a child's standard streams lead to.
class redirections {
public:
    redirections(int input, int output, const char* error_file)
    {
        ::posix_spawn_file_actions_init(&m_actions);
        ::posix_spawn_file_actions_adddup2(&m_actions, input, STDIN_FILENO);
        ::posix_spawn_file_actions_adddup2(&m_actions, output, STDOUT_FILENO);
        ::posix_spawn_file_actions_addopen(&m_actions, STDERR_FILENO, error_file,
                                           O_WRONLY | O_CREAT | O_TRUNC, 0644);
    }
    redirections(const redirections&) = delete;
    redirections& operator=(const redirections&) = delete;
    ~redirections() { ::posix_spawn_file_actions_destroy(&m_actions); }

    const posix_spawn_file_actions_t* get() const { return &m_actions; }

private:
    posix_spawn_file_actions_t m_actions{};
};

} // namespace

scanner_process::scanner_process(const std::string& device_file)
{
    start(std::filesystem::path(kDeviceFiles) / (device_file + ".device"));
    expect_answer("ready", "start the virtual scanner \"" + device_file + "\"");
}

scanner_process::~scanner_process()
{
    release();
    // The end of its orders is the order to end.
    m_orders.reset();
    m_process->wait(tarvik::deadline(kEndLimit));
}

void scanner_process::hold()
{
    siginfo_t change = {};
    m_process->signal(SIGSTOP);
    // Told when all of its threads have stopped.
    ::waitid(P_PID, static_cast<id_t>(m_process->pid()), &change, WSTOPPED | WEXITED | WNOWAIT);
    if (change.si_code != CLD_STOPPED)
        throw std::runtime_error("hold the virtual scanner: it has ended; it said:\n" + diary());
}

void scanner_process::release()
{
    m_process->signal(SIGCONT);
}

std::string scanner_process::diary()
{
    std::ostringstream text;
    if (std::ifstream file(kDiary); file.peek() != std::ifstream::traits_type::eof())
        text << file.rdbuf();
    return text.str();
}

void scanner_process::start(const std::string& device_file)
{
    channel_ends orders = make_socket_pair();
    channel_ends answers = make_socket_pair();
    const redirections streams(orders.reading.get(), answers.writing.get(), kDiary);
    std::string program = kVirtualScanner;
    std::string argument = device_file;
    const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, kVirtualScanner, streams.get(), nullptr, arguments.data(), environ);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), std::string("start ") + kVirtualScanner);
    m_process.emplace(pid);
    m_orders = std::move(orders.writing);
    m_answers = std::move(answers.reading);
}

void scanner_process::order(const std::string& what)
{
    const std::string line = what + "\n";
    if (::send(m_orders.get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()))
        throw std::runtime_error("tell the virtual scanner to " + what + ": it has ended; it said:\n" +
                                 diary());
    expect_answer("done", what);
}

std::string scanner_process::next_answer()
{
    const tarvik::deadline until(kAnswerLimit);
    std::string line;
    for (char next = 0; next != '\n';) {
        if (!tarvik::wait_until_ready(m_answers.get(), POLLIN, until))
            return line + " (and no more in time)";
        if (::read(m_answers.get(), &next, 1) != 1)
            return line + " (and the end)";
        line += next;
    }
    line.pop_back();
    return line;
}

void scanner_process::expect_answer(const std::string& expected, const std::string& step)
{
    const std::string came = next_answer();
    if (came != expected)
        throw std::runtime_error(step + ": expected \"" + expected + "\", got \"" + came + "\"; it said:\n" +
                                 diary());
}

} // namespace target
