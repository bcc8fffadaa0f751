#include "tvkctl/src/plugin/plugin_check.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "unit/tvkctl/plugin/checked_plugins.h"

using check_plugin_test::armhf_plugin;
using check_plugin_test::checked_plugin;
using tarvik::tvkctl::check_plugin;
using tarvik::tvkctl::elf_file;
using tarvik::tvkctl::exit_code;
using tarvik::tvkctl::finding;
using tarvik::tvkctl::float_abi;
using tarvik::tvkctl::plugin_target;
using tarvik::tvkctl::read_elf_file;
using tarvik::tvkctl::verdict;

namespace {

/// The line on one check of a file, judged for this machine.
finding line_of(const std::string& check, const elf_file& file,
                const plugin_target& target = tarvik::tvkctl::native_target())
{
    for (const finding& line : check_plugin(file, target))
        if (line.check == check)
            return line;
    return {"no line on " + check, verdict::bad, "", "", exit_code::ok};
}

finding line_of(const std::string& check, const std::string& plugin)
{
    return line_of(check, read_elf_file(checked_plugin(plugin)));
}

void expect_bad(const finding& line, exit_code code, const std::string& part_of_evidence)
{
    EXPECT_EQ(line.came_out, verdict::bad) << line.evidence;
    EXPECT_EQ(line.code, code);
    EXPECT_NE(line.evidence.find(part_of_evidence), std::string::npos) << line.evidence;
    EXPECT_NE(line.advice, "");
}

elf_file arm_file(float_abi floats)
{
    elf_file file = read_elf_file(checked_plugin("printing"));
    file.identity = tarvik::tvkctl::armhf_identity();
    file.identity.floats = floats;
    return file;
}

plugin_target foreign_target()
{
    plugin_target target = tarvik::tvkctl::armhf_target("", "2.36");
    target.has_libraries = false;
    return target;
}

} // namespace

TEST(plugin_check, finds_nothing_wrong_with_a_good_plugin)
{
    for (const finding& line :
         check_plugin(read_elf_file(checked_plugin("passing")), tarvik::tvkctl::native_target()))
        EXPECT_EQ(line.came_out, verdict::good) << line.check << ": " << line.evidence;
}

TEST(plugin_check, finds_nothing_wrong_with_a_good_arm_plugin_as_far_as_it_can_be_told_here)
{
    REQUIRE_ARMHF_PLUGIN();
    for (const finding& line : check_plugin(read_elf_file(armhf_plugin()), foreign_target()))
        EXPECT_NE(line.came_out, verdict::bad) << line.check << ": " << line.evidence;
}

TEST(plugin_check, is_bad_for_a_plugin_of_another_class)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.identity.bits = file.identity.bits == 64 ? 32 : 64;
    expect_bad(line_of("class", file), exit_code::plugin_wrong_machine, "a process there is");
}

TEST(plugin_check, is_bad_for_a_plugin_of_the_other_byte_order)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.identity.is_big_endian = true;
    expect_bad(line_of("class", file), exit_code::plugin_wrong_machine, "big-endian");
}

TEST(plugin_check, is_bad_for_a_plugin_of_another_machine)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.identity.machine = EM_RISCV;
    expect_bad(line_of("machine", file), exit_code::plugin_wrong_machine, "RISC-V");
}

TEST(plugin_check, is_bad_for_a_soft_float_plugin)
{
    expect_bad(line_of("float ABI", arm_file(float_abi::soft), foreign_target()),
               exit_code::plugin_wrong_machine, "soft float");
}

TEST(plugin_check, warns_of_a_plugin_that_does_not_tell_its_float_abi)
{
    EXPECT_EQ(line_of("float ABI", arm_file(float_abi::unmarked), foreign_target()).came_out,
              verdict::warning);
}

TEST(plugin_check, is_bad_for_a_program)
{
    expect_bad(line_of("kind", read_elf_file("/proc/self/exe")), exit_code::plugin_not_a_library, "program");
}

TEST(plugin_check, is_bad_for_an_object_file)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.type = elf_file::kind::other;
    expect_bad(line_of("kind", file), exit_code::plugin_not_a_library, "object file");
}

TEST(plugin_check, finds_a_library_beside_the_plugin)
{
    EXPECT_EQ(line_of("libraries", "needing_neighbour").came_out, verdict::good);
}

TEST(plugin_check, is_bad_when_a_library_is_nowhere)
{
    expect_bad(line_of("libraries", "needing_absent_library"), exit_code::plugin_needs_missing,
               "other_library.so (needed by");
}

TEST(plugin_check, says_what_it_could_not_look_at_without_the_libraries_of_the_machine)
{
    const finding line = line_of("libraries", arm_file(float_abi::hard), foreign_target());
    EXPECT_EQ(line.came_out, verdict::not_checked);
    EXPECT_EQ(line.advice, "Name a folder with them: --sysroot DIR.");
}

TEST(plugin_check, names_the_symbols_that_it_could_not_look_for)
{
    elf_file file = arm_file(float_abi::hard);
    file.symbols = {{"used_elsewhere", false, true, false, false}};
    const finding line = line_of("symbols", file, foreign_target());
    EXPECT_EQ(line.came_out, verdict::not_checked);
    EXPECT_EQ(line.evidence, "needs used_elsewhere; the libraries of the other machine are not here");
}

TEST(plugin_check, is_good_when_there_is_no_symbol_to_look_for)
{
    elf_file file = arm_file(float_abi::hard);
    file.symbols.clear();
    EXPECT_EQ(line_of("symbols", file, foreign_target()).came_out, verdict::good);
}

TEST(plugin_check, is_bad_when_the_c_library_of_the_machine_is_too_old)
{
    plugin_target target = tarvik::tvkctl::native_target();
    target.glibc = "2.1";
    expect_bad(line_of("glibc", read_elf_file(checked_plugin("printing")), target),
               exit_code::plugin_needs_missing, "there is only 2.1");
}

TEST(plugin_check, compares_versions_by_number)
{
    elf_file file = read_elf_file(checked_plugin("printing"));
    file.version_needs = {
        {"libc.so.6", "GLIBC_2.4"}, {"libc.so.6", "GLIBC_2.34"}, {"libc.so.6", "GLIBC_2.9"}};
    plugin_target target = tarvik::tvkctl::native_target();
    target.glibc = "2.31";
    expect_bad(line_of("glibc", file, target), exit_code::plugin_needs_missing, "2.34 or newer");
}

TEST(plugin_check, warns_of_the_insides_of_the_c_library)
{
    elf_file file = read_elf_file(checked_plugin("printing"));
    file.version_needs = {{"libc.so.6", "GLIBC_PRIVATE"}};
    EXPECT_EQ(line_of("glibc", file).came_out, verdict::warning);
}

TEST(plugin_check, is_bad_when_a_library_lacks_a_version)
{
    elf_file file = read_elf_file(checked_plugin("printing"));
    file.version_needs = {{"libc.so.6", "GLIBC_9.99"}};
    expect_bad(line_of("versions", file), exit_code::plugin_needs_missing, "GLIBC_9.99 of libc.so.6");
}

TEST(plugin_check, does_not_miss_the_versions_of_a_library_that_is_missing_itself)
{
    elf_file file = read_elf_file(checked_plugin("needing_absent_library"));
    file.version_needs.push_back({"other_library.so", "OTHER_1"});
    EXPECT_EQ(line_of("versions", file).came_out, verdict::good);
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_a_variable)
{
    expect_bad(line_of("interpreter_ctor", "odd_symbols"), exit_code::plugin_incomplete, "not a function");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_hidden)
{
    expect_bad(line_of("interpreter_dtor", "odd_symbols"), exit_code::plugin_incomplete, "not there");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_only_used)
{
    expect_bad(line_of("interpreter_writer", "odd_symbols"), exit_code::plugin_incomplete,
               "used, but not defined");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_only_its_own_file_can_use)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    for (tarvik::tvkctl::elf_symbol& symbol : file.symbols)
        symbol.is_exported = symbol.is_exported && symbol.name != "interpreter_ctor";
    expect_bad(line_of("interpreter_ctor", file), exit_code::plugin_incomplete, "not visible from outside");
}

TEST(plugin_check, is_bad_for_an_entry_point_with_a_cpp_name)
{
    expect_bad(line_of("interpreter_ctor", "cpp_names"), exit_code::plugin_incomplete, "C++ name");
}

TEST(plugin_check, is_bad_for_a_symbol_that_is_nowhere)
{
    expect_bad(line_of("symbols", "missing_symbol"), exit_code::plugin_needs_missing, "defined_nowhere");
}

TEST(plugin_check, names_five_symbols_that_are_nowhere_and_counts_the_others)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    for (const char* name : {"one", "two", "three", "four", "five", "six", "seven"})
        file.symbols.push_back({std::string("nowhere_") + name, false, true, false, false});
    expect_bad(line_of("symbols", file), exit_code::plugin_needs_missing, "nowhere_five and 2 more");
}

TEST(plugin_check, warns_of_a_symbol_that_only_the_program_brings_along)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.symbols.push_back({"libusb_init", false, true, false, false});
    const finding line = line_of("symbols", file);
    EXPECT_EQ(line.came_out, verdict::warning);
    EXPECT_NE(line.evidence.find("libusb_init"), std::string::npos) << line.evidence;
}

TEST(plugin_check, lets_a_weak_symbol_be_nowhere)
{
    elf_file file = read_elf_file(checked_plugin("passing"));
    file.symbols.push_back({"optional_helper", false, true, true, false});
    EXPECT_EQ(line_of("symbols", file).came_out, verdict::good);
}

TEST(plugin_check, warns_of_an_executable_stack)
{
    EXPECT_EQ(line_of("stack", "with_executable_stack").came_out, verdict::warning);
}

TEST(plugin_check, warns_of_relocations_in_the_code)
{
    EXPECT_EQ(line_of("relocations", "with_text_relocation").came_out, verdict::warning);
}
