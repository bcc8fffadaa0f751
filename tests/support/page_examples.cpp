#include "support/page_examples.h"

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

} // namespace support
