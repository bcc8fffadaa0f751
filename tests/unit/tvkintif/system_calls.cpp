#include "unit/tvkintif/system_calls.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <utility>

namespace unit {

namespace {

thread_local system_calls* current = nullptr;

} // namespace

system_calls::system_calls()
{
    current = this;
}

system_calls::~system_calls()
{
    current = nullptr;
}

void system_calls::fail(const std::string& function, int error, int nth)
{
    script& entry = m_scripts[function];
    entry.errors[nth == 0 ? 0 : entry.calls + nth] = error;
}

void system_calls::answer(const std::string& function, int result)
{
    m_scripts[function].answers.push_back(result);
}

void system_calls::limit(const std::string& function, std::size_t bytes)
{
    m_scripts[function].limit = bytes;
}

void system_calls::before(const std::string& function, std::function<void()> action)
{
    m_scripts[function].action = std::move(action);
}

std::vector<std::string> system_calls::lines_of(const std::string& function) const
{
    std::vector<std::string> found;
    std::copy_if(m_lines.begin(), m_lines.end(), std::back_inserter(found),
                 [&](const std::string& line) { return line.substr(0, line.find(' ')) == function; });
    return found;
}

std::vector<std::string> system_calls::take_lines()
{
    return std::exchange(m_lines, {});
}

int system_calls::descriptor(const std::string& name) const
{
    const auto found = m_descriptors.find(name);
    return found == m_descriptors.end() ? -1 : found->second;
}

void system_calls::close_forgotten()
{
    const std::map<int, std::string> open = m_names;
    for (const auto& [descriptor, name] : open)
        if (descriptor > STDERR_FILENO)
            ::close(descriptor);
}

system_calls* system_calls::watching()
{
    return current != nullptr && !current->m_isActing ? current : nullptr;
}

bool system_calls::replaces(const std::string& function, int& result)
{
    script& entry = m_scripts[function];
    const int call = ++entry.calls;
    if (entry.action) {
        m_isActing = true;
        entry.action();
        m_isActing = false;
    }
    if (!entry.answers.empty()) {
        result = entry.answers.front();
        entry.answers.erase(entry.answers.begin());
        return true;
    }
    const auto this_one = entry.errors.find(call);
    const auto error = this_one != entry.errors.end() ? this_one : entry.errors.find(0);
    if (error == entry.errors.end())
        return false;
    errno = error->second;
    result = -1;
    return true;
}

std::size_t system_calls::limited(const std::string& function, std::size_t bytes) const
{
    const auto found = m_scripts.find(function);
    return found == m_scripts.end() ? bytes : std::min(bytes, found->second.limit);
}

std::string system_calls::name_of(int descriptor) const
{
    const auto found = m_names.find(descriptor);
    return found == m_names.end() ? std::to_string(descriptor) : found->second;
}

std::string system_calls::name_new(int descriptor)
{
    if (descriptor < 0)
        return std::to_string(descriptor);
    const std::string name = "#" + std::to_string(m_descriptors.size() + 1);
    m_names[descriptor] = name;
    m_descriptors[name] = descriptor;
    return name;
}

void system_calls::forget(int descriptor)
{
    m_names.erase(descriptor);
}

} // namespace unit

using unit::system_calls;

namespace {

std::string name_of_option(int level, int option)
{
    if (level == IPPROTO_TCP && option == TCP_NODELAY)
        return "IPPROTO_TCP TCP_NODELAY";
    if (level != SOL_SOCKET)
        return std::to_string(level) + " " + std::to_string(option);
    switch (option) {
    case SO_REUSEADDR:
        return "SOL_SOCKET SO_REUSEADDR";
    case SO_KEEPALIVE:
        return "SOL_SOCKET SO_KEEPALIVE";
    case SO_RCVTIMEO:
        return "SOL_SOCKET SO_RCVTIMEO";
    case SO_SNDTIMEO:
        return "SOL_SOCKET SO_SNDTIMEO";
    default:
        return "SOL_SOCKET " + std::to_string(option);
    }
}

std::string text_of_value(const void* value, socklen_t size)
{
    if (size == sizeof(timeval)) {
        timeval time = {};
        std::memcpy(&time, value, sizeof time);
        const std::string fraction = time.tv_usec == 0 ? "" : " " + std::to_string(time.tv_usec) + " us";
        return std::to_string(time.tv_sec) + " s" + fraction;
    }
    int number = 0;
    if (size != sizeof number)
        return "of " + std::to_string(size) + " bytes";
    std::memcpy(&number, value, sizeof number);
    return std::to_string(number);
}

std::string text_of_address(const sockaddr* address, socklen_t size)
{
    sockaddr_in known = {};
    if (size != sizeof known)
        return "of " + std::to_string(size) + " bytes";
    std::memcpy(&known, address, sizeof known);
    std::string text(INET_ADDRSTRLEN, '\0');
    inet_ntop(AF_INET, &known.sin_addr, text.data(), INET_ADDRSTRLEN);
    return text.substr(0, text.find('\0')) + ":" + std::to_string(ntohs(known.sin_port));
}

std::string text_of_signals(const sigset_t* signals)
{
    std::string text;
    for (int number = 1; signals != nullptr && number < SIGRTMIN; ++number)
        if (sigismember(signals, number) == 1)
            text += " " + std::to_string(number);
    return text;
}

std::string text_of_mask_change(int how, const sigset_t* signals)
{
    if (how == SIG_BLOCK)
        return "sigprocmask SIG_BLOCK" + text_of_signals(signals);
    if (how == SIG_SETMASK)
        return "sigprocmask SIG_SETMASK" + text_of_signals(signals);
    return "sigprocmask " + std::to_string(how) + text_of_signals(signals);
}

/// "NAME #1 WHAT", and the result when it is not the usual 0.
void record(system_calls& calls, const std::string& function, int descriptor, const std::string& what,
            int result)
{
    const std::string detail = what.empty() ? "" : " " + what;
    const std::string outcome = result == 0 ? "" : " -> " + std::to_string(result);
    calls.record(function + " " + calls.name_of(descriptor) + detail + outcome);
}

/// A call that moves bytes: made with no more than the limit allows.
template <typename Call>
ssize_t transfer(const std::string& function, int descriptor, std::size_t size, const std::string& flags,
                 Call call)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr)
        return call(size);
    int result = 0;
    ssize_t moved = 0;
    if (calls->replaces(function, result))
        moved = result;
    else
        moved = call(calls->limited(function, size));
    const int error = errno;
    calls->record(function + " " + calls->name_of(descriptor) + " " + std::to_string(size) + flags + " -> " +
                  std::to_string(moved));
    errno = error;
    return moved;
}

/// A call on a descriptor that returns 0 or -1.
template <typename Call, typename Describe>
int plain(const std::string& function, int descriptor, Describe describe, Call call)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr)
        return call();
    int result = 0;
    if (!calls->replaces(function, result))
        result = call();
    const int error = errno;
    record(*calls, function, descriptor, describe(), result);
    errno = error;
    return result;
}

/// 127.0.0.1, 127.0.0.2 and so on.
hostent* host_with_addresses(int count)
{
    static std::vector<in_addr> addresses;
    static std::vector<char*> list;
    static hostent host = {};
    addresses.clear();
    for (int i = 0; i < count; ++i)
        addresses.push_back({htonl(INADDR_LOOPBACK + static_cast<in_addr_t>(i))});
    list.clear();
    for (in_addr& each : addresses)
        list.push_back(reinterpret_cast<char*>(&each)); // the interface's own kind of address
    list.push_back(nullptr);
    host.h_addrtype = AF_INET;
    host.h_length = sizeof(in_addr);
    host.h_addr_list = list.data();
    return &host;
}

/// As the log's is, about which these tests do not care.
bool is_file(int fd)
{
    struct stat status = {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

} // namespace

// The linker's --wrap hands every call of NAME to __wrap_NAME and reaches the C library as __real_NAME.
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __real_getsockname(int fd, sockaddr* address, socklen_t* size);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, sockaddr* address, socklen_t* size);
int __real_connect(int fd, const sockaddr* address, socklen_t size);
hostent* __real_gethostbyname(const char* name);
int __real_fcntl(int fd, int command, ...);
int __real_close(int fd);
ssize_t __real_read(int fd, void* buffer, std::size_t size);
ssize_t __real_write(int fd, const void* buffer, std::size_t size);
ssize_t __real_recv(int fd, void* buffer, std::size_t size, int flags);
ssize_t __real___read_chk(int fd, void* buffer, std::size_t size, std::size_t buffer_size);
ssize_t __real___recv_chk(int fd, void* buffer, std::size_t size, std::size_t buffer_size, int flags);
int __real_sigprocmask(int how, const sigset_t* signals, sigset_t* previous);

int __wrap_socket(int domain, int type, int protocol)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr)
        return __real_socket(domain, type, protocol);
    int result = 0;
    if (!calls->replaces("socket", result))
        result = __real_socket(domain, type, protocol);
    const int error = errno;
    const std::string kind = domain == AF_INET && type == SOCK_STREAM
                                 ? "AF_INET SOCK_STREAM"
                                 : std::to_string(domain) + " " + std::to_string(type);
    calls->record("socket " + kind + " " + std::to_string(protocol) + " -> " + calls->name_new(result));
    errno = error;
    return result;
}

int __wrap_accept(int fd, sockaddr* address, socklen_t* size)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr)
        return __real_accept(fd, address, size);
    int result = 0;
    if (!calls->replaces("accept", result))
        result = __real_accept(fd, address, size);
    const int error = errno;
    const std::string listening = calls->name_of(fd);
    calls->record("accept " + listening + " -> " + calls->name_new(result));
    errno = error;
    return result;
}

hostent* __wrap_gethostbyname(const char* name)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr)
        return __real_gethostbyname(name);
    int result = 0;
    calls->record(std::string("gethostbyname ") + name);
    if (!calls->replaces("gethostbyname", result))
        return __real_gethostbyname(name);
    return result < 0 ? nullptr : host_with_addresses(result);
}

int __wrap_close(int fd)
{
    system_calls* calls = system_calls::watching();
    if (calls == nullptr || is_file(fd))
        return __real_close(fd);
    int result = 0;
    const bool is_replaced = calls->replaces("close", result);
    const int cause = errno;
    const int real = __real_close(fd);
    errno = is_replaced ? cause : errno;
    result = is_replaced ? result : real;
    const int error = errno;
    record(*calls, "close", fd, "", result);
    calls->forget(fd);
    errno = error;
    return result;
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size)
{
    return plain(
        "bind", fd, [&] { return text_of_address(address, size); },
        [&] { return __real_bind(fd, address, size); });
}

int __wrap_connect(int fd, const sockaddr* address, socklen_t size)
{
    return plain(
        "connect", fd, [&] { return text_of_address(address, size); },
        [&] { return __real_connect(fd, address, size); });
}

int __wrap_getsockname(int fd, sockaddr* address, socklen_t* size)
{
    return plain(
        "getsockname", fd, [] { return std::string(); },
        [&] { return __real_getsockname(fd, address, size); });
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size)
{
    return plain(
        "setsockopt", fd, [&] { return name_of_option(level, option) + " " + text_of_value(value, size); },
        [&] { return __real_setsockopt(fd, level, option, value, size); });
}

int __wrap_listen(int fd, int backlog)
{
    return plain(
        "listen", fd, [&] { return std::to_string(backlog); }, [&] { return __real_listen(fd, backlog); });
}

// The third argument of the commands that are used here is an int or absent.
int __wrap_fcntl(int fd, int command, ...)
{
    if (command == F_GETFL || command == F_GETFD)
        return plain(
            "fcntl", fd, [&] { return command == F_GETFL ? std::string("F_GETFL") : "F_GETFD"; },
            [&] { return __real_fcntl(fd, command); });
    std::va_list arguments;
    va_start(arguments, command);
    const int argument = va_arg(arguments, int);
    va_end(arguments);
    const auto describe = [&]() -> std::string {
        if (command == F_SETFD && argument == FD_CLOEXEC)
            return "F_SETFD FD_CLOEXEC";
        if (command == F_SETFL)
            return (argument & O_NONBLOCK) != 0 ? "F_SETFL non-blocking" : "F_SETFL blocking";
        return std::to_string(command) + " " + std::to_string(argument);
    };
    return plain("fcntl", fd, describe, [&] { return __real_fcntl(fd, command, argument); });
}

ssize_t __wrap_read(int fd, void* buffer, std::size_t size)
{
    return transfer("read", fd, size, "", [&](std::size_t part) { return __real_read(fd, buffer, part); });
}

ssize_t __wrap_write(int fd, const void* buffer, std::size_t size)
{
    return transfer("write", fd, size, "", [&](std::size_t part) { return __real_write(fd, buffer, part); });
}

ssize_t __wrap_recv(int fd, void* buffer, std::size_t size, int flags)
{
    return transfer("recv", fd, size, flags == MSG_PEEK ? " MSG_PEEK" : " " + std::to_string(flags),
                    [&](std::size_t part) { return __real_recv(fd, buffer, part, flags); });
}

// What an optimising build with fortified calls makes of read and recv.
ssize_t __wrap___read_chk(int fd, void* buffer, std::size_t size, std::size_t buffer_size)
{
    return transfer("read", fd, size, "",
                    [&](std::size_t part) { return __real___read_chk(fd, buffer, part, buffer_size); });
}

ssize_t __wrap___recv_chk(int fd, void* buffer, std::size_t size, std::size_t buffer_size, int flags)
{
    return transfer(
        "recv", fd, size, flags == MSG_PEEK ? " MSG_PEEK" : " " + std::to_string(flags),
        [&](std::size_t part) { return __real___recv_chk(fd, buffer, part, buffer_size, flags); });
}

int __wrap_sigprocmask(int how, const sigset_t* signals, sigset_t* previous)
{
    if (system_calls* calls = system_calls::watching())
        calls->record(text_of_mask_change(how, signals));
    return __real_sigprocmask(how, signals, previous);
}
}
