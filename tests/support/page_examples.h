#pragma once

#include <string>
#include <vector>

namespace support {

/// A fence of a Markdown page, opened by "```console", that shows commands and what they print.
struct page_example {
    std::string heading; ///< of the section in which it stands
    std::string text;    ///< "$ COMMAND", its output, the next "$ COMMAND" and so on
};

std::vector<page_example> examples_of(const std::string& page);

/// The commands of an example, without their "$ ".
std::vector<std::string> commands_of(const page_example& shown);

} // namespace support
