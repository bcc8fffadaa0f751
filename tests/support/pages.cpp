#include "support/pages.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "support/files.h"

namespace support {

namespace {

constexpr const char* kExample = "```console";

bool ends_part(const std::string& line)
{
    return line == "```" || line == "<!-- end -->" || line == ".\\\" end";
}

} // namespace

std::vector<page_part> parts_of(const std::string& page)
{
    const std::regex made(R"((?:<!--|\.\\") made: (.*?)(?: -->)?)");
    std::vector<page_part> all;
    std::istringstream lines(read_file(page));
    std::string heading;
    bool is_inside = false;
    for (std::string line; std::getline(lines, line);) {
        std::smatch found;
        if (is_inside && !ends_part(line)) {
            all.back().text += line + "\n";
        } else if (line == kExample || std::regex_match(line, found, made)) {
            all.push_back({page, found.empty() ? heading : found[1].str(), line, ""});
            is_inside = true;
        } else {
            is_inside = false;
            if (line.rfind('#', 0) == 0)
                heading = line.substr(line.find(' ') + 1);
        }
    }
    return all;
}

std::vector<page_part> examples_of(const std::string& page)
{
    std::vector<page_part> all = parts_of(page);
    all.erase(
        std::remove_if(all.begin(), all.end(), [](const page_part& part) { return part.begin != kExample; }),
        all.end());
    return all;
}

page_part part_named(const std::string& name, const std::string& page)
{
    for (const page_part& part : parts_of(page))
        if (part.name == name)
            return part;
    throw std::runtime_error(page + " has no part \"" + name + "\"");
}

std::vector<std::string> commands_of(const page_part& shown)
{
    std::vector<std::string> commands;
    std::istringstream lines(shown.text);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("$ ", 0) == 0)
            commands.push_back(line.substr(2));
    return commands;
}

bool renew(const page_part& shown, const std::string& made)
{
    if (std::getenv("RENEW_PAGES") == nullptr)
        return false;
    const std::string old = "\n" + shown.begin + "\n" + shown.text;
    std::string page = read_file(shown.page);
    page.replace(page.find(old), old.size(), "\n" + shown.begin + "\n" + made);
    std::ofstream(shown.page) << page;
    return true;
}

std::vector<std::vector<unsigned char>> bytes_behind(const std::string& label, const std::string& page)
{
    const std::regex line_of_bytes("^    " + label + " +((?:[0-9A-F]{2} *)+)$");
    std::vector<std::vector<unsigned char>> found;
    std::istringstream lines(page);
    for (std::string line; std::getline(lines, line);) {
        std::smatch parts;
        if (!std::regex_match(line, parts, line_of_bytes))
            continue;
        std::istringstream numbers(parts[1]);
        found.emplace_back();
        for (std::string number; numbers >> number;)
            found.back().push_back(static_cast<unsigned char>(std::stoul(number, nullptr, 16)));
    }
    return found;
}

} // namespace support
