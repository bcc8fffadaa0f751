#include "support/log_reader.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/files.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace support {

namespace {

/// Takes "<open>text<close>" off the front of `rest`; false, with nothing taken, when it does not stand
/// there.
bool take_field(std::string& rest, char open, char close, std::string& field)
{
    const size_t end = rest.find(close);
    if (rest.empty() || rest.front() != open || end == std::string::npos)
        return false;
    field = rest.substr(1, end - 1);
    rest.erase(0, end + 1);
    return true;
}

log_line take_apart(const std::string& line)
{
    log_line result;
    std::string rest = line;
    if (take_field(rest, '[', ']', result.clock) && take_field(rest, '[', ']', result.process) &&
        take_field(rest, '(', ')', result.thread) && take_field(rest, '[', ']', result.level)) {
        result.message = rest;
        return result;
    }
    return {"", "", "", "", line};
}

std::vector<fs::path> log_files()
{
    std::vector<fs::path> files;
    if (fs::exists(kLogDirectory))
        for (const fs::directory_entry& entry : fs::directory_iterator(kLogDirectory))
            if (entry.path().extension() == ".log")
                files.push_back(entry.path());
    std::sort(files.begin(), files.end()); // the name ends in the date
    return files;
}

/// Length of a leading "source(line) ", 0 when there is none.
size_t source_length(const std::string& message)
{
    const size_t open = message.find('(');
    const size_t close = message.find(") ", open == std::string::npos ? message.size() : open);
    if (open == std::string::npos || close == std::string::npos)
        return 0;
    const std::string number = message.substr(open + 1, close - open - 1);
    const bool is_line = !number.empty() && number.find_first_not_of("0123456789") == std::string::npos;
    const bool is_name = message.find(' ') > open;
    return is_line && is_name ? close + 2 : 0;
}

} // namespace

void make_log_directory(std::optional<int> level)
{
    fs::remove_all(kLogDirectory);
    fs::create_directories(kLogDirectory);
    if (level)
        std::ofstream(kSettingsFile) << vl::common::log::kLevelKey << "=" << *level << "\n";
}

std::string raw_log()
{
    std::string all;
    for (const fs::path& path : log_files())
        all += read_file(path);
    return all;
}

std::vector<log_line> log_lines()
{
    std::vector<log_line> lines;
    std::istringstream all(raw_log());
    for (std::string line; std::getline(all, line);)
        lines.push_back(take_apart(line));
    return lines;
}

std::vector<std::string> log_dialogue()
{
    std::vector<std::string> lines;
    for (const log_line& line : log_lines())
        lines.push_back(line.level + " " + line.message);
    return lines;
}

std::string without_source(const std::string& message)
{
    return message.substr(source_length(message));
}

std::string source_of(const std::string& message)
{
    return source_length(message) == 0 ? "" : message.substr(0, message.find('('));
}

} // namespace support
