#include "tvkctl/src/plugin/elf_file.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <stdexcept>
#include <string>

#include "support/files.h"
#include "support/plugin_files.h"
#include "unit/tvkctl/plugin/armhf_plugin.h"
#include "unit/tvkctl/plugin/bare_elf_file.h"
#include "unit/tvkctl/plugin/scratch_file.h"

using check_plugin_test::armhf_plugin;
using check_plugin_test::bare_arm_file;
using check_plugin_test::bare_elf_file;
using check_plugin_test::scratch_file;
using support::built_plugin;
using tarvik::tvkctl::elf_error;
using tarvik::tvkctl::elf_file;
using tarvik::tvkctl::float_abi;
using tarvik::tvkctl::read_elf_file;

namespace {

/// How reading a file with this content fails, in words; "read" when it does not.
std::string failure_of_path(const std::string& path)
{
    try {
        read_elf_file(path);
    } catch (const elf_error& error) {
        switch (error.why()) {
        case elf_error::reason::unreadable:
            return "unreadable";
        case elf_error::reason::not_elf:
            return "not ELF";
        case elf_error::reason::damaged:
            return "damaged";
        }
    }
    return "read";
}

std::string failure_of(const std::string& content)
{
    return failure_of_path(scratch_file(content).path());
}

tarvik::tvkctl::elf_identity identity_of(const std::string& content)
{
    return read_elf_file(scratch_file(content).path()).identity;
}

std::string passing_content()
{
    return support::read_file(built_plugin("passing"));
}

/// An object of an ELF file, to be read and changed in a copy of the file.
template <typename Object>
class part {
public:
    part(std::string& file, std::size_t offset) : m_file(file), m_offset(offset)
    {
        m_file.copy(reinterpret_cast<char*>(&m_object), sizeof m_object, offset); // bytes, as they are
    }
    part(const part&) = delete;
    part& operator=(const part&) = delete;
    ~part() { m_file.replace(m_offset, sizeof m_object, check_plugin_test::raw(m_object)); }

    Object* operator->() { return &m_object; }

private:
    Object m_object{};
    std::string& m_file;
    std::size_t m_offset;
};

/// Where the first section of a type begins.
std::size_t section_of(std::string& file, std::uint32_t type)
{
    part<ElfW(Ehdr)> header(file, 0);
    for (std::size_t index = 0; index < header->e_shnum; ++index) {
        part<ElfW(Shdr)> section(file, header->e_shoff + index * sizeof(ElfW(Shdr)));
        if (section->sh_type == type)
            return section->sh_offset;
    }
    throw std::runtime_error("no section of type " + std::to_string(type));
}

/// The first word on a library that is needed.
std::size_t first_need_of(std::string& file)
{
    for (std::size_t offset = section_of(file, SHT_DYNAMIC);; offset += sizeof(ElfW(Dyn)))
        if (part<ElfW(Dyn)>(file, offset)->d_tag == DT_NEEDED)
            return offset;
}

bool contains(const std::vector<std::string>& all, const std::string& one)
{
    return std::find(all.begin(), all.end(), one) != all.end();
}

} // namespace

TEST(elf_file, has_the_identity_of_the_program_for_what_was_built_along_with_it)
{
    EXPECT_EQ(read_elf_file(built_plugin("passing")).identity.text(), tarvik::tvkctl::own_identity().text());
}

TEST(elf_file, recognises_a_hard_float_arm_library)
{
    REQUIRE_ARMHF_PLUGIN();
    EXPECT_EQ(read_elf_file(armhf_plugin()).identity.text(), "32-bit ARM, hard float");
}

TEST(elf_file, takes_a_plugin_built_for_armhf_for_what_the_process_is_made_for)
{
    REQUIRE_ARMHF_PLUGIN();
    EXPECT_EQ(read_elf_file(armhf_plugin()).identity, tarvik::tvkctl::armhf_identity());
}

TEST(elf_file, recognises_hard_float_by_its_flag)
{
    EXPECT_EQ(identity_of(bare_arm_file(EF_ARM_ABI_FLOAT_HARD)).floats, float_abi::hard);
}

TEST(elf_file, recognises_soft_float_by_its_flag)
{
    EXPECT_EQ(identity_of(bare_arm_file(EF_ARM_ABI_FLOAT_SOFT)).text(), "32-bit ARM, soft float");
}

TEST(elf_file, recognises_an_arm_file_without_either_flag)
{
    EXPECT_EQ(identity_of(bare_arm_file(0)).floats, float_abi::unmarked);
}

TEST(elf_identity, names_the_machine)
{
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_AARCH64)).text(), "64-bit AArch64");
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_X86_64)).text(), "64-bit x86-64");
    EXPECT_EQ(identity_of(bare_elf_file<Elf32_Ehdr>(EM_386)).text(), "32-bit x86");
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_RISCV)).text(), "64-bit RISC-V");
}

TEST(elf_identity, has_a_number_for_a_machine_without_name)
{
    EXPECT_EQ(identity_of(bare_elf_file<Elf32_Ehdr>(EM_68K)).text(), "32-bit machine 4");
}

TEST(elf_identity, accepts_a_library_that_does_not_tell_its_float_abi)
{
    EXPECT_TRUE(tarvik::tvkctl::armhf_identity().accepts(identity_of(bare_arm_file(0))));
}

TEST(elf_identity, does_not_accept_a_library_of_the_other_float_abi)
{
    EXPECT_FALSE(tarvik::tvkctl::armhf_identity().accepts(identity_of(bare_arm_file(EF_ARM_ABI_FLOAT_SOFT))));
}

TEST(elf_file, lists_the_libraries_that_are_needed)
{
    EXPECT_TRUE(contains(read_elf_file(built_plugin("needing_neighbour")).needed, "other_library.so"));
}

TEST(elf_file, lists_the_folders_in_which_a_library_looks_for_others)
{
    EXPECT_EQ(read_elf_file(built_plugin("needing_neighbour")).search_path,
              std::vector<std::string>{"$ORIGIN"});
}

TEST(elf_file, lists_the_versions_that_are_needed_of_the_c_library)
{
    const auto needs = read_elf_file(built_plugin("printing")).version_needs;
    EXPECT_TRUE(std::any_of(needs.begin(), needs.end(), [](const tarvik::tvkctl::elf_version_need& need) {
        return need.library == "libc.so.6" && need.version.rfind("GLIBC_2.", 0) == 0;
    }));
}

TEST(elf_file, finds_an_exported_function)
{
    const elf_file file = read_elf_file(built_plugin("passing"));
    const tarvik::tvkctl::elf_symbol* symbol = file.find_symbol("interpreter_ctor");
    ASSERT_NE(symbol, nullptr);
    EXPECT_TRUE(symbol->is_function && symbol->is_exported);
}

TEST(elf_file, tells_a_variable_from_a_function)
{
    const elf_file file = read_elf_file(built_plugin("odd_symbols"));
    const tarvik::tvkctl::elf_symbol* symbol = file.find_symbol("interpreter_ctor");
    ASSERT_NE(symbol, nullptr);
    EXPECT_FALSE(symbol->is_function);
}

TEST(elf_file, recognises_a_symbol_that_is_only_used)
{
    const elf_file file = read_elf_file(built_plugin("odd_symbols"));
    const tarvik::tvkctl::elf_symbol* symbol = file.find_symbol("interpreter_writer");
    ASSERT_NE(symbol, nullptr);
    EXPECT_FALSE(symbol->is_defined);
}

TEST(elf_file, tells_a_library_from_a_program)
{
    EXPECT_EQ(read_elf_file(built_plugin("passing")).type, elf_file::kind::shared_library);
    EXPECT_EQ(read_elf_file("/proc/self/exe").type, elf_file::kind::program);
}

TEST(elf_file, recognises_an_executable_stack)
{
    EXPECT_TRUE(read_elf_file(built_plugin("with_executable_stack")).wants_executable_stack);
    EXPECT_FALSE(read_elf_file(built_plugin("passing")).wants_executable_stack);
}

TEST(elf_file, recognises_relocations_in_the_code)
{
    EXPECT_TRUE(read_elf_file(built_plugin("with_text_relocation")).has_text_relocations);
    EXPECT_FALSE(read_elf_file(built_plugin("passing")).has_text_relocations);
}

TEST(elf_file, is_unreadable_when_it_is_missing)
{
    EXPECT_EQ(failure_of_path("/nonexistent/plugin.so"), "unreadable");
}

TEST(elf_file, is_unreadable_when_it_is_a_folder)
{
    EXPECT_EQ(failure_of_path("/"), "unreadable");
}

TEST(elf_file, is_unreadable_when_it_is_a_pipe_that_nobody_writes_to)
{
    const scratch_file neighbour("");
    const std::string path = neighbour.folder() / "pipe";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(failure_of_path(path), "unreadable");
}

TEST(elf_file, names_the_file_that_it_could_not_read_and_says_why)
{
    try {
        read_elf_file("/nonexistent/plugin.so");
        FAIL() << "nothing was thrown";
    } catch (const elf_error& error) {
        EXPECT_STREQ(error.what(), "/nonexistent/plugin.so: No such file or directory");
    }
}

TEST(elf_file, is_not_elf_when_it_is_empty)
{
    EXPECT_EQ(failure_of(""), "not ELF");
}

TEST(elf_file, is_not_elf_when_it_is_text)
{
    EXPECT_EQ(failure_of("#!/bin/sh\nexit 0\n"), "not ELF");
}

TEST(elf_file, is_not_elf_when_it_is_a_static_library)
{
    EXPECT_EQ(failure_of("!<arch>\n"), "not ELF");
}

TEST(elf_file, is_damaged_when_it_ends_in_its_header)
{
    EXPECT_EQ(failure_of(passing_content().substr(0, 20)), "damaged");
}

TEST(elf_file, is_damaged_when_a_part_that_is_loaded_is_cut_off)
{
    const std::string whole = passing_content();
    EXPECT_EQ(failure_of(whole.substr(0, whole.size() / 4)), "damaged");
}

TEST(elf_file, is_damaged_when_its_last_byte_is_missing)
{
    const std::string whole = passing_content();
    EXPECT_EQ(failure_of(whole.substr(0, whole.size() - 1)), "damaged");
}

TEST(elf_file, is_damaged_when_its_section_headers_were_removed)
{
    std::string content = passing_content();
    // Where and how many: the fields of the class that the file has.
    if (tarvik::tvkctl::own_identity().bits == 64) {
        content.replace(offsetof(Elf64_Ehdr, e_shoff), sizeof(Elf64_Off), sizeof(Elf64_Off), '\0');
        content.replace(offsetof(Elf64_Ehdr, e_shnum), 4, 4, '\0'); // and the index of their names
    } else {
        content.replace(offsetof(Elf32_Ehdr, e_shoff), sizeof(Elf32_Off), sizeof(Elf32_Off), '\0');
        content.replace(offsetof(Elf32_Ehdr, e_shnum), 4, 4, '\0');
    }
    EXPECT_EQ(failure_of(content), "damaged");
}

TEST(elf_file, is_damaged_when_its_program_headers_lie_beyond_its_end)
{
    std::string content = passing_content();
    part<ElfW(Ehdr)>(content, 0)->e_phoff = static_cast<ElfW(Off)>(content.size());
    EXPECT_EQ(failure_of(content), "damaged");
}

TEST(elf_file, is_damaged_when_it_has_no_room_for_its_program_headers)
{
    std::string content = passing_content();
    part<ElfW(Ehdr)>(content, 0)->e_phnum = PN_XNUM - 1;
    EXPECT_EQ(failure_of(content), "damaged");
}

TEST(elf_file, is_damaged_when_the_name_of_a_library_is_outside_of_all_tables)
{
    std::string content = support::read_file(built_plugin("printing"));
    const std::size_t need = first_need_of(content);
    part<ElfW(Dyn)>(content, need)->d_un.d_val = static_cast<ElfW(Addr)>(-1);
    EXPECT_EQ(failure_of(content), "damaged");
}

TEST(elf_file, is_damaged_when_its_version_table_points_outside_itself)
{
    std::string content = support::read_file(built_plugin("printing"));
    const std::size_t versions = section_of(content, SHT_GNU_verneed);
    part<ElfW(Verneed)>(content, versions)->vn_aux = 0x10000000;
    EXPECT_EQ(failure_of(content), "damaged");
}

TEST(elf_file, is_unreadable_when_reading_it_fails)
{
    EXPECT_EQ(failure_of_path("/proc/self/mem"), "unreadable") << "its first page is never there";
}

TEST(elf_file, never_crashes_on_a_file_with_one_wrong_byte)
{
    const std::string whole = passing_content();
    const scratch_file neighbour("");
    const std::string path = neighbour.folder() / "changed.so";
    constexpr std::size_t step = 31; // all bytes in turn would take long and find no more
    std::size_t tried = 0;
    for (std::size_t position = 0; position < whole.size(); position += step) {
        std::string changed = whole;
        changed[position] = static_cast<char>(~changed[position]);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << changed;
        failure_of_path(path);
        ++tried;
    }
    EXPECT_GT(tried, 300U);
}
