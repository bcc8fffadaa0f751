#include "tvkctl/src/machine/host.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

bool is_executable(const std::filesystem::path& file)
{
    std::error_code ignored;
    return std::filesystem::is_regular_file(file, ignored) && access(file.c_str(), X_OK) == 0;
}

std::string program_beside_this_one()
{
    std::error_code error;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
    const auto candidate = self.parent_path() / kProgramName;
    return !error && is_executable(candidate) ? candidate.string() : "";
}

std::string program_in_path()
{
    const char* path = std::getenv("PATH");
    for (const std::string& folder : split(path != nullptr ? path : "", ':'))
        if (const auto candidate = std::filesystem::path(folder) / kProgramName; is_executable(candidate))
            return candidate.string();
    return "";
}

} // namespace

host this_host()
{
    host here;
    here.program = program_beside_this_one();
    if (here.program.empty())
        here.program = program_in_path();
    return here;
}

} // namespace tarvik::tvkctl
