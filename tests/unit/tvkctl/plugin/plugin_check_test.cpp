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

/// A good plugin of this machine, read once: tests change copies.
const elf_file& good_file()
{
    static const elf_file file = read_elf_file(built_plugin("printing"));
    return file;
}

/// The line on one check of a file, judged for this machine.
check_result line_of(const std::string& check, const elf_file& file,
                     const plugin_target& target = tarvik::tvkctl::native_target())
{
    for (const check_result& line : check_plugin(file, target))
        if (line.check == check)
            return line;
    return {check_outcome::failed, {}, "no line on " + check};
}

elf_file arm_file(float_abi floats)
{
    elf_file file = good_file();
    file.identity = tarvik::tvkctl::armhf_identity();
    file.identity.floats = floats;
    return file;
}

elf_file with_needs(std::vector<tarvik::tvkctl::elf_version_need> needs)
{
    elf_file file = good_file();
    file.version_needs = std::move(needs);
    return file;
}

/// One that needs these symbols as well.
elf_file with_symbols(const std::vector<std::string>& names, bool is_weak = false)
{
    elf_file file = good_file();
    for (const std::string& name : names)
        file.symbols.push_back({name, false, true, is_weak, false});
    return file;
}

plugin_target foreign_target()
{
    plugin_target target = tarvik::tvkctl::armhf_target("", "2.36");
    target.has_libraries = false;
    return target;
}

plugin_target with_glibc(const char* version)
{
    plugin_target target = tarvik::tvkctl::native_target();
    target.glibc = version;
    return target;
}

/// A good plugin with one thing changed.
template <typename Change>
elf_file changed(Change change)
{
    elf_file file = good_file();
    change(file);
    return file;
}

void make_of_another_class(elf_file& file)
{
    file.identity.bits = file.identity.bits == 64 ? 32 : 64;
}

void hide_ctor(elf_file& file)
{
    for (tarvik::tvkctl::elf_symbol& symbol : file.symbols)
        symbol.is_exported = symbol.is_exported && symbol.name != "interpreter_ctor";
}

elf_file built(const char* plugin)
{
    return read_elf_file(built_plugin(plugin));
}

struct flaw {
    const char* name;
    const char* check;
    cause why;
    const char* words; ///< in the summary
    elf_file (*file)();
    plugin_target (*target)() = tarvik::tvkctl::native_target;
};

const flaw kFlaws[] = {
    {"another_class", "class", plugin_cause::kWrongMachine, "a process there is",
     [] { return changed(make_of_another_class); }},
    {"the_other_byte_order", "class", plugin_cause::kWrongMachine, "big-endian",
     [] { return changed([](elf_file& file) { file.identity.is_big_endian = true; }); }},
    {"another_machine", "machine", plugin_cause::kWrongMachine, "RISC-V",
     [] { return changed([](elf_file& file) { file.identity.machine = EM_RISCV; }); }},
    {"soft_float", "float ABI", plugin_cause::kWrongMachine, "soft float",
     [] { return arm_file(float_abi::soft); }, foreign_target},
    {"program", "kind", plugin_cause::kNotALibrary, "program",
     [] { return read_elf_file("/proc/self/exe"); }},
    {"object_file", "kind", plugin_cause::kNotALibrary, "object file",
     [] { return changed([](elf_file& file) { file.type = elf_file::kind::other; }); }},
    {"library_that_cannot_be_found", "libraries", plugin_cause::kNeedsMissing, "other_library.so (needed by",
     [] { return built("needing_absent_library"); }},
    {"c_library_that_is_too_old", "glibc", plugin_cause::kNeedsMissing, "there is only 2.1",
     [] { return good_file(); }, [] { return with_glibc("2.1"); }},
    {"version_that_is_compared_by_number", "glibc", plugin_cause::kNeedsMissing, "2.34 or newer",
     [] {
         return with_needs(
             {{"libc.so.6", "GLIBC_2.4"}, {"libc.so.6", "GLIBC_2.34"}, {"libc.so.6", "GLIBC_2.9"}});
     },
     [] { return with_glibc("2.31"); }},
    {"version_that_its_library_lacks", "versions", plugin_cause::kNeedsMissing, "GLIBC_9.99 of libc.so.6",
     [] {
         return with_needs({{"libc.so.6", "GLIBC_9.99"}});
     }},
    {"entry_point_that_is_a_variable", "interpreter_ctor", plugin_cause::kIncomplete, "not a function",
     [] { return built("odd_symbols"); }},
    {"entry_point_that_is_hidden", "interpreter_dtor", plugin_cause::kIncomplete, "not there",
     [] { return built("odd_symbols"); }},
    {"entry_point_that_is_only_used", "interpreter_writer", plugin_cause::kIncomplete,
     "used, but not defined", [] { return built("odd_symbols"); }},
    {"entry_point_for_its_own_file_alone", "interpreter_ctor", plugin_cause::kIncomplete,
     "not visible from outside", [] { return changed(hide_ctor); }},
    {"entry_point_with_a_cpp_name", "interpreter_ctor", plugin_cause::kIncomplete, "C++ name",
     [] { return built("cpp_names"); }},
    {"symbol_that_no_library_has", "symbols", plugin_cause::kNeedsMissing, "defined_nowhere",
     [] { return built("missing_symbol"); }},
    {"seven_symbols_that_no_library_has", "symbols", plugin_cause::kNeedsMissing, "nowhere_5 and 2 more",
     [] {
         return with_symbols(
             {"nowhere_1", "nowhere_2", "nowhere_3", "nowhere_4", "nowhere_5", "nowhere_6", "nowhere_7"});
     }},
};

class plugin_with_a_flaw : public testing::TestWithParam<flaw> {};

} // namespace

TEST_P(plugin_with_a_flaw, fails_the_check_with_its_cause_and_advice)
{
    const check_result line = line_of(GetParam().check, GetParam().file(), GetParam().target());
    EXPECT_EQ(line.came_out, check_outcome::failed) << line.summary;
    EXPECT_EQ(line.why.word, GetParam().why.word);
    EXPECT_NE(line.summary.find(GetParam().words), std::string::npos) << line.summary;
    EXPECT_FALSE(line.next.empty());
}

INSTANTIATE_TEST_SUITE_P(, plugin_with_a_flaw, testing::ValuesIn(kFlaws),
                         [](const auto& test) { return test.param.name; });

TEST(plugin_check, only_warns_of_what_may_still_work)
{
    const std::pair<const char*, check_result> lines[] = {
        {"float ABI", line_of("float ABI", arm_file(float_abi::unmarked), foreign_target())},
        {"the internals of the C library", line_of("glibc", with_needs({{"libc.so.6", "GLIBC_PRIVATE"}}))},
        {"what only the program brings along", line_of("symbols", with_symbols({"libusb_init"}))},
        {"executable stack", line_of("stack", built("with_executable_stack"))},
        {"relocations", line_of("relocations", built("with_text_relocation"))},
    };
    for (const auto& [what, line] : lines)
        EXPECT_EQ(line.came_out, check_outcome::warning) << what << ": " << line.summary;
    EXPECT_NE(lines[2].second.summary.find("libusb_init"), std::string::npos) << lines[2].second.summary;
}

TEST(plugin_check, finds_nothing_wrong_with_a_good_plugin)
{
    for (const char* plugin : {"passing", "printing"})
        for (const check_result& line : check_plugin(built(plugin), tarvik::tvkctl::native_target()))
            EXPECT_EQ(line.came_out, check_outcome::ok) << line.check << ": " << line.summary;
}

TEST(plugin_check, finds_nothing_wrong_with_a_good_arm_plugin_as_far_as_it_can_be_told_here)
{
    REQUIRE_ARMHF_PLUGIN();
    for (const check_result& line : check_plugin(read_elf_file(armhf_plugin()), foreign_target()))
        EXPECT_NE(line.came_out, check_outcome::failed) << line.check << ": " << line.summary;
}

TEST(plugin_check, is_good_when_what_is_missing_is_not_needed_or_another_check_tells_of_it)
{
    elf_file without_symbols = arm_file(float_abi::hard);
    without_symbols.symbols.clear();
    elf_file without_library = built("needing_absent_library");
    without_library.version_needs.push_back({"other_library.so", "OTHER_1"});
    EXPECT_EQ(line_of("libraries", built("needing_neighbour")).came_out, check_outcome::ok);
    EXPECT_EQ(line_of("symbols", without_symbols, foreign_target()).came_out, check_outcome::ok);
    EXPECT_EQ(line_of("symbols", with_symbols({"optional_helper"}, true)).came_out, check_outcome::ok);
    EXPECT_EQ(line_of("versions", without_library).came_out, check_outcome::ok);
}

TEST(plugin_check, says_what_it_could_not_look_at_without_the_libraries_of_the_machine)
{
    elf_file file = arm_file(float_abi::hard);
    file.symbols = {{"used_elsewhere", false, true, false, false}};
    const check_result libraries = line_of("libraries", file, foreign_target());
    EXPECT_EQ(libraries.came_out, check_outcome::not_checked);
    EXPECT_EQ(libraries.next.front().text, "Name a folder with them: --sysroot DIR.");
    const check_result symbols = line_of("symbols", file, foreign_target());
    EXPECT_EQ(symbols.came_out, check_outcome::not_checked);
    EXPECT_EQ(symbols.summary, "needs used_elsewhere; the libraries of the other machine are not here");
}
