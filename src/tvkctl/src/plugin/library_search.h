#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "tvkctl/src/plugin/elf_file.h"

namespace tarvik::tvkctl {

/// Where the loader of a machine finds libraries, told from that machine's files and without loading any.
class library_search {
public:
    /// `loader` is the identity of the processes on that machine. `root` is the folder with that machine's
    /// files; empty for this machine, whose LD_LIBRARY_PATH then counts as well.
    library_search(elf_identity loader, std::string root);

    /// Path of the library that `user` gets when it needs `name`.
    std::optional<std::string> find(const std::string& name, const elf_file& user) const;

private:
    std::vector<std::string> folders_of(const elf_file& user) const;

    elf_identity m_loader;
    std::string m_root;
    std::vector<std::string> m_folders; ///< below m_root already
};

/// All that is loaded along with a file.
struct library_closure {
    struct absence {
        std::string name;
        std::string needed_by; ///< path
    };

    /// The library with this name, or null.
    const elf_file* find(const std::string& name) const;

    std::vector<std::string> names; ///< as they were asked for; one for each library
    std::deque<elf_file> libraries;
    std::vector<absence> absent;
};

/// Follows the needs of `user` through all libraries. One that is there and damaged counts as absent.
library_closure follow_needs(const elf_file& user, const library_search& search);

} // namespace tarvik::tvkctl
