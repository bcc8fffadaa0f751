#pragma once

#include <optional>
#include <string>
#include <vector>

/// Switching the log on for a program under test, and reading back what it wrote.
namespace support {

/// One line of the log, its header taken apart.
struct log_line {
    std::string clock;   ///< "10:23:45.45000"
    std::string process; ///< id of the process
    std::string thread;  ///< id of the thread
    std::string level;   ///< "INFO"
    std::string message; ///< in the verbose form, with "source(line) " before it
};

/// Makes the log directory, empty, and a settings file with this level in it; without a level, no settings
/// file, which means INFO. A program started (or a log opened) after that writes its log there.
void make_log_directory(std::optional<int> level = std::nullopt);

/// Everything in the log files of the log directory, oldest file first, as it stands there.
std::string raw_log();

/// The log's lines taken apart. A line without a header has all of its text in `message`.
std::vector<log_line> log_lines();

/// The log as tests compare it: "LEVEL message" for each line, whatever its time, process and thread.
std::vector<std::string> log_dialogue();

/// `line` without the "source(line) " of the verbose form.
std::string without_source(const std::string& message);

/// The source of a line in the verbose form; empty when there is none.
std::string source_of(const std::string& message);

} // namespace support
