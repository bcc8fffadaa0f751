#include "common/log/logger.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdint>
#include <fstream>
#include <string_view>

namespace vl::common::log {

std::mutex log_mtx;
logConfigure logConfigure::instance_;

namespace {

constexpr std::string_view kLogRoot = "/tmp/velnor";
constexpr std::size_t kPathBufferSize = 260;
constexpr std::size_t kMessageBufferSize = 1024;

struct file_closer {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer>;

bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string TrimSpace(const std::string& text)
{
    const auto first = std::find_if_not(text.begin(), text.end(), is_space);
    const auto last = std::find_if_not(text.rbegin(), std::make_reverse_iterator(first), is_space).base();
    return {first, last};
}

std::string lower_case(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool is_directory(const std::string& path)
{
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

/// Text up to and including the last '/', empty when there is none.
std::string directory_part(const std::string& path)
{
    return path.substr(0, path.rfind('/') + 1);
}

std::string program_path()
{
    std::array<char, kPathBufferSize> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    return length < 0 ? std::string() : std::string(buffer.data(), static_cast<std::size_t>(length));
}

/// File name of `path` up to its last '.'.
std::string base_name(const std::string& path)
{
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.substr(0, name.rfind('.'));
}

std::tm* local_now()
{
    const std::time_t now = std::time(nullptr);
    return std::localtime(&now);
}

const char* level_name(ESeveryLevel level)
{
    switch (level) {
    case ESeveryLevel::trace:
        return "TRACE";
    case ESeveryLevel::info:
        return "INFO";
    case ESeveryLevel::warning:
        return "WARNING";
    case ESeveryLevel::error:
        return "ERROR";
    case ESeveryLevel::fatal:
        return "FATAL";
    }
    return "";
}

/// "hh:mm:ss.f". The last field is the second times a thousand, so 0000 or five digits from second 10 on,
/// and no finer clock: kept so on purpose, whoever reads these logs by program knows the field like this.
std::string clock_text()
{
    const std::tm now = *local_now();
    const auto fraction = static_cast<std::uint16_t>(now.tm_sec * 1000);
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%04u", now.tm_hour, now.tm_min, now.tm_sec,
                  static_cast<unsigned int>(fraction));
    return text.data();
}

} // namespace

void init_log(void*, const std::string& name, const std::string& config_file)
{
    const std::lock_guard<std::mutex> lock(log_mtx);
    std::string directory(kLogRoot);
    if (!name.empty())
        directory += "/" + name;
    logConfigure::instance_.set_config_file(directory + "/" + config_file);
    logConfigure::instance_.m_stem = directory + "/" + base_name(program_path());
}

void logConfigure::set_config_file(const std::string& path)
{
    settings.clear();
    std::ifstream file(path);
    if (file) {
        for (std::string text; std::getline(file, text);) {
            const std::size_t equals = text.find('=');
            const std::string key = TrimSpace(text.substr(0, equals));
            const std::string value =
                equals == std::string::npos ? std::string() : TrimSpace(text.substr(equals + 1));
            if (!key.empty() && !value.empty())
                settings.emplace(lower_case(key), value);
        }
    } else if (const std::string directory = directory_part(path); is_directory(directory)) {
        settings["loglevel"] = "1";
    }
    verbose = is_enabled(ESeveryLevel::trace);
}

bool logConfigure::read_level(ESeveryLevel wanted)
{
    const auto setting = settings.find(std::string_view("loglevel"));
    if (setting == settings.end())
        return false;
    // The second call is handed what the first returned, so it does not bring the earlier locale back:
    // on purpose, plugins run in the numeric locale that this leaves.
    const char* locale = std::setlocale(LC_NUMERIC, "en-US");
    const long number = std::strtol(setting->second.c_str(), nullptr, 10);
    std::setlocale(LC_NUMERIC, locale);
    const long least = std::clamp<long>(number, INT_MIN, INT_MAX);
    m_level = std::make_shared<ESeveryLevel>(static_cast<ESeveryLevel>(least));
    return *m_level <= wanted;
}

std::string logConfigure::output_logfile() const
{
    const std::tm* today = local_now();
    std::array<char, kPathBufferSize> path{};
    std::snprintf(path.data(), path.size(), "%s_%04d%02d%02d.log", m_stem.c_str(), today->tm_year + 1900,
                  today->tm_mon + 1, today->tm_mday);
    return path.data();
}

void Logger::append_header(bool is_short)
{
    m_pending += "[" + clock_text() + "][" + std::to_string(getpid()) + "](" +
                 std::to_string(syscall(SYS_gettid)) + ")";
    if (is_short)
        return;
    m_pending += "[";
    m_pending += level_name(level);
    m_pending += "]";
    if (logConfigure::instance_.is_verbose() && file != nullptr)
        m_pending += file + ("(" + std::to_string(line) + ") ");
}

void Logger::operator()(const char* format, ...)
{
    if (!is_enabled())
        return;
    std::va_list arguments;
    va_start(arguments, format);
    put(format, arguments);
    va_end(arguments);
}

void Logger::put(const char* format, std::va_list arguments)
{
    std::array<char, kMessageBufferSize> text{};
    // A message that cannot be formatted is written empty rather than half-formatted.
    if (std::vsnprintf(text.data(), text.size(), format, arguments) < 0)
        text.front() = '\0';
    put(text.data());
}

void Logger::put(const char* text)
{
    if (!is_enabled())
        return;
    const std::lock_guard<std::mutex> lock(log_mtx);
    const std::string path = logConfigure::instance_.output_logfile();
    // 'e': a plugin may start helpers at any moment, and none of them is to inherit the log file.
    const file_ptr file_stream(std::fopen(path.c_str(), "ae"));
    if (!file_stream)
        return;
    m_pending += text == nullptr ? "" : text;
    std::fputs(m_pending.c_str(), file_stream.get());
    if (logConfigure::instance_.is_verbose())
        std::fprintf(stderr, "%s", m_pending.c_str());
    m_pending.clear();
    written = true;
}

void Logger::end_line()
{
    put("\n");
    written = false;
}

void Logger::Dumpbin(char* data, unsigned int length)
{
    if (!is_enabled())
        return;
    std::string text;
    text.reserve(std::size_t{3} * length);
    for (unsigned int i = 0; i < length; ++i) {
        std::array<char, 4> pair{};
        std::snprintf(pair.data(), pair.size(), "%02X ",
                      static_cast<unsigned int>(static_cast<unsigned char>(data[i])));
        text += pair.data();
    }
    put(text.c_str());
}

} // namespace vl::common::log
