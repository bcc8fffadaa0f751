#pragma once

#include <string>
#include <vector>

namespace support {

/// A part of a page that a program has made, and that a test compares with what it makes today. One of
///
///     ```console                       commands with what they print, named after the section's heading
///     <!-- made: NAME -->              in Markdown, up to <!-- end -->
///     .\" made: NAME                   in a manual page, up to .\" end
struct page_part {
    std::string page; ///< path of the file
    std::string name;
    std::string begin; ///< the line before the text
    std::string text;
};

std::vector<page_part> parts_of(const std::string& page);
/// Those that show commands.
std::vector<page_part> examples_of(const std::string& page);
/// The one with this name. Throws std::runtime_error where there is none.
page_part part_named(const std::string& name, const std::string& page);

/// The commands of an example, without their "$ ".
std::vector<std::string> commands_of(const page_part& shown);

/// Writes what was made today in the place of what is shown, if scripts/pages asks for that; whether it does.
bool renew(const page_part& shown, const std::string& made);

/// The bytes in indented lines "    LABEL  56 53 ..." of a page, one entry for each such line. A line that
/// only counts its bytes is left out.
std::vector<std::vector<unsigned char>> bytes_behind(const std::string& label, const std::string& page);

} // namespace support
