#pragma once

#include <array>
#include <string>
#include <vector>

#include "tvkctl/src/machine/check_result.h"
#include "tvkctl/src/plugin/elf_file.h"

namespace tarvik::tvkctl {

/// The functions that a plugin exports, in the order in which they are looked up.
constexpr std::array<const char*, 4> kEntryPoints = {"interpreter_ctor", "interpreter_dtor",
                                                     "interpreter_reader", "interpreter_writer"};

/// The machine for which a plugin is judged.
struct plugin_target {
    std::string name;    ///< "armhf" or "native"
    elf_identity loader; ///< what a process there is
    std::string glibc;   ///< its C library's version; counts where that library cannot be looked at
    std::string root;    ///< folder with its files; empty: this machine
    bool has_libraries;  ///< whether its libraries can be looked at
};

/// The machine that the process is made for. Its libraries are looked at in `root`, unless that is empty and
/// this is not such a machine. `glibc` is taken as it is.
plugin_target armhf_target(const std::string& root, const std::string& glibc);
/// The machine on which this runs.
plugin_target native_target();

/// Judges what a file says about itself, line by line, in the order in which the loader would fail.
std::vector<check_result> check_plugin(const elf_file& file, const plugin_target& target);

} // namespace tarvik::tvkctl
