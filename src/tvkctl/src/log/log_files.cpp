#include "tvkctl/src/log/log_files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/text/text.h"

namespace fs = std::filesystem;

namespace tarvik::tvkctl {

namespace {

constexpr std::size_t kDayLength = 8;
constexpr const char* kEnding = ".log";
constexpr std::size_t kEndingLength = 4;
constexpr std::size_t kPieceLength = 65536; ///< also longer than any line

bool is_calendar_day(const log_day& day)
{
    std::tm fields = {};
    const char* end = strptime(day.c_str(), "%Y%m%d", &fields);
    if (end == nullptr || *end != '\0')
        return false;
    std::tm normalised = fields;
    timegm(&normalised); // makes 1 March of 29 February in most years
    return normalised.tm_mday == fields.tm_mday && normalised.tm_mon == fields.tm_mon;
}

unique_fd open_log_file(const std::string& path)
{
    // Without waiting: somebody may have put a FIFO there.
    return unique_fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
}

std::optional<struct stat> regular_file(const unique_fd& file)
{
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return status;
}

/// Hands the complete lines at the front of `text` on and removes them.
void take_complete_lines(std::string& text, const line_sink& take)
{
    std::size_t begin = 0;
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
        take(text.substr(begin, end - begin));
        begin = end + 1;
    }
    text.erase(0, begin);
}

/// Hands the complete lines behind `offset` on, reading in pieces, for a log may be long. `unfinished` is the
/// line that is being read, before and after. Returns where the file ends.
long long read_lines(const unique_fd& file, long long offset, std::string& unfinished, const line_sink& take)
{
    std::array<char, kPieceLength> piece{};
    for (;;) {
        const ssize_t count =
            TEMP_FAILURE_RETRY(pread(file.get(), piece.data(), piece.size(), static_cast<off_t>(offset)));
        if (count <= 0)
            return offset;
        // A line that was written at midnight can have its newline at the beginning of the next day's file.
        const bool is_left_over = offset == 0 && piece.front() == '\n';
        unfinished.append(piece.data(), static_cast<std::size_t>(count));
        if (is_left_over)
            unfinished.erase(unfinished.size() - static_cast<std::size_t>(count), 1);
        take_complete_lines(unfinished, take);
        offset += count;
    }
}

} // namespace

log_day day_of(std::time_t moment)
{
    std::tm local = {};
    localtime_r(&moment, &local);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y%m%d", &local);
    return text.data();
}

std::optional<log_day> day_named(const std::string& text)
{
    log_day day = text;
    if (text.size() == kDayLength + 2 && text[4] == '-' && text[7] == '-')
        day.erase(std::remove(day.begin(), day.end(), '-'), day.end());
    const bool is_day = day.size() == kDayLength && is_number(day) && is_calendar_day(day);
    return is_day ? std::optional(day) : std::nullopt;
}

std::optional<log_day> day_of_file(const std::string& name)
{
    const std::size_t tail = kDayLength + kEndingLength;
    if (name.size() <= tail || name.compare(name.size() - kEndingLength, kEndingLength, kEnding) != 0 ||
        name[name.size() - tail - 1] != '_')
        return std::nullopt;
    const log_day day = name.substr(name.size() - tail, kDayLength);
    return is_number(day) ? std::optional(day) : std::nullopt;
}

std::vector<std::string> log_file_names(const std::string& directory)
{
    std::vector<std::pair<log_day, std::string>> found;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename();
        if (const auto day = day_of_file(name))
            found.emplace_back(*day, name);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> names;
    names.reserve(found.size());
    for (const auto& [day, name] : found)
        names.push_back(name);
    return names;
}

void read_log_file(const std::string& path, const line_sink& take)
{
    const unique_fd file = open_log_file(path);
    if (!regular_file(file))
        return;
    std::string unfinished;
    read_lines(file, 0, unfinished, take);
    if (!unfinished.empty())
        take(unfinished);
}

log_tail::log_tail(std::string directory, log_day first, start where)
    : m_directory(std::move(directory)), m_first(std::move(first))
{
    if (where == start::at_the_end)
        for (const std::string& name : names())
            go_to_the_end(name);
}

std::vector<std::string> log_tail::names() const
{
    std::vector<std::string> all = log_file_names(m_directory);
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const std::string& name) { return *day_of_file(name) < m_first; }),
              all.end());
    return all;
}

void log_tail::take_new(const line_sink& take)
{
    for (const std::string& name : names())
        read_on(name, take);
}

/// An unfinished last line stays, to be told when it is complete.
void log_tail::go_to_the_end(const std::string& name)
{
    const unique_fd file = open_log_file(m_directory + "/" + name);
    const auto status = regular_file(file);
    if (!status)
        return;
    position& at = m_positions[name];
    at.file = status->st_ino;
    const long long before_the_end = status->st_size - static_cast<long long>(kPieceLength);
    at.offset = read_lines(file, std::max(before_the_end, 0LL), at.unfinished, [](const std::string&) {});
}

void log_tail::read_on(const std::string& name, const line_sink& take)
{
    const unique_fd file = open_log_file(m_directory + "/" + name);
    const auto status = regular_file(file);
    if (!status)
        return;
    position& at = m_positions[name];
    if (at.file != status->st_ino || at.offset > status->st_size) { // replaced, or emptied
        finish(at, take);
        at = {status->st_ino, 0};
    }
    if (at.offset == status->st_size)
        return;
    finish_earlier_days(*day_of_file(name), take);
    at.offset = read_lines(file, at.offset, at.unfinished, take);
}

/// Nothing more comes to an unfinished line.
void log_tail::finish(position& at, const line_sink& take)
{
    if (!at.unfinished.empty())
        take(std::exchange(at.unfinished, {}));
}

void log_tail::finish_earlier_days(const log_day& day, const line_sink& take)
{
    for (auto& [name, at] : m_positions)
        if (*day_of_file(name) < day)
            finish(at, take);
}

directory_watch::directory_watch(const std::string& directory)
    : m_events(own_descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify_init1"))
{
    constexpr std::uint32_t what =
        IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (inotify_add_watch(m_events.get(), directory.c_str(), what) < 0)
        throw std::system_error(errno, std::generic_category(), "watch " + directory);
}

directory_watch::news directory_watch::wait(const deadline& until)
{
    if (!wait_until_ready(m_events.get(), POLLIN, until))
        return news::none;
    news result = news::change;
    alignas(inotify_event) std::array<char, 4096> events{};
    ssize_t count = 0;
    while ((count = TEMP_FAILURE_RETRY(read(m_events.get(), events.data(), events.size()))) > 0)
        for (ssize_t at = 0; at < count;) {
            inotify_event event = {};
            std::memcpy(&event, events.data() + at, sizeof event);
            if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_UNMOUNT)) != 0)
                result = news::gone;
            at += static_cast<ssize_t>(sizeof event + event.len);
        }
    return result;
}

} // namespace tarvik::tvkctl
