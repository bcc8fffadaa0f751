#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace check_plugin_test {

/// A file with some content, in a folder of its own; both are gone afterwards.
class scratch_file {
public:
    explicit scratch_file(const std::string& content)
    {
        std::string pattern = std::filesystem::temp_directory_path() / "check_plugin_XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no temporary folder could be made as " + pattern);
        m_folder = pattern;
        std::ofstream(path(), std::ios::binary) << content;
    }
    scratch_file(const scratch_file&) = delete;
    scratch_file& operator=(const scratch_file&) = delete;
    ~scratch_file()
    {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }

    std::string path() const { return m_folder / "file.so"; }
    const std::filesystem::path& folder() const { return m_folder; }

private:
    std::filesystem::path m_folder;
};

} // namespace check_plugin_test
