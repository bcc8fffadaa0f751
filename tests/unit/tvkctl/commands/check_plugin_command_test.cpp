#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/plugin_files.h"
#include "tvkctl/src/commands/cli.h"
#include "tvkctl/src/plugin/elf_file.h"
#include "unit/tvkctl/plugin/armhf_plugin.h"
#include "unit/tvkctl/plugin/scratch_file.h"

using check_plugin_test::armhf_plugin;
using check_plugin_test::scratch_file;
using support::built_plugin;
using tarvik::tvkctl::exit_code;

namespace {

class check_plugin_command : public testing::Test {
protected:
    /// Runs `tvkctl check-plugin` with these arguments.
    exit_code check(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "check-plugin");
        tarvik::tvkctl::console io({m_out}, {m_err});
        return tarvik::tvkctl::run_cli(std::move(arguments), io, {});
    }

    std::string out() const { return m_out.str(); }
    std::string err() const { return m_err.str(); }
    bool tells(const std::string& part) const { return out().find(part) != std::string::npos; }
    bool complains_in_one_line_of(const std::string& part) const
    {
        const std::string text = err();
        return text.find(part) != std::string::npos && text.find('\n') == text.size() - 1;
    }

private:
    std::ostringstream m_out;
    std::ostringstream m_err;
};

} // namespace

TEST_F(check_plugin_command, judges_for_armhf_unless_told_otherwise_or_told_to_run_the_plugin)
{
    check({built_plugin("passing")});
    EXPECT_TRUE(tells("judged for armhf (32-bit ARM, hard float)")) << out();
    EXPECT_FALSE(tells("judged for native")) << out();
    EXPECT_EQ(check({built_plugin("passing"), "--run"}), exit_code::ok);
    EXPECT_TRUE(tells("judged for native")) << out();
}

TEST_F(check_plugin_command, ends_well_for_a_good_plugin)
{
    EXPECT_EQ(check({built_plugin("passing"), "--for", "native"}), exit_code::ok);
    EXPECT_EQ(err(), "");
}

TEST_F(check_plugin_command, accepts_an_armhf_plugin_where_it_cannot_be_loaded)
{
    REQUIRE_ARMHF_PLUGIN();
    EXPECT_EQ(check({armhf_plugin()}), exit_code::ok) << err();
}

TEST_F(check_plugin_command, does_not_run_a_plugin_of_another_machine)
{
    REQUIRE_ARMHF_PLUGIN();
    if (tarvik::tvkctl::own_identity() == tarvik::tvkctl::armhf_identity())
        GTEST_SKIP() << "this machine can run it";
    EXPECT_EQ(check({armhf_plugin(), "--for", "armhf", "--run"}), exit_code::plugin_not_runnable_here);
}

TEST_F(check_plugin_command, complains_of_a_file_that_is_not_there)
{
    EXPECT_EQ(check({"/nonexistent/plugin.so"}), exit_code::plugin_unreadable);
    EXPECT_TRUE(complains_in_one_line_of("/nonexistent/plugin.so: No such file or directory")) << err();
    EXPECT_EQ(out(), "");
}

TEST_F(check_plugin_command, complains_of_a_file_that_is_not_an_elf_file_or_cut_off)
{
    EXPECT_EQ(check({scratch_file("hello").path()}), exit_code::plugin_not_a_library);
    EXPECT_TRUE(complains_in_one_line_of("not an ELF file")) << err();
    const std::string whole = support::read_file(built_plugin("passing"));
    EXPECT_EQ(check({scratch_file(whole.substr(0, whole.size() / 2)).path()}),
              exit_code::plugin_not_a_library);
    EXPECT_NE(err().find("cut off"), std::string::npos) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_of_another_machine)
{
    if (tarvik::tvkctl::own_identity() == tarvik::tvkctl::armhf_identity())
        GTEST_SKIP() << "this is the machine that is judged for";
    EXPECT_EQ(check({built_plugin("passing"), "--for", "armhf"}), exit_code::plugin_wrong_machine);
    EXPECT_TRUE(complains_in_one_line_of("Build it with arm-linux-gnueabihf-gcc")) << err();
}

struct run_of_a_plugin {
    const char* plugin;
    exit_code code;
    std::vector<const char*> told; ///< somewhere in the output
    const char* complaint = "";    ///< in the one line on standard error
};

class check_plugin_run : public check_plugin_command, public testing::WithParamInterface<run_of_a_plugin> {};

TEST_P(check_plugin_run, has_a_code_and_words_for_what_the_plugin_does)
{
    EXPECT_EQ(check({built_plugin(GetParam().plugin), "--run", "--timeout", "30"}), GetParam().code);
    for (const char* words : GetParam().told)
        EXPECT_TRUE(tells(words)) << out();
    if (GetParam().code == exit_code::ok)
        EXPECT_EQ(err(), "");
    else
        EXPECT_TRUE(complains_in_one_line_of(GetParam().complaint)) << err();
}

const run_of_a_plugin kRuns[] = {
    {"passing", exit_code::ok, {"run with a device that moves half of the bytes"}},
    {"leaving_descriptor", exit_code::ok, {"warning      descriptors"}},
    {"leaving_process", exit_code::ok, {"processes that it started outlive it"}},
    {"printing", exit_code::ok, {"5 bytes on standard output: \"hello\""}},
    {"plugin_refusing", exit_code::ok, {"refused to start"}},
    {"plugin_failing", exit_code::ok, {"Go on with the rest when a transfer moves less than was asked."}},
    {"cpp_names", exit_code::plugin_incomplete, {"cannot be run"}},
    {"needing_absent_library",
     exit_code::plugin_needs_missing,
     {"the loader says: other_library.so: cannot open shared object file"}},
    {"crashing_in_reader", exit_code::plugin_crashed, {}, "signal 11 (Segmentation fault)"},
    {"throwing", exit_code::plugin_crashed, {}},
    {"leaving_thread", exit_code::plugin_unclean, {}},
    {"optimistic",
     exit_code::plugin_unclean,
     {"though the device took nothing", "though the device gave nothing"},
     "interpreter_reader reported success and left the buffer as it was"},
    {"asking_for_nothing", exit_code::plugin_unclean, {}, "1 of them without a buffer or a length"},
    {"asking_late", exit_code::plugin_unclean, {}, "1 of them after interpreter_dtor"},
};

INSTANTIATE_TEST_SUITE_P(, check_plugin_run, testing::ValuesIn(kRuns),
                         [](const auto& test) { return test.param.plugin; });

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_hangs)
{
    EXPECT_EQ(check({built_plugin("hanging"), "--run", "--timeout", "100ms"}), exit_code::plugin_hung);
    EXPECT_TRUE(complains_in_one_line_of("did not return within 0.100 s")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_whose_libraries_the_other_machine_lacks)
{
    REQUIRE_ARMHF_PLUGIN();
    const scratch_file neighbour("");
    EXPECT_EQ(check({armhf_plugin(), "--sysroot", neighbour.folder()}), exit_code::plugin_needs_missing);
    EXPECT_TRUE(complains_in_one_line_of("libraries: not found: libc.so.6")) << err();
}

TEST_F(check_plugin_command, writes_all_of_it_as_json)
{
    const exit_code code = check({built_plugin("crashing_in_ctor"), "--run", "--json"});
    const auto document = nlohmann::json::parse(out());
    EXPECT_EQ(document.at("for"), "native");
    EXPECT_EQ(document.at("ok"), false);
    EXPECT_EQ(document.at("exit_status"), static_cast<int>(code));
    EXPECT_EQ(document.at("sections").size(), 4U) << "the file and three runs";
}

TEST_F(check_plugin_command, sends_and_answers_what_it_is_told)
{
    EXPECT_EQ(check({SAMPLE_PLUGIN_PATH, "--run", "--recv", "17", "--send",
                     "56534331 0001 0000 4b000000 10000000 00000000 00000000 01000000 01000000", "--answer",
                     "56534131 0700 0000 00000000 08000000 6c020000 6c030000"
                     "56534131 0800 0000 00000000 6c020000"}),
              exit_code::ok);
    EXPECT_FALSE(tells("warning")) << out();
}

TEST_F(check_plugin_command, refuses_invalid_options)
{
    const std::string plugin = built_plugin("passing");
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{plugin, "--run", "--send", "xyz"},
          {plugin, "--run", "--recv", "0"},
          {plugin, "--run", "--timeout", "soon"},
          {plugin, "--glibc", "new"},
          {plugin, "--for", "native", "--sysroot", "/"}}) {
        EXPECT_EQ(check(arguments), exit_code::usage) << arguments.back();
        EXPECT_NE(err().find(arguments.at(arguments.size() - 2)), std::string::npos) << err();
    }
    EXPECT_EQ(check({plugin, "--run", "--send", "@/nonexistent"}), exit_code::input_file);
}
