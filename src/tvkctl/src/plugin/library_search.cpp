#include "tvkctl/src/plugin/library_search.h"

#include <elf.h>
#include <glob.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

namespace fs = std::filesystem;

constexpr int kDeepestInclusion = 8; // a configuration that includes itself must not end the program

const char* triplet_of(const elf_identity& loader)
{
    switch (loader.machine) {
    case EM_ARM:
        return loader.floats == float_abi::hard ? "arm-linux-gnueabihf" : "arm-linux-gnueabi";
    case EM_AARCH64:
        return "aarch64-linux-gnu";
    case EM_X86_64:
        return "x86_64-linux-gnu";
    case EM_386:
        return "i386-linux-gnu";
    default:
        return nullptr;
    }
}

std::vector<std::string> files_matching(const std::string& pattern)
{
    glob_t found{};
    std::vector<std::string> files;
    if (glob(pattern.c_str(), 0, nullptr, &found) == 0)
        files.assign(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return files;
}

/// Adds the folders that a loader configuration names; relative patterns stand beside the file.
void add_configured_folders(const std::string& root, const fs::path& file, std::vector<std::string>& folders,
                            int depth = 0)
{
    if (depth > kDeepestInclusion)
        return;
    std::ifstream configuration(file);
    for (std::string line; std::getline(configuration, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string word;
        words >> word;
        if (word == "include" && words >> word) {
            const fs::path pattern = word.front() == '/' ? fs::path(root + word) : file.parent_path() / word;
            for (const std::string& included : files_matching(pattern))
                add_configured_folders(root, included, folders, depth + 1);
        } else if (!word.empty() && word.front() == '/') {
            folders.push_back(root + word);
        }
    }
}

std::vector<std::string> standard_folders(const elf_identity& loader)
{
    std::vector<std::string> folders;
    if (const char* triplet = triplet_of(loader))
        for (const char* above : {"/lib/", "/usr/lib/"})
            folders.push_back(std::string(above) + triplet);
    for (const char* folder : {"/lib", "/usr/lib", "/lib64", "/usr/lib64"})
        folders.emplace_back(folder);
    return folders;
}

void replace(std::string& text, const std::string& what, const std::string& by)
{
    if (const auto at = text.find(what); at != std::string::npos)
        text.replace(at, what.size(), by);
}

/// The loader passes over files of other machines that bear the right name.
bool is_loadable(const std::string& file, const elf_identity& loader)
{
    try {
        return loader.accepts(read_elf_file(file).identity);
    } catch (const elf_error&) {
        return false; // most often: there is no such file
    }
}

} // namespace

library_search::library_search(elf_identity loader, std::string root)
    : m_loader(loader), m_root(std::move(root))
{
    const char* path = std::getenv("LD_LIBRARY_PATH");
    if (m_root.empty() && path != nullptr)
        m_folders = split(path, ':');
    m_folders.erase(std::remove(m_folders.begin(), m_folders.end(), ""), m_folders.end());
    add_configured_folders(m_root, m_root + "/etc/ld.so.conf", m_folders);
    for (const std::string& folder : standard_folders(m_loader))
        m_folders.push_back(m_root + folder);
}

std::vector<std::string> library_search::folders_of(const elf_file& user) const
{
    std::vector<std::string> folders;
    for (std::string folder : user.search_path) {
        const std::string origin = fs::absolute(user.path).parent_path();
        const bool is_relative_to_file = folder.find("ORIGIN") != std::string::npos;
        replace(folder, "${ORIGIN}", origin);
        replace(folder, "$ORIGIN", origin);
        folders.push_back(is_relative_to_file ? folder : m_root + folder);
    }
    folders.insert(folders.end(), m_folders.begin(), m_folders.end());
    return folders;
}

std::optional<std::string> library_search::find(const std::string& name, const elf_file& user) const
{
    if (name.find('/') != std::string::npos)
        return is_loadable(m_root + name, m_loader) ? std::optional(m_root + name) : std::nullopt;
    for (const fs::path folder : folders_of(user))
        if (std::string file = folder / name; is_loadable(file, m_loader))
            return file;
    return std::nullopt;
}

const elf_file* library_closure::find(const std::string& name) const
{
    const auto found = std::find(names.begin(), names.end(), name);
    return found == names.end() ? nullptr : &libraries[static_cast<std::size_t>(found - names.begin())];
}

library_closure follow_needs(const elf_file& user, const library_search& search)
{
    library_closure closure;
    std::vector<std::string> asked;
    const auto take_needs_of = [&](const elf_file& file) { // `file` stays in place while the deque grows
        for (const std::string& name : file.needed) {
            if (std::find(asked.begin(), asked.end(), name) != asked.end())
                continue;
            asked.push_back(name);
            if (const auto path = search.find(name, file)) {
                closure.names.push_back(name);
                closure.libraries.push_back(read_elf_file(*path));
            } else {
                closure.absent.push_back({name, file.path});
            }
        }
    };
    take_needs_of(user);
    for (std::size_t next = 0; next < closure.libraries.size(); ++next)
        take_needs_of(closure.libraries[next]);
    return closure;
}

} // namespace tarvik::tvkctl
