// Records of the log: whatever is logged, the file gets its header, its message and one newline, in its
// standard layout.

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <ctime>

#include "common/log/logger.h"
#include "fuzz/harness.h"

using namespace vl::common::log;

namespace {

constexpr int kMostMessage = 1023;
constexpr std::size_t kLongestUnit = 100; ///< of names, which are our own

std::time_t the_time = 0;
std::string in_file;
std::string on_standard_error;

std::string decimal(long number, int digits)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%0*ld", digits, number);
    return text.data();
}

/// A file with settings for this level.
std::string settings_for(int least)
{
    static const fuzz::scratch_folder folder;
    static const auto files = [] {
        std::array<std::string, 4> all;
        for (std::size_t level = 0; level < all.size(); ++level)
            all[level] = folder.file(std::to_string(level), "loglevel=" + std::to_string(level));
        return all;
    }();
    return files.at(static_cast<std::size_t>(least));
}

/// The header of a line that is logged now.
std::string header(const std::string& unit, int line, int level, bool is_verbose, bool is_short)
{
    static const std::array<const char*, 5> names = {"TRACE", "INFO", "WARNING", "ERROR", "FATAL"};
    const long second = the_time % 60;
    std::string text = "[" + decimal(the_time / 3600 % 24, 2) + ":" + decimal(the_time / 60 % 60, 2) + ":" +
                       decimal(second, 2) + "." + decimal(second * 1000, 4) + "][" +
                       std::to_string(getpid()) + "](" + std::to_string(syscall(SYS_gettid)) + ")";
    if (is_short)
        return text;
    text += std::string("[") + (level >= 0 && level <= 4 ? names[static_cast<std::size_t>(level)] : "") + "]";
    if (is_verbose)
        text += unit + "(" + std::to_string(line) + ") ";
    return text;
}

/// Logs a message in one of the ways there are, and answers what should be written of it.
std::string log(Logger& record, int way, std::string message)
{
    switch (way) {
    case 0:
        record("%s", message.c_str());
        return std::string(message.c_str()).substr(0, kMostMessage);
    case 1:
        record << message.c_str();
        return message.c_str();
    case 2:
        record << static_cast<int>(message.size());
        return std::to_string(message.size());
    case 3:
        record.put(nullptr);
        return {};
    default:
        record.Dumpbin(message.data(), static_cast<unsigned int>(message.size()));
        std::string dump;
        for (const char c : message) {
            std::array<char, 4> pair{};
            std::snprintf(pair.data(), pair.size(), "%02X ", static_cast<unsigned char>(c));
            dump += pair.data();
        }
        return dump;
    }
}

} // namespace

// In place of the system's calls: a clock that stands, and a file that is looked at.
extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_writev(int descriptor, const iovec* parts, int count);

int __wrap_open(const char* path, int flags, ...)
{
    std::va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    const bool is_log = *path == '\0'; // no directory was found for it
    return __real_open(is_log ? "/dev/null" : path, flags, mode);
}

ssize_t __wrap_writev(int descriptor, const iovec* parts, int count)
{
    for (int i = 0; i < count; ++i)
        (descriptor == STDERR_FILENO ? on_standard_error : in_file)
            .append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    return 0;
}

time_t __wrap_time(time_t*)
{
    return the_time;
}
}

void fuzz_one(std::string_view input)
{
    setenv("TZ", "UTC0", 1);
    fuzz::decisions decide(input);
    const int least = decide.below(4);
    const int level = decide.below(8) - 1;
    const int way = decide.below(5);
    const bool is_short = decide.below(8) == 1;
    const int line = static_cast<int>(decide.number());
    the_time = decide.number();
    const std::string unit = decide.text(std::min<std::size_t>(decide.byte(), kLongestUnit)).c_str();
    in_file.clear();
    on_standard_error.clear();
    logConfigure::instance_ = logConfigure();
    logConfigure::instance_.set_config_file(settings_for(least));

    std::string message;
    std::string expected = header(unit, line, level, least == 0, false);
    {
        Logger record(unit.c_str(), line, static_cast<ESeveryLevel>(level));
        expected += log(record, way, std::string(decide.rest())) + "\n";
        if (is_short) {
            record.add_header(true);
            expected += header(unit, line, level, least == 0, true) + log(record, 0, "more") + "\n";
        }
    }
    if (level < least)
        expected.clear();
    fuzz::expect_equal(in_file, expected, "the log");
    fuzz::expect_equal(on_standard_error, least == 0 ? expected : "", "the copy on standard error");
}
