#include "tvkctl/src/plugin/plugin_check.h"

#include <elf.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/plugin_files.h"
#include "tvkctl/src/plugin/plugin_cause.h"
#include "unit/tvkctl/plugin/armhf_plugin.h"

using check_plugin_test::armhf_plugin;
using support::built_plugin;
using tarvik::tvkctl::cause;
using tarvik::tvkctl::check_plugin;
using tarvik::tvkctl::check_result;
using tarvik::tvkctl::elf_file;
using tarvik::tvkctl::float_abi;
using tarvik::tvkctl::plugin_target;
using tarvik::tvkctl::read_elf_file;
using check_outcome = tarvik::tvkctl::outcome;
namespace plugin_cause = tarvik::tvkctl::plugin_cause;

namespace {

/// The line on one check of a file, judged for this machine.
check_result line_of(const std::string& check, const elf_file& file,
                     const plugin_target& target = tarvik::tvkctl::native_target())
{
    for (const check_result& line : check_plugin(file, target))
        if (line.check == check)
            return line;
    return {check_outcome::failed, {}, "no line on " + check};
}

check_result line_of(const std::string& check, const std::string& plugin)
{
    return line_of(check, read_elf_file(built_plugin(plugin)));
}

void expect_failed(const check_result& line, cause why, const std::string& part_of_summary)
{
    EXPECT_EQ(line.came_out, check_outcome::failed) << line.summary;
    EXPECT_EQ(line.why.word, why.word);
    EXPECT_NE(line.summary.find(part_of_summary), std::string::npos) << line.summary;
    EXPECT_FALSE(line.next.empty());
}

elf_file arm_file(float_abi floats)
{
    elf_file file = read_elf_file(built_plugin("printing"));
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
    for (const check_result& line :
         check_plugin(read_elf_file(built_plugin("passing")), tarvik::tvkctl::native_target()))
        EXPECT_EQ(line.came_out, check_outcome::ok) << line.check << ": " << line.summary;
}

TEST(plugin_check, finds_nothing_wrong_with_a_good_arm_plugin_as_far_as_it_can_be_told_here)
{
    REQUIRE_ARMHF_PLUGIN();
    for (const check_result& line : check_plugin(read_elf_file(armhf_plugin()), foreign_target()))
        EXPECT_NE(line.came_out, check_outcome::failed) << line.check << ": " << line.summary;
}

TEST(plugin_check, is_bad_for_a_plugin_of_another_class)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.identity.bits = file.identity.bits == 64 ? 32 : 64;
    expect_failed(line_of("class", file), plugin_cause::kWrongMachine, "a process there is");
}

TEST(plugin_check, is_bad_for_a_plugin_of_the_other_byte_order)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.identity.is_big_endian = true;
    expect_failed(line_of("class", file), plugin_cause::kWrongMachine, "big-endian");
}

TEST(plugin_check, is_bad_for_a_plugin_of_another_machine)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.identity.machine = EM_RISCV;
    expect_failed(line_of("machine", file), plugin_cause::kWrongMachine, "RISC-V");
}

TEST(plugin_check, is_bad_for_a_soft_float_plugin)
{
    expect_failed(line_of("float ABI", arm_file(float_abi::soft), foreign_target()),
                  plugin_cause::kWrongMachine, "soft float");
}

TEST(plugin_check, warns_of_a_plugin_that_does_not_tell_its_float_abi)
{
    EXPECT_EQ(line_of("float ABI", arm_file(float_abi::unmarked), foreign_target()).came_out,
              check_outcome::warning);
}

TEST(plugin_check, is_bad_for_a_program)
{
    expect_failed(line_of("kind", read_elf_file("/proc/self/exe")), plugin_cause::kNotALibrary, "program");
}

TEST(plugin_check, is_bad_for_an_object_file)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.type = elf_file::kind::other;
    expect_failed(line_of("kind", file), plugin_cause::kNotALibrary, "object file");
}

TEST(plugin_check, finds_a_library_beside_the_plugin)
{
    EXPECT_EQ(line_of("libraries", "needing_neighbour").came_out, check_outcome::ok);
}

TEST(plugin_check, is_bad_when_a_library_cannot_be_found)
{
    expect_failed(line_of("libraries", "needing_absent_library"), plugin_cause::kNeedsMissing,
                  "other_library.so (needed by");
}

TEST(plugin_check, says_what_it_could_not_look_at_without_the_libraries_of_the_machine)
{
    const check_result line = line_of("libraries", arm_file(float_abi::hard), foreign_target());
    EXPECT_EQ(line.came_out, check_outcome::not_checked);
    EXPECT_EQ(line.next.front().text, "Name a folder with them: --sysroot DIR.");
}

TEST(plugin_check, names_the_symbols_that_it_could_not_look_for)
{
    elf_file file = arm_file(float_abi::hard);
    file.symbols = {{"used_elsewhere", false, true, false, false}};
    const check_result line = line_of("symbols", file, foreign_target());
    EXPECT_EQ(line.came_out, check_outcome::not_checked);
    EXPECT_EQ(line.summary, "needs used_elsewhere; the libraries of the other machine are not here");
}

TEST(plugin_check, is_good_when_there_is_no_symbol_to_look_for)
{
    elf_file file = arm_file(float_abi::hard);
    file.symbols.clear();
    EXPECT_EQ(line_of("symbols", file, foreign_target()).came_out, check_outcome::ok);
}

TEST(plugin_check, is_bad_when_the_c_library_of_the_machine_is_too_old)
{
    plugin_target target = tarvik::tvkctl::native_target();
    target.glibc = "2.1";
    expect_failed(line_of("glibc", read_elf_file(built_plugin("printing")), target),
                  plugin_cause::kNeedsMissing, "there is only 2.1");
}

TEST(plugin_check, compares_versions_by_number)
{
    elf_file file = read_elf_file(built_plugin("printing"));
    file.version_needs = {
        {"libc.so.6", "GLIBC_2.4"}, {"libc.so.6", "GLIBC_2.34"}, {"libc.so.6", "GLIBC_2.9"}};
    plugin_target target = tarvik::tvkctl::native_target();
    target.glibc = "2.31";
    expect_failed(line_of("glibc", file, target), plugin_cause::kNeedsMissing, "2.34 or newer");
}

TEST(plugin_check, warns_of_the_internals_of_the_c_library)
{
    elf_file file = read_elf_file(built_plugin("printing"));
    file.version_needs = {{"libc.so.6", "GLIBC_PRIVATE"}};
    EXPECT_EQ(line_of("glibc", file).came_out, check_outcome::warning);
}

TEST(plugin_check, is_bad_when_a_library_lacks_a_version)
{
    elf_file file = read_elf_file(built_plugin("printing"));
    file.version_needs = {{"libc.so.6", "GLIBC_9.99"}};
    expect_failed(line_of("versions", file), plugin_cause::kNeedsMissing, "GLIBC_9.99 of libc.so.6");
}

TEST(plugin_check, does_not_miss_the_versions_of_a_library_that_is_missing_itself)
{
    elf_file file = read_elf_file(built_plugin("needing_absent_library"));
    file.version_needs.push_back({"other_library.so", "OTHER_1"});
    EXPECT_EQ(line_of("versions", file).came_out, check_outcome::ok);
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_a_variable)
{
    expect_failed(line_of("interpreter_ctor", "odd_symbols"), plugin_cause::kIncomplete, "not a function");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_hidden)
{
    expect_failed(line_of("interpreter_dtor", "odd_symbols"), plugin_cause::kIncomplete, "not there");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_is_only_used)
{
    expect_failed(line_of("interpreter_writer", "odd_symbols"), plugin_cause::kIncomplete,
                  "used, but not defined");
}

TEST(plugin_check, is_bad_for_an_entry_point_that_only_its_own_file_can_use)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    for (tarvik::tvkctl::elf_symbol& symbol : file.symbols)
        symbol.is_exported = symbol.is_exported && symbol.name != "interpreter_ctor";
    expect_failed(line_of("interpreter_ctor", file), plugin_cause::kIncomplete, "not visible from outside");
}

TEST(plugin_check, is_bad_for_an_entry_point_with_a_cpp_name)
{
    expect_failed(line_of("interpreter_ctor", "cpp_names"), plugin_cause::kIncomplete, "C++ name");
}

TEST(plugin_check, is_bad_for_a_symbol_that_no_library_has)
{
    expect_failed(line_of("symbols", "missing_symbol"), plugin_cause::kNeedsMissing, "defined_nowhere");
}

TEST(plugin_check, names_five_missing_symbols_and_counts_the_others)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    for (const char* name : {"one", "two", "three", "four", "five", "six", "seven"})
        file.symbols.push_back({std::string("nowhere_") + name, false, true, false, false});
    expect_failed(line_of("symbols", file), plugin_cause::kNeedsMissing, "nowhere_five and 2 more");
}

TEST(plugin_check, warns_of_a_symbol_that_only_the_program_brings_along)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.symbols.push_back({"libusb_init", false, true, false, false});
    const check_result line = line_of("symbols", file);
    EXPECT_EQ(line.came_out, check_outcome::warning);
    EXPECT_NE(line.summary.find("libusb_init"), std::string::npos) << line.summary;
}

TEST(plugin_check, is_good_when_only_a_weak_symbol_is_missing)
{
    elf_file file = read_elf_file(built_plugin("passing"));
    file.symbols.push_back({"optional_helper", false, true, true, false});
    EXPECT_EQ(line_of("symbols", file).came_out, check_outcome::ok);
}

TEST(plugin_check, warns_of_an_executable_stack)
{
    EXPECT_EQ(line_of("stack", "with_executable_stack").came_out, check_outcome::warning);
}

TEST(plugin_check, warns_of_relocations_in_the_code)
{
    EXPECT_EQ(line_of("relocations", "with_text_relocation").came_out, check_outcome::warning);
}
