#include "support/proc_files.h"

#include <arpa/inet.h>
#include <sys/syscall.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace support {

namespace {

std::ifstream proc_file(pid_t process, const std::string& name)
{
    return std::ifstream("/proc/" + std::to_string(process) + "/" + name);
}

/// What stands behind `name` in the process's status.
std::string status_of(pid_t process, const std::string& name)
{
    std::ifstream file = proc_file(process, "status");
    for (std::string text; std::getline(file, text);)
        if (text.rfind(name + ":", 0) == 0)
            return text.substr(name.size() + 1);
    throw std::runtime_error("process " + std::to_string(process) + " has no " + name + " any more");
}

struct socket_line {
    std::string address; ///< hexadecimal, as the kernel prints it
    int port;
    std::string state;
    std::string inode;
};

std::vector<socket_line> socket_lines(const std::string& path)
{
    std::ifstream file(path);
    std::vector<socket_line> result;
    std::string line;
    std::getline(file, line); // the table's head
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string slot;
        std::string local;
        std::string remote;
        socket_line next;
        std::string queues;
        std::string timer;
        std::string retransmits;
        std::string user;
        std::string timeout;
        fields >> slot >> local >> remote >> next.state >> queues >> timer >> retransmits >> user >>
            timeout >> next.inode;
        next.address = local.substr(0, local.find(':'));
        next.port = std::stoi(local.substr(local.find(':') + 1), nullptr, 16);
        result.push_back(next);
    }
    return result;
}

std::string address_text(const std::string& hex)
{
    in_addr address = {};
    address.s_addr = static_cast<in_addr_t>(std::stoul(hex, nullptr, 16));
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &address, text, sizeof text);
    return text;
}

std::string state_name(const std::string& number)
{
    static const std::map<std::string, std::string> names = {
        {"01", "ESTABLISHED"}, {"06", "TIME_WAIT"}, {"08", "CLOSE_WAIT"}, {"0A", "LISTEN"}};
    const auto found = names.find(number);
    return found == names.end() ? number : found->second;
}

} // namespace

std::uint64_t signal_set(std::initializer_list<int> signals)
{
    std::uint64_t set = 0;
    for (const int number : signals)
        set |= std::uint64_t{1} << static_cast<unsigned int>(number - 1);
    return set;
}

std::uint64_t signals_in(pid_t process, const std::string& line)
{
    return std::stoull(status_of(process, line), nullptr, 16);
}

std::size_t open_descriptors(pid_t process)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

std::size_t resident_memory(pid_t process)
{
    return std::stoul(status_of(process, "VmRSS"));
}

long processor_ticks(pid_t process)
{
    constexpr int kFieldsBetween =
        11; // the name, in brackets, is the second; user and system time the 14th, 15th
    std::ifstream file = proc_file(process, "stat");
    std::string skipped;
    std::getline(file, skipped, ')');
    for (int i = 0; i < kFieldsBetween; ++i)
        file >> skipped;
    long user = 0;
    long system = 0;
    file >> user >> system;
    return user + system;
}

bool is_stopped(pid_t process)
{
    return status_of(process, "State").find('T') != std::string::npos;
}

bool is_waiting_in(pid_t process, long system_call)
{
    std::ifstream file = proc_file(process, "syscall"); // begins with the number, or with "running"
    long current = -1;
    return file >> current && current == system_call;
}

bool is_waiting_to_read(pid_t process, std::size_t size)
{
    std::ifstream file = proc_file(process, "syscall"); // "NUMBER 0xARGUMENT..."
    long current = -1;
    std::string descriptor;
    std::string buffer;
    std::string length;
    return file >> current >> descriptor >> buffer >> length && current == SYS_read &&
           std::stoull(length, nullptr, 16) == size;
}

int listening_port(pid_t process)
{
    std::set<std::string> owned;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        std::error_code vanished;
        owned.insert(std::filesystem::read_symlink(entry.path(), vanished).string());
    }
    for (const socket_line& line : socket_lines("/proc/net/tcp"))
        if (state_name(line.state) == "LISTEN" && owned.count("socket:[" + line.inode + "]") != 0)
            return line.port;
    return -1;
}

std::vector<std::string> sockets_on(int port)
{
    std::vector<std::string> result;
    for (const socket_line& line : socket_lines("/proc/net/tcp"))
        if (line.port == port)
            result.push_back(address_text(line.address) + " " + state_name(line.state));
    return result;
}

bool has_ipv6_socket_on(int port)
{
    for (const socket_line& line : socket_lines("/proc/net/tcp6"))
        if (line.port == port)
            return true;
    return false;
}

} // namespace support
