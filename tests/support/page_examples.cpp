#include "support/page_examples.h"

#include <regex>
#include <sstream>

namespace support {

std::vector<page_example> examples_of(const std::string& page)
{
    std::vector<page_example> all;
    std::istringstream lines(page);
    std::string heading;
    bool is_inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line == "```console") {
            all.push_back({heading, ""});
            is_inside = true;
        } else if (line == "```") {
            is_inside = false;
        } else if (is_inside) {
            all.back().text += line + "\n";
        } else if (line.rfind('#', 0) == 0) {
            heading = line.substr(line.find(' ') + 1);
        }
    }
    return all;
}

std::vector<std::string> commands_of(const page_example& shown)
{
    std::vector<std::string> commands;
    std::istringstream lines(shown.text);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind("$ ", 0) == 0)
            commands.push_back(line.substr(2));
    return commands;
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
