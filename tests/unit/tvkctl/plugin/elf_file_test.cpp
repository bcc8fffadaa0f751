#include "tvkctl/src/plugin/elf_file.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <tuple>

#include "support/caught_error.h"
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

const elf_file& passing()
{
    static const elf_file file = read_elf_file(built_plugin("passing"));
    return file;
}

std::string content_of(const std::string& plugin)
{
    return support::read_file(built_plugin(plugin));
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

} // namespace

TEST(elf_file, has_the_identity_of_the_program_for_what_was_built_along_with_it)
{
    EXPECT_EQ(passing().identity.text(), tarvik::tvkctl::own_identity().text());
}

TEST(elf_file, takes_a_plugin_built_for_armhf_for_what_the_process_is_made_for)
{
    REQUIRE_ARMHF_PLUGIN();
    EXPECT_EQ(read_elf_file(armhf_plugin()).identity.text(), "32-bit ARM, hard float");
    EXPECT_EQ(read_elf_file(armhf_plugin()).identity, tarvik::tvkctl::armhf_identity());
}

TEST(elf_identity, names_the_machine_or_its_number)
{
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_AARCH64)).text(), "64-bit AArch64");
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_X86_64)).text(), "64-bit x86-64");
    EXPECT_EQ(identity_of(bare_elf_file<Elf32_Ehdr>(EM_386)).text(), "32-bit x86");
    EXPECT_EQ(identity_of(bare_elf_file<Elf64_Ehdr>(EM_RISCV)).text(), "64-bit RISC-V");
    EXPECT_EQ(identity_of(bare_elf_file<Elf32_Ehdr>(EM_68K)).text(), "32-bit machine 4");
    EXPECT_EQ(identity_of(bare_arm_file(EF_ARM_ABI_FLOAT_SOFT)).text(), "32-bit ARM, soft float");
}

TEST(elf_identity, accepts_a_library_unless_it_tells_the_other_float_abi)
{
    const std::tuple<std::uint32_t, float_abi, bool> flags[] = {
        {EF_ARM_ABI_FLOAT_HARD, float_abi::hard, true},
        {EF_ARM_ABI_FLOAT_SOFT, float_abi::soft, false},
        {0, float_abi::unmarked, true},
    };
    for (const auto& [flag, floats, is_accepted] : flags) {
        EXPECT_EQ(identity_of(bare_arm_file(flag)).floats, floats);
        EXPECT_EQ(tarvik::tvkctl::armhf_identity().accepts(identity_of(bare_arm_file(flag))), is_accepted);
    }
}

TEST(elf_file, lists_what_is_needed_and_where_it_is_looked_for)
{
    const elf_file file = read_elf_file(built_plugin("needing_neighbour"));
    EXPECT_EQ(std::count(file.needed.begin(), file.needed.end(), "other_library.so"), 1);
    EXPECT_EQ(file.search_path, std::vector<std::string>{"$ORIGIN"});
    const auto needs = read_elf_file(built_plugin("printing")).version_needs;
    EXPECT_TRUE(std::any_of(needs.begin(), needs.end(), [](const tarvik::tvkctl::elf_version_need& need) {
        return need.library == "libc.so.6" && need.version.rfind("GLIBC_2.", 0) == 0;
    }));
}

TEST(elf_file, tells_exported_functions_from_variables_and_from_what_is_only_used)
{
    const elf_file odd = read_elf_file(built_plugin("odd_symbols"));
    const auto* function = passing().find_symbol("interpreter_ctor");
    const auto* variable = odd.find_symbol("interpreter_ctor");
    const auto* used = odd.find_symbol("interpreter_writer");
    ASSERT_TRUE(function != nullptr && variable != nullptr && used != nullptr);
    EXPECT_TRUE(function->is_function && function->is_exported);
    EXPECT_FALSE(variable->is_function);
    EXPECT_FALSE(used->is_defined);
}

TEST(elf_file, tells_a_library_from_a_program)
{
    EXPECT_EQ(passing().type, elf_file::kind::shared_library);
    EXPECT_EQ(read_elf_file("/proc/self/exe").type, elf_file::kind::program);
}

TEST(elf_file, recognises_an_executable_stack_and_relocations_in_the_code)
{
    EXPECT_TRUE(read_elf_file(built_plugin("with_executable_stack")).wants_executable_stack);
    EXPECT_FALSE(passing().wants_executable_stack);
    EXPECT_TRUE(read_elf_file(built_plugin("with_text_relocation")).has_text_relocations);
    EXPECT_FALSE(passing().has_text_relocations);
}

TEST(elf_file, is_unreadable_when_it_is_missing_or_no_file_or_reading_it_fails)
{
    const scratch_file neighbour("");
    const std::string pipe_of_nobody = neighbour.folder() / "pipe";
    ASSERT_EQ(mkfifo(pipe_of_nobody.c_str(), 0600), 0);
    for (const std::string& path : {std::string("/nonexistent/plugin.so"), std::string("/"), pipe_of_nobody,
                                    std::string("/proc/self/mem")}) // whose first page is never there
        EXPECT_EQ(failure_of_path(path), "unreadable") << path;
}

TEST(elf_file, names_the_file_that_it_could_not_read_and_says_why)
{
    const auto error = support::caught<elf_error>([] { read_elf_file("/nonexistent/plugin.so"); });
    EXPECT_STREQ(error.what(), "/nonexistent/plugin.so: No such file or directory");
}

TEST(elf_file, is_not_elf_when_it_is_empty_or_text_or_a_static_library)
{
    for (const char* content : {"", "#!/bin/sh\nexit 0\n", "!<arch>\n"})
        EXPECT_EQ(failure_of(content), "not ELF") << content;
}

TEST(elf_file, is_damaged_when_it_ends_in_its_header_or_what_is_loaded_or_lacks_its_last_byte)
{
    const std::string whole = content_of("passing");
    for (const std::size_t size : {std::size_t{20}, whole.size() / 4, whole.size() - 1})
        EXPECT_EQ(failure_of(whole.substr(0, size)), "damaged") << size << " bytes";
}

struct damage {
    const char* name;
    void (*inflict)(std::string& content);
};

const damage kDamages[] = {
    {"without_section_headers",
     [](std::string& content) {
         part<ElfW(Ehdr)> header(content, 0);
         header->e_shoff = 0;
         header->e_shnum = 0;
         header->e_shstrndx = 0;
     }},
    {"program_headers_beyond_its_end",
     [](std::string& content) {
         part<ElfW(Ehdr)>(content, 0)->e_phoff = static_cast<ElfW(Off)>(content.size());
     }},
    {"no_room_for_its_program_headers",
     [](std::string& content) { part<ElfW(Ehdr)>(content, 0)->e_phnum = PN_XNUM - 1; }},
    {"name_of_a_library_outside_of_all_tables",
     [](std::string& content) {
         part<ElfW(Dyn)>(content, first_need_of(content))->d_un.d_val = static_cast<ElfW(Addr)>(-1);
     }},
    {"version_table_that_points_outside_itself",
     [](std::string& content) {
         part<ElfW(Verneed)>(content, section_of(content, SHT_GNU_verneed))->vn_aux = 0x10000000;
     }},
};

class damaged_elf_file : public testing::TestWithParam<damage> {};

TEST_P(damaged_elf_file, is_recognised)
{
    std::string content = content_of("printing");
    GetParam().inflict(content);
    EXPECT_EQ(failure_of(content), "damaged");
}

INSTANTIATE_TEST_SUITE_P(, damaged_elf_file, testing::ValuesIn(kDamages),
                         [](const auto& test) { return test.param.name; });

TEST(elf_file, never_crashes_on_a_file_with_one_wrong_byte)
{
    const std::string whole = content_of("passing");
    const scratch_file neighbour("");
    const std::string path = neighbour.folder() / "changed.so";
    constexpr std::size_t kStep = 31; // all bytes in turn would take long and find no more
    std::size_t tried = 0;
    for (std::size_t position = 0; position < whole.size(); position += kStep) {
        std::string changed = whole;
        changed[position] = static_cast<char>(~changed[position]);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << changed;
        failure_of_path(path);
        ++tried;
    }
    EXPECT_GT(tried, 300U);
}
