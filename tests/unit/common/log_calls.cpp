#include "unit/common/log_calls.h"

#include <sys/types.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <utility>

namespace unit::log_calls {

namespace {

std::atomic<int> clock_calls = 0; // counted from every thread that logs
std::atomic<int> format_calls = 0;

/// What one thread scripts and looks at while no other logs.
struct state {
    std::function<void()> before_localtime;
    std::function<void()> before_setlocale;
    std::function<void(int)> before_writev;
    bool is_link_scripted = false;
    std::optional<std::string> link;
    std::optional<char*> locale_answer;
    std::vector<locale_call> locale_calls;
};

state& current()
{
    static state instance;
    return instance;
}

} // namespace

void reset()
{
    clock_calls = 0;
    format_calls = 0;
    current() = state();
}

int clock_count()
{
    return clock_calls;
}

int format_count()
{
    return format_calls;
}

void before_localtime(std::function<void()> action)
{
    current().before_localtime = std::move(action);
}

void before_writev(std::function<void(int)> action)
{
    current().before_writev = std::move(action);
}

void before_setlocale(std::function<void()> action)
{
    current().before_setlocale = std::move(action);
}

void set_link(std::optional<std::string> target)
{
    current().is_link_scripted = true;
    current().link = std::move(target);
}

void set_locale_answer(char* answer)
{
    current().locale_answer = answer;
}

const std::vector<locale_call>& locale_calls()
{
    return current().locale_calls;
}

} // namespace unit::log_calls

using unit::log_calls::clock_calls;
using unit::log_calls::current;
using unit::log_calls::format_calls;

// The linker's --wrap hands every call of NAME to __wrap_NAME and reaches the C library as __real_NAME.
extern "C" {

std::time_t __real_time(std::time_t* result);
std::tm* __real_localtime_r(const std::time_t* when, std::tm* result);
ssize_t __real_writev(int descriptor, const iovec* parts, int count);
ssize_t __real_readlink(const char* path, char* buffer, std::size_t size);
char* __real_setlocale(int category, const char* locale);
int __real_vsnprintf(char* buffer, std::size_t size, const char* format, std::va_list arguments);
int __real___vsnprintf_chk(char* buffer, std::size_t size, int flag, std::size_t buffer_size,
                           const char* format, std::va_list arguments);

std::time_t __wrap_time(std::time_t* result)
{
    ++clock_calls;
    return __real_time(result);
}

std::tm* __wrap_localtime_r(const std::time_t* when, std::tm* result)
{
    ++clock_calls;
    if (current().before_localtime)
        current().before_localtime();
    return __real_localtime_r(when, result);
}

ssize_t __wrap_writev(int descriptor, const iovec* parts, int count)
{
    if (current().before_writev)
        current().before_writev(descriptor);
    return __real_writev(descriptor, parts, count);
}

ssize_t __wrap_readlink(const char* path, char* buffer, std::size_t size)
{
    if (!current().is_link_scripted)
        return __real_readlink(path, buffer, size);
    const std::optional<std::string>& link = current().link;
    if (!link) {
        errno = EACCES;
        return -1;
    }
    const std::size_t length = std::min(size, link->size());
    std::memcpy(buffer, link->data(), length);
    return static_cast<ssize_t>(length);
}

char* __wrap_setlocale(int category, const char* locale)
{
    current().locale_calls.push_back({category, locale});
    if (current().before_setlocale)
        current().before_setlocale();
    return current().locale_answer ? *current().locale_answer : __real_setlocale(category, locale);
}

int __wrap_vsnprintf(char* buffer, std::size_t size, const char* format, std::va_list arguments)
{
    ++format_calls;
    return __real_vsnprintf(buffer, size, format, arguments);
}

// What an optimising build with fortified calls makes of vsnprintf.
int __wrap___vsnprintf_chk(char* buffer, std::size_t size, int flag, std::size_t buffer_size,
                           const char* format, std::va_list arguments)
{
    ++format_calls;
    return __real___vsnprintf_chk(buffer, size, flag, buffer_size, format, arguments);
}
}
