// ELF files: one that is damaged is refused with its name, and one that was read holds together.

#include "tvkctl/src/plugin/elf_file.h"

#include <algorithm>

#include "fuzz/harness.h"

using namespace tarvik::tvkctl;

namespace {

void check(const elf_file& file, std::string_view input)
{
    fuzz::expect(file.identity.bits == 32 || file.identity.bits == 64, "a file has 32 or 64 bits");
    fuzz::expect(file.identity.accepts(file.identity), "a file can be loaded by its like");
    fuzz::expect(!file.identity.text().empty(), "a machine has a name");
    const auto is_inside = [&](const std::string& name) {
        return input.find(name) != std::string_view::npos;
    };
    for (const elf_symbol& each : file.symbols) {
        fuzz::expect(!each.name.empty() && is_inside(each.name), "a symbol's name stands in the file");
        fuzz::expect(file.find_symbol(each.name) != nullptr, "a symbol is found by its name");
        fuzz::expect(each.is_defined || !each.is_exported, "what is exported is defined");
    }
    fuzz::expect(std::all_of(file.needed.begin(), file.needed.end(), is_inside),
                 "a library's name stands in the file");
    for (const elf_version_need& each : file.version_needs)
        fuzz::expect(is_inside(each.library) && is_inside(each.version),
                     "a version's name stands in the file");
}

} // namespace

void fuzz_one(std::string_view input)
{
    static const fuzz::scratch_folder folder;
    const std::string path = folder.file("plugin.so", input);
    const bool is_marked = input.substr(0, 4) == "\x7f"
                                                 "ELF";
    try {
        check(read_elf_file(path), input);
        fuzz::expect(is_marked, "a file that was read is marked as ELF");
    } catch (const elf_error& error) {
        fuzz::expect(error.why() == (is_marked ? elf_error::reason::damaged : elf_error::reason::not_elf),
                     "the reason is right");
        fuzz::expect(std::string(error.what()).compare(0, path.size() + 2, path + ": ") == 0,
                     "the file is named");
    }
}
