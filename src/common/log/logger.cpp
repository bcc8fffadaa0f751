#include "common/log/logger.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string_view>

#include "common/log/trusted_file.h"

namespace vl::common::log {

std::mutex log_mtx;
logConfigure logConfigure::instance_;

namespace {

constexpr std::size_t kPathBufferSize = 260; ///< of the program's own path
constexpr std::size_t kMessageBufferSize = 1024;
constexpr std::size_t kMostSettings = std::size_t{64} * 1024; ///< bytes of the settings file that are read

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

/// What lines show of the local time.
struct local_time {
    std::time_t second = std::numeric_limits<std::time_t>::min(); ///< since the epoch
    int date = 0;                                                 ///< 20261115 is the 15th of November
    std::array<char, 20> clock{};
};

/// "hh:mm:ss.f". The last field is the second times a thousand, of four digits up to second 9 and of five
/// from then on, and no finer clock: kept so on purpose, whoever reads these logs by program knows the field
/// like this.
void show_clock(const std::tm& now, std::array<char, 20>& text)
{
    const auto fraction = static_cast<std::uint16_t>(now.tm_sec * 1000);
    std::snprintf(text.data(), text.size(), "%02d:%02d:%02d.%04u", now.tm_hour, now.tm_min, now.tm_sec,
                  static_cast<unsigned int>(fraction));
}

/// As localtime() shows the time, worked out anew only when the second has changed: looking after the time
/// zone costs more than the rest of a line. Each thread has its own.
const local_time& local_now()
{
    thread_local local_time last;
    const std::time_t now = std::time(nullptr);
    if (now != last.second) {
        std::tm local = {};
        tzset();
        localtime_r(&now, &local);
        last.second = now;
        last.date = ((local.tm_year + 1900) * 100 + local.tm_mon + 1) * 100 + local.tm_mday;
        show_clock(local, last.clock);
    }
    return last;
}

/// The beginning of a file, as far as it counts.
std::string read_beginning(int descriptor)
{
    std::string text(kMostSettings, '\0');
    std::size_t size = 0;
    for (ssize_t count = 1; count > 0 && size < text.size(); size += static_cast<std::size_t>(count))
        count = std::max<ssize_t>(0, read(descriptor, text.data() + size, text.size() - size));
    text.resize(size);
    return text;
}

/// One system call, so that nothing comes between the parts. What does not fit on a full disk is lost.
void write_line(int descriptor, std::string_view header, std::string_view text)
{
    std::array<iovec, 2> parts = {{
        {const_cast<char*>(header.data()), header.size()}, // writev() only reads
        {const_cast<char*>(text.data()), text.size()},     // through these
    }};
    [[maybe_unused]] const ssize_t written = writev(descriptor, parts.data(), static_cast<int>(parts.size()));
}

bool may_hold_log(const std::string& directory)
{
    return judge_directory(directory) == EDistrust::none;
}

} // namespace

const char* level_name(ESeveryLevel level)
{
    for (const named_level& each : kLevels)
        if (each.level == level)
            return each.name;
    return "";
}

void init_log(void*, const std::string& name, const std::string& config_file)
{
    const std::lock_guard<std::mutex> lock(log_mtx);
    const std::string root(kLogRoot);
    const std::string directory = name.empty() ? root : root + "/" + name;
    const bool is_trusted = may_hold_log(root) && may_hold_log(directory);
    logConfigure::instance_.set_config_file(is_trusted ? directory + "/" + config_file : std::string());
    logConfigure::instance_.m_stem = directory + "/" + base_name(program_path());
}

void logConfigure::set_config_file(const std::string& path)
{
    settings.clear();
    try {
        read_settings(path);
        verbose = is_enabled(ESeveryLevel::trace);
    } catch (...) {
        settings.clear(); // else the next line would try the same again, and throw where nobody can bear it
        throw;
    }
}

void logConfigure::read_settings(const std::string& path)
{
    const TrustedFile file(path.c_str(), O_RDONLY);
    if (file) {
        std::istringstream lines(read_beginning(file.descriptor()));
        for (std::string text; std::getline(lines, text);) {
            const std::size_t equals = text.find('=');
            const std::string key = TrimSpace(text.substr(0, equals));
            const std::string value =
                equals == std::string::npos ? std::string() : TrimSpace(text.substr(equals + 1));
            if (!key.empty() && !value.empty())
                settings.emplace(lower_case(key), value);
        }
    } else if (file.reason() == EDistrust::absent && is_directory(directory_part(path))) {
        settings[kLevelKey] = "1";
    }
}

bool logConfigure::read_level(ESeveryLevel wanted)
{
    const auto setting = settings.find(std::string_view(kLevelKey));
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

std::string logConfigure::output_logfile()
{
    return logfile_of(local_now().date);
}

const char* logConfigure::logfile_of(int date)
{
    if (date != m_date && !m_stem.empty()) {
        std::snprintf(m_path.data(), m_path.size(), "%s_%08d.log", m_stem.c_str(), date);
        m_date = date;
    }
    return m_path.data();
}

void Logger::append_header(bool is_short)
{
    append("[");
    append(local_now().clock.data());
    append("][");
    append(getpid());
    append("](");
    append(syscall(SYS_gettid));
    append(")");
    if (is_short)
        return;
    append("[");
    append(level_name(level));
    append("]");
    if (!logConfigure::instance_.is_verbose() || file == nullptr)
        return;
    append(file);
    append("(");
    append(line);
    append(") ");
}

void Logger::append(std::string_view text)
{
    m_headerSize += text.copy(m_header.data() + m_headerSize, m_header.size() - m_headerSize);
}

void Logger::append(long number)
{
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    append(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
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
    if (!open_file())
        return;
    const std::string_view header(m_header.data(), m_headerSize);
    const std::string_view message = text == nullptr ? "" : text;
    write_line(m_log->descriptor(), header, message);
    if (logConfigure::instance_.is_verbose())
        write_line(STDERR_FILENO, header, message);
    m_headerSize = 0;
    written = true;
}

bool Logger::open_file()
{
    const int today = local_now().date;
    if (!m_log || !*m_log || m_logDate != today) {
        m_log.emplace(logConfigure::instance_.logfile_of(today), O_WRONLY | O_APPEND | O_CREAT);
        m_logDate = today;
    }
    return static_cast<bool>(*m_log);
}

void Logger::end_line()
{
    put("\n");
    m_log.reset();
    written = false;
}

void Logger::Dumpbin(char* data, unsigned int length)
{
    if (!is_enabled())
        return;
    try {
        std::string text;
        text.reserve(std::size_t{3} * length);
        for (unsigned int i = 0; i < length; ++i) {
            std::array<char, 4> pair{};
            std::snprintf(pair.data(), pair.size(), "%02X ",
                          static_cast<unsigned int>(static_cast<unsigned char>(data[i])));
            text += pair.data();
        }
        put(text.c_str());
    } catch (const std::bad_alloc&) {
        // Dropped.
    }
}

} // namespace vl::common::log
