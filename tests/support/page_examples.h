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

/// The bytes in indented lines "    LABEL  56 53 ..." of a page, one entry for each such line. A line that
/// only counts its bytes is left out.
std::vector<std::vector<unsigned char>> bytes_behind(const std::string& label, const std::string& page);

} // namespace support
