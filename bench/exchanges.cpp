// What a front-end waits for: requests of all sizes, served by the program and by its floor, each of which
// takes its turn in every pass. Both ends have one processor and a network of their own. A line of JSON for
// each figure goes to standard output; scripts/bench makes tables of them.
//
//     exchanges [PASSES]

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "common/process/unique_fd.h"
#include "front_end/src/frame.h"
#include "front_end/src/port_line.h"
#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "support/proc_files.h"
#include "support/wait_until.h"
#include "tvkintif/src/models.h"

using support::kPatience;
using tarvik::request_code;

namespace {

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;
constexpr std::array<std::size_t, 9> kSizes = {20,         512,      4 * kKiB, 16 * kKiB, 64 * kKiB,
                                               256 * kKiB, 1 * kMiB, 4 * kMiB, 8 * kMiB};

void check(bool succeeded, const std::string& step)
{
    if (!succeeded)
        throw std::runtime_error(step + ": " + std::strerror(errno));
}

void write_file(const std::string& path, const std::string& text)
{
    std::ofstream file(path);
    check((file << text << std::flush).good(), "writing " + path);
}

void share_one_processor()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    check(sched_setaffinity(0, sizeof one, &one) == 0, "sched_setaffinity");
}

/// With the plainest congestion control that there is.
void enter_private_network()
{
    check(unshare(CLONE_NEWNET) == 0, "unshare of the network");
    const tarvik::unique_fd any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback = {};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    check(ioctl(any.get(), SIOCSIFFLAGS, &loopback) == 0, "setting up the loopback device");
    write_file("/proc/sys/net/ipv4/tcp_congestion_control", "reno");
}

/// One of the programs that are compared, and a connection to it.
class server {
public:
    explicit server(const tarvik::launch& how)
        : m_process(how), m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<std::uint16_t>(tarvik::read_port_line(m_process, kPatience)));
        check(connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "connect");
        const int on = 1;
        check(setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0, "setsockopt");
        exchange(request_code::open, 0, "usb:1a2b:3c4d", 0);
    }

    /// Sends a request with this payload and takes an ok of `answer` bytes.
    void exchange(request_code code, std::uint32_t id, tarvik::byte_view payload, std::size_t answer)
    {
        tarvik::frame_header request;
        request.id = id;
        request.code = static_cast<std::uint32_t>(code);
        request.size = static_cast<std::uint32_t>(payload.size);
        request.value = static_cast<std::uint32_t>(answer);
        const tarvik::wire_header head = to_wire(request);
        give(head.data(), head.size());
        give(payload.data, payload.size);
        tarvik::wire_header reply;
        take(reply.data(), reply.size());
        if (tarvik::from_wire(reply).error != 0 || tarvik::from_wire(reply).size != answer)
            throw std::runtime_error(m_process.path() + " refused a request");
        m_answer.resize(std::max(m_answer.size(), answer));
        take(m_answer.data(), answer);
    }

private:
    void give(const unsigned char* next, std::size_t left)
    {
        for (ssize_t moved; left > 0; next += moved, left -= static_cast<std::size_t>(moved))
            check((moved = write(m_socket.get(), next, left)) > 0, "write");
    }

    void take(unsigned char* next, std::size_t left)
    {
        for (ssize_t moved; left > 0; next += moved, left -= static_cast<std::size_t>(moved))
            check((moved = read(m_socket.get(), next, left)) > 0, "read");
    }

    tarvik::child_process m_process;
    tarvik::unique_fd m_socket;
    tarvik::bytes m_answer;
};

tarvik::launch alone()
{
    tarvik::launch how;
    how.path = PROGRAM_PATH;
    return how;
}

/// With a scanner on the bus.
tarvik::launch program()
{
    tarvik::launch how = alone();
    how.environment["LD_PRELOAD"] = FAKE_USB_PATH;
    how.environment["FAKE_USB_BUS"] = support::kLogRoot + "/bus.txt";
    how.environment["FAKE_USB_DIALOGUE"] = "/dev/null";
    return how;
}

tarvik::launch floor_of(const std::string& kind)
{
    tarvik::launch how;
    how.path = FLOOR_PATH;
    how.arguments = {kind};
    return how;
}

using microseconds = std::chrono::duration<double, std::micro>;

/// Of one exchange, from as many as take a few milliseconds.
microseconds time_of(server& one, request_code code, std::size_t size)
{
    constexpr std::size_t kBytesAtOnce = 8 * kMiB;
    constexpr std::size_t kMostExchanges = 500;
    const tarvik::bytes payload(code == request_code::send ? size : 0, 7);
    const std::size_t count = std::clamp<std::size_t>(kBytesAtOnce / size, 1, kMostExchanges);
    const auto start = std::chrono::steady_clock::now();
    for (std::size_t i = 0; i < count; ++i)
        one.exchange(code, tarvik::kConnectionId, payload, code == request_code::recv ? size : 0);
    return microseconds(std::chrono::steady_clock::now() - start) / count;
}

void report(const std::string& what, const std::string& who, double figure)
{
    std::printf("{\"what\": \"%s\", \"who\": \"%s\", \"figure\": %.3f}\n", what.c_str(), who.c_str(), figure);
}

void compare_exchanges(int passes)
{
    std::map<std::string, std::unique_ptr<server>> servers;
    servers["bare"] = std::make_unique<server>(floor_of("bare"));
    servers["owed"] = std::make_unique<server>(floor_of("owed"));
    servers["program"] = std::make_unique<server>(program());
    support::make_log_directory(1);
    server logged(program());
    for (int pass = 0; pass < passes; ++pass) {
        for (const std::size_t size : kSizes)
            for (const request_code code : {request_code::recv, request_code::send})
                for (auto& [name, each] : servers) {
                    const char* const direction = code == request_code::recv ? "receive " : "send ";
                    report(direction + std::to_string(size), name, time_of(*each, code, size).count());
                }
        report("receive 512", "logged", time_of(logged, request_code::recv, 512).count());
    }
}

/// From the start to the port line, and what is resident then.
void compare_starts(int passes)
{
    for (int pass = 0; pass < 10 * passes; ++pass)
        for (const char* const name : {"nothing", "program"}) {
            const auto start = std::chrono::steady_clock::now();
            tarvik::child_process one(name == std::string("program") ? alone() : floor_of(name));
            tarvik::read_port_line(one, kPatience);
            report("start", name, microseconds(std::chrono::steady_clock::now() - start).count());
            if (name == std::string("program"))
                report("resident KiB", name, static_cast<double>(support::resident_memory(one.pid())));
        }
}

} // namespace

int main(int count, char** arguments)
{
    if (!support::enter_private_paths()) {
        std::fputs("exchanges: needs a plugin directory of its own; run it as root\n", stderr);
        return 1;
    }
    const int passes = count > 1 ? std::atoi(arguments[1]) : 15;
    enter_private_network();
    share_one_processor();
    support::install_plugin("plugin_filling", std::string(kDefaultPlugin));
    write_file(support::kLogRoot + "/bus.txt", "device scanner 1a2b:3c4d\n");
    compare_starts(passes);
    compare_exchanges(passes);
}
