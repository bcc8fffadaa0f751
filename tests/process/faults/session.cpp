#include "process/faults/session.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>
#include <stdexcept>

#include "common/process/unique_fd.h"
#include "support/log_reader.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;
using tarvik::pipe_ends;
using tarvik::unique_fd;

namespace faults {

namespace {

constexpr int kListening = 100; ///< a descriptor that the program gets nowhere near

void require(bool succeeded, const char* step)
{
    if (!succeeded)
        throw std::runtime_error(step);
}

std::string read_to_end(int descriptor)
{
    std::string all;
    char part[4096];
    for (ssize_t count = 1; count > 0;) {
        count = ::read(descriptor, part, sizeof part);
        all.append(part, count > 0 ? static_cast<std::size_t>(count) : 0);
    }
    return all;
}

void set_up_log(logging how)
{
    if (how == logging::off)
        fs::remove_all(support::kLogDirectory);
    else
        support::make_log_directory(how == logging::trace ? 0 : 1);
}

/// What a program finds that a front-end has started.
void take_place_of_program(const pipe_ends& output, const pipe_ends& listening)
{
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(nothing, STDIN_FILENO);
    dup2(output.writing.get(), STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    dup2(listening.writing.get(), kListening);
    for (int descriptor = STDERR_FILENO + 1; descriptor < kListening; ++descriptor)
        close(descriptor);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGPIPE, SIGALRM})
        signal(number, SIG_DFL);
}

/// Everything at once, so that the program finds the same however the two take turns.
std::string converse(const session& what, int port)
{
    bytes all;
    for (const exchange& each : what.exchanges)
        all = support::operator+(std::move(all), each.request);
    const unique_fd wire(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<in_port_t>(port));
    if (connect(wire.get(),
                reinterpret_cast<const sockaddr*>(&address), // the sockets interface asks for this
                sizeof address) != 0)
        return "";
    send(wire.get(), all.data(), all.size(), MSG_NOSIGNAL);
    shutdown(wire.get(), SHUT_WR);
    return read_to_end(wire.get());
}

} // namespace

report& shared_report()
{
    static report* const shared = [] {
        void* const memory =
            mmap(nullptr, sizeof(report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        require(memory != MAP_FAILED, "mmap");
        return new (memory) report;
    }();
    return *shared;
}

outcome run(const session& what, const injection& failure, logging how, const bus_state* before)
{
    report& told = shared_report();
    new (&told) report; // of which the noted calls stay as they are
    set_up_log(how);
    pipe_ends output = tarvik::new_pipe();
    pipe_ends listening = tarvik::new_pipe();
    const pid_t process = fork();
    require(process >= 0, "fork");
    if (process == 0) {
        take_place_of_program(output, listening);
        run_program(what.bus, before, failure, failure.what == target::system_call, kListening, told);
    }
    output.writing.reset();
    listening.writing.reset();
    std::string replies;
    for (char told_so = 0; ::read(listening.reading.get(), &told_so, 1) == 1;)
        if (replies.empty())
            replies = converse(what, told.port);
    outcome result;
    result.process = process;
    require(waitpid(process, &result.status, 0) == process, "waitpid");
    result.output = read_to_end(output.reading.get());
    result.replies = bytes(replies.begin(), replies.end());
    result.log = support::raw_log();
    std::istringstream text(told.text.data());
    for (std::string line; std::getline(text, line);)
        result.dialogue.push_back(line);
    return result;
}

} // namespace faults
