#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

/// A folder of its own for a test, gone at its end.
class temporary_folder {
public:
    temporary_folder()
    {
        if (mkdtemp(m_path.data()) == nullptr)
            throw std::runtime_error("no temporary folder " + m_path);
    }
    temporary_folder(const temporary_folder&) = delete;
    temporary_folder& operator=(const temporary_folder&) = delete;
    ~temporary_folder() { std::filesystem::remove_all(m_path); }

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    /// Adds to a file below it, which is made when it is not there.
    void append(const std::string& name, const std::string& text) const
    {
        std::ofstream(m_path + "/" + name, std::ios::app) << text;
    }

private:
    std::string m_path = "/tmp/tvkctl-test-XXXXXX";
};
