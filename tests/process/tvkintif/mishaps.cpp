// Preloaded into the program, brings about what a healthy machine does not do when it is asked to, and tells
// what the program does with its sockets and its log:
//
//     LD_PRELOAD=libmishaps.so:libfake_usb_preload.so MISHAPS="record sockets; fail accept 4 1" tvkintif
//
// Statements, separated by semicolons:
//
//     record sockets              each call about a socket leaves a line in the dialogue of the fake USB bus
//     record log                  so does each line of the log, as "log LEVEL message"
//     fail FUNCTION ERRNO TIMES   the first TIMES calls fail with this number in errno
//     raise FUNCTION SIGNAL       the first call is preceded by this signal to the process itself
//     exhaust FUNCTION            the first call is followed by one allocation that finds no memory
//     close stream NUMBER         this standard stream is closed before main
//     limit allocation BYTES      no allocation of more than this many bytes finds memory
//     throw print TEXT            the first number printed throws std::runtime_error(TEXT) instead
//     throw_number print          the first number printed throws an int instead

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#define MISHAPS_EXPORT __attribute__((visibility("default")))

// Comes with the fake USB bus.
extern "C" void support_record_line(const char* line) __attribute__((weak));

namespace {

struct mishap {
    std::string verb;
    std::string function;
    int number = 0; ///< errno, signal or bytes
    int times = 1;  ///< how often still
    std::string text = {};
};

// Read by operator new, which others call before anything here has been constructed.
bool is_exhausted = false;
std::size_t allocation_limit = SIZE_MAX;

[[noreturn]] void give_up(const std::string& reason)
{
    std::fprintf(stderr, "mishaps: %s; the statements are listed in mishaps.cpp\n", reason.c_str());
    std::abort();
}

mishap parse(const std::string& statement)
{
    static const std::set<std::string> with_number = {"close", "fail", "limit", "raise"};
    static const std::set<std::string> verbs = {"close",   "record", "fail",  "raise",
                                                "exhaust", "limit",  "throw", "throw_number"};
    std::istringstream input(statement);
    mishap result;
    input >> result.verb >> result.function;
    if (verbs.count(result.verb) == 0 || result.function.empty())
        give_up("no such mishap: " + statement);
    if (with_number.count(result.verb) != 0 && !(input >> result.number))
        give_up("the number is missing: " + statement);
    if (result.verb == "fail" && !(input >> result.times))
        give_up("how many times is missing: " + statement);
    if (result.verb == "throw")
        std::getline(input >> std::ws, result.text);
    return result;
}

std::vector<mishap> parse_all()
{
    const char* text = std::getenv("MISHAPS");
    std::vector<mishap> result;
    std::istringstream statements(text == nullptr ? "" : text);
    for (std::string statement; std::getline(statements >> std::ws, statement, ';');)
        result.push_back(parse(statement));
    return result;
}

std::vector<mishap>& all()
{
    static std::vector<mishap>* const instance = new std::vector<mishap>(parse_all()); // outlives the program
    return *instance;
}

__attribute__((constructor)) void prepare()
{
    for (const mishap& candidate : all())
        if (candidate.verb == "limit")
            allocation_limit = static_cast<std::size_t>(candidate.number);
        else if (candidate.verb == "close")
            close(candidate.number);
}

/// Counts one use of a mishap; null when there is none left.
const mishap* take(const char* verb, const char* function)
{
    for (mishap& candidate : all())
        if (candidate.times > 0 && candidate.verb == verb && candidate.function == function) {
            --candidate.times;
            return &candidate;
        }
    return nullptr;
}

/// What befalls a call before it is made. True when it is to fail, errno is set then.
bool befalls(const char* function)
{
    if (const mishap* raised = take("raise", function))
        raise(raised->number);
    if (take("exhaust", function) != nullptr)
        is_exhausted = true;
    const mishap* failure = take("fail", function);
    if (failure != nullptr)
        errno = failure->number;
    return failure != nullptr;
}

void throw_instead(const char* function)
{
    if (const mishap* thrown = take("throw", function))
        throw std::runtime_error(thrown->text);
    if (const mishap* thrown = take("throw_number", function))
        throw thrown->number;
}

int listening = -1;
int connected = -1;

std::string role(int descriptor)
{
    if (descriptor == listening)
        return "listening";
    return descriptor == connected ? "connected" : "unknown";
}

/// Leaves a line about `what` in the dialogue, if that is to be recorded.
void tell_about(const char* what, const std::string& line)
{
    for (const mishap& candidate : all())
        if (candidate.verb == "record" && candidate.function == what && support_record_line != nullptr)
            support_record_line(line.c_str());
}

void tell(const std::string& line)
{
    tell_about("sockets", line);
}

/// Of "[clock][process](thread)[LEVEL]message".
void tell_log_line(const iovec* parts, int count)
{
    std::string line;
    for (int i = 0; i < count; ++i)
        line.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    const std::size_t level = line.find(")[");
    const std::size_t message = line.find(']', level);
    if (level != std::string::npos && message != std::string::npos)
        tell_about("log",
                   "log " + line.substr(level + 2, message - level - 2) + " " + line.substr(message + 1));
}

std::string option_name(int level, int option)
{
    if (level == SOL_SOCKET && option == SO_REUSEADDR)
        return "SO_REUSEADDR";
    if (level == SOL_SOCKET && option == SO_KEEPALIVE)
        return "SO_KEEPALIVE";
    if (level == SOL_SOCKET && option == SO_RCVTIMEO)
        return "SO_RCVTIMEO";
    if (level == SOL_SOCKET && option == SO_SNDTIMEO)
        return "SO_SNDTIMEO";
    if (level == IPPROTO_TCP && option == TCP_NODELAY)
        return "TCP_NODELAY";
    return "level " + std::to_string(level) + " option " + std::to_string(option);
}

std::string option_value(const void* value, socklen_t size)
{
    if (size == sizeof(timeval)) {
        timeval time = {};
        std::memcpy(&time, value, sizeof time);
        return std::to_string(time.tv_sec) + " s " + std::to_string(time.tv_usec) + " us";
    }
    int number = 0;
    if (size != sizeof number)
        return std::to_string(size) + " bytes";
    std::memcpy(&number, value, sizeof number);
    return std::to_string(number);
}

std::string address_text(const sockaddr* address)
{
    sockaddr_in ipv4 = {};
    std::memcpy(&ipv4, address, sizeof ipv4);
    char host[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ipv4.sin_addr, host, sizeof host);
    return std::string(host) + ":" + std::to_string(ntohs(ipv4.sin_port));
}

template <typename Function>
Function the_real(Function, const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name)); // how the loader hands functions out
}

} // namespace

MISHAPS_EXPORT void* operator new(std::size_t size)
{
    void* const memory = is_exhausted || size > allocation_limit ? nullptr : std::malloc(size);
    is_exhausted = false;
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

extern "C" MISHAPS_EXPORT void* mmap(void* address, std::size_t size, int protection, int flags,
                                     int descriptor, off_t offset) noexcept
{
    if (size <= allocation_limit)
        return the_real(mmap, "mmap")(address, size, protection, flags, descriptor, offset);
    errno = ENOMEM;
    return MAP_FAILED;
}

MISHAPS_EXPORT void operator delete(void* memory) noexcept
{
    std::free(memory);
}

MISHAPS_EXPORT void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

extern "C" {

MISHAPS_EXPORT int socket(int domain, int type, int protocol) noexcept
{
    if (befalls("socket"))
        return -1;
    const int result = the_real(socket, "socket")(domain, type, protocol);
    listening = result;
    tell(std::string("socket ") + (domain == AF_INET ? "AF_INET " : "? ") +
         (type == SOCK_STREAM ? "SOCK_STREAM " : "? ") + std::to_string(protocol));
    return result;
}

MISHAPS_EXPORT int setsockopt(int descriptor, int level, int option, const void* value,
                              socklen_t size) noexcept
{
    if (befalls("setsockopt"))
        return -1;
    tell("setsockopt " + role(descriptor) + " " + option_name(level, option) + " " +
         option_value(value, size));
    return the_real(setsockopt, "setsockopt")(descriptor, level, option, value, size);
}

MISHAPS_EXPORT int bind(int descriptor, const sockaddr* address, socklen_t size) noexcept
{
    if (befalls("bind"))
        return -1;
    tell("bind " + role(descriptor) + " " + address_text(address));
    return the_real(bind, "bind")(descriptor, address, size);
}

MISHAPS_EXPORT int getsockname(int descriptor, sockaddr* address, socklen_t* size) noexcept
{
    if (befalls("getsockname"))
        return -1;
    tell("getsockname " + role(descriptor));
    return the_real(getsockname, "getsockname")(descriptor, address, size);
}

MISHAPS_EXPORT int listen(int descriptor, int backlog) noexcept
{
    if (befalls("listen"))
        return -1;
    tell("listen " + role(descriptor) + " " + std::to_string(backlog));
    return the_real(listen, "listen")(descriptor, backlog);
}

MISHAPS_EXPORT int accept(int descriptor, sockaddr* address, socklen_t* size)
{
    if (befalls("accept"))
        return -1;
    tell("accept " + role(descriptor));
    connected = the_real(accept, "accept")(descriptor, address, size);
    return connected;
}

MISHAPS_EXPORT int close(int descriptor)
{
    for (int* const known : {&listening, &connected})
        if (descriptor >= 0 && descriptor == *known) {
            tell("close " + role(descriptor));
            *known = -1;
        }
    return the_real(close, "close")(descriptor);
}

MISHAPS_EXPORT ssize_t writev(int descriptor, const iovec* parts, int count)
{
    if (befalls("writev"))
        return -1;
    tell_log_line(parts, count);
    return the_real(writev, "writev")(descriptor, parts, count);
}

MISHAPS_EXPORT char* setlocale(int category, const char* locale) noexcept
{
    return befalls("setlocale") ? nullptr : the_real(setlocale, "setlocale")(category, locale);
}

MISHAPS_EXPORT sighandler_t signal(int number, sighandler_t handler) noexcept
{
    return befalls("signal") ? SIG_ERR : the_real(signal, "signal")(number, handler);
}
}

/// std::ostream's output of a number, which a preloaded library can only take the place of by its linker
/// name.
MISHAPS_EXPORT std::ostream& print_number(std::ostream& out, int number) __asm__("_ZNSolsEi");

MISHAPS_EXPORT std::ostream& print_number(std::ostream& out, int number)
{
    using print = std::ostream& (*)(std::ostream&, int);
    throw_instead("print");
    return the_real(print(), "_ZNSolsEi")(out, number);
}
