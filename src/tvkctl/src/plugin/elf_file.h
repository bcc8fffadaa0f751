#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tarvik::tvkctl {

/// How floating-point arguments are passed; only ARM has both ways.
enum class float_abi { not_applicable, unmarked, soft, hard };

/// What decides which processes can load a file at all.
struct elf_identity {
    bool operator==(const elf_identity& other) const;
    bool operator!=(const elf_identity& other) const { return !(*this == other); }

    /// Whether a process of this identity can load a library of the other one. A library that does not say
    /// how it passes floating-point arguments is loaded.
    bool accepts(const elf_identity& library) const;
    /// In words: "32-bit ARM, hard float".
    std::string text() const;

    int bits; ///< 32 or 64
    bool is_big_endian;
    std::uint16_t machine; ///< EM_ARM and the like
    float_abi floats;
};

/// In a word: "ARM", "x86-64".
std::string machine_name(std::uint16_t machine);
/// In words: "hard float"; empty when it is not applicable.
std::string float_abi_name(float_abi floats);

/// The identity of the machine that the program is made for.
elf_identity armhf_identity();
/// The identity of this very program. Throws elf_error when it cannot be read.
elf_identity own_identity();

/// An entry of the dynamic symbol table.
struct elf_symbol {
    std::string name;
    bool is_defined;
    bool is_function;
    bool is_weak;
    bool is_exported; ///< global or weak, and visible from outside: what the loader can find by name
};

/// A version of a library's symbols without which the file is not loaded.
struct elf_version_need {
    std::string library; ///< "libc.so.6"
    std::string version; ///< "GLIBC_2.34"
};

/// A file that cannot be read as an ELF file; what() names the file and what is wrong with it.
class elf_error : public std::runtime_error {
public:
    enum class reason {
        unreadable, ///< missing, no permission, a directory
        not_elf,
        damaged ///< cut off, or its tables contradict each other
    };

    elf_error(reason why, const std::string& what) : std::runtime_error(what), m_why(why) {}
    reason why() const { return m_why; }

private:
    reason m_why;
};

/// What an ELF file says about itself. A value: the file is closed again.
struct elf_file {
    enum class kind { shared_library, program, other };

    /// The symbol with this name, or null.
    const elf_symbol* find_symbol(const std::string& name) const;

    std::string path;
    elf_identity identity;
    kind type;                            ///< a position-independent program is a program
    std::vector<std::string> needed;      ///< libraries, in the loader's order
    std::vector<std::string> search_path; ///< directories of its own for these, as written ("$ORIGIN/..")
    std::vector<elf_version_need> version_needs;
    std::vector<std::string> versions; ///< of its own symbols, that others may need
    std::vector<elf_symbol> symbols;
    bool wants_executable_stack;
    bool has_text_relocations;
};

/// Reads the file without loading it or running anything of it, for whatever machine it was built. Throws
/// elf_error.
elf_file read_elf_file(const std::string& path);

} // namespace tarvik::tvkctl
