#pragma once

#include <ctime>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/log/logger.h"
#include "common/process/deadline.h"
#include "common/process/unique_fd.h"

namespace tarvik::tvkctl {

/// Where the program looks for its log directory. The default is where it really does; a test names its own.
struct log_place {
    std::string directory() const { return root + "/" + vl::common::log::kLogFolder; }
    std::string settings() const { return directory() + "/" + vl::common::log::kSettingsFile; }

    std::string root = vl::common::log::kLogRoot;
};

/// A local day as log files carry it in their names: "20261115".
using log_day = std::string;

using wall_clock = std::function<std::time_t()>;
log_day day_of(std::time_t moment);
/// The day that "2026-11-15" or "20261115" means; nullopt for anything that is not a day.
std::optional<log_day> day_named(const std::string& text);

/// The day in the name of a daily log file ("tvkintif_20261115.log"); nullopt for any other name.
std::optional<log_day> day_of_file(const std::string& name);

/// Names of the daily log files in a directory, oldest first. Empty when the directory cannot be read.
std::vector<std::string> log_file_names(const std::string& directory);

/// Takes a line, without its newline.
using line_sink = std::function<void(const std::string&)>;

/// Hands on the lines of a log file, even a last one without newline. None when it cannot be read or is not
/// a regular file: symbolic links are not followed, for anybody may write below /tmp.
void read_log_file(const std::string& path, const line_sink& take);

/// Follows the daily log files of a directory: first what is there, then what is added, from one
/// day's file to the next. Files may come, go and be replaced at any time. Symbolic links are not followed.
///
/// Threads: one at a time.
class log_tail {
public:
    enum class start { at_the_beginning, at_the_end };

    /// Looks at the files of `first` and later days.
    log_tail(std::string directory, log_day first, start where);

    /// Hands the lines on that were completed since the last call, oldest first.
    void take_new(const line_sink& take);

private:
    struct position {
        unsigned long long file = 0; ///< inode: another one means that the file was replaced
        long long offset = 0;
        std::string unfinished = {}; ///< a line that has no newline yet
    };

    std::vector<std::string> names() const;
    void read_on(const std::string& name, const line_sink& take);
    static void finish(position& at, const line_sink& take);
    void finish_earlier_days(const log_day& day, const line_sink& take);
    void go_to_the_end(const std::string& name);

    std::string m_directory;
    log_day m_first;
    std::map<std::string, position> m_positions; ///< by file name
};

/// Wakes up when something happens in a directory.
class directory_watch {
public:
    /// Throws std::system_error when the directory cannot be watched.
    explicit directory_watch(const std::string& directory);

    enum class news { none, change, gone };
    /// Waits for a change, or for the directory's end, until the deadline. What happens between two calls is
    /// not missed.
    news wait(const deadline& until);

private:
    unique_fd m_events;
};

} // namespace tarvik::tvkctl
