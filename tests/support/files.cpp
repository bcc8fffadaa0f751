#include "support/files.h"

#include <fstream>
#include <sstream>

namespace support {

std::string read_file(const std::string& path)
{
    std::ostringstream all;
    // An empty file would leave the stream in its bad state.
    if (std::ifstream file(path, std::ios::binary); file.peek() != std::ifstream::traits_type::eof())
        all << file.rdbuf();
    return all.str();
}

} // namespace support
