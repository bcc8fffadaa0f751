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

    exit_code check_run(const std::string& plugin)
    {
        return check({built_plugin(plugin), "--run", "--timeout", "30"});
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

TEST_F(check_plugin_command, ends_well_for_a_good_plugin)
{
    EXPECT_EQ(check({built_plugin("passing"), "--for", "native"}), exit_code::ok);
    EXPECT_EQ(err(), "");
}

TEST_F(check_plugin_command, judges_for_armhf_unless_told_otherwise)
{
    check({built_plugin("passing")});
    EXPECT_TRUE(tells("judged for armhf (32-bit ARM, hard float)")) << out();
}

TEST_F(check_plugin_command, judges_for_this_machine_when_it_runs_the_plugin)
{
    EXPECT_EQ(check({built_plugin("passing"), "--run"}), exit_code::ok) << err();
    EXPECT_TRUE(tells("judged for native")) << out();
}

TEST_F(check_plugin_command, runs_the_plugin_with_three_devices)
{
    check_run("passing");
    EXPECT_TRUE(tells("moves all bytes") && tells("moves half of the bytes") && tells("moves nothing"))
        << out();
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

TEST_F(check_plugin_command, complains_of_a_file_that_is_not_an_elf_file)
{
    EXPECT_EQ(check({scratch_file("hello").path()}), exit_code::plugin_not_a_library);
    EXPECT_TRUE(complains_in_one_line_of("not an ELF file")) << err();
}

TEST_F(check_plugin_command, complains_of_a_file_that_is_cut_off)
{
    const std::string whole = support::read_file(built_plugin("passing"));
    const scratch_file half(whole.substr(0, whole.size() / 2));
    EXPECT_EQ(check({half.path()}), exit_code::plugin_not_a_library);
    EXPECT_TRUE(complains_in_one_line_of("cut off")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_of_another_machine)
{
    if (tarvik::tvkctl::own_identity() == tarvik::tvkctl::armhf_identity())
        GTEST_SKIP() << "this is the machine that is judged for";
    EXPECT_EQ(check({built_plugin("passing"), "--for", "armhf"}), exit_code::plugin_wrong_machine);
    EXPECT_TRUE(complains_in_one_line_of("Build it with arm-linux-gnueabihf-gcc")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_without_an_entry_point)
{
    EXPECT_EQ(check({built_plugin("cpp_names"), "--for", "native"}), exit_code::plugin_incomplete);
}

TEST_F(check_plugin_command, does_not_run_a_plugin_without_an_entry_point)
{
    EXPECT_EQ(check_run("cpp_names"), exit_code::plugin_incomplete);
    EXPECT_TRUE(tells("cannot be run")) << out();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_lacks_a_library)
{
    EXPECT_EQ(check({built_plugin("needing_absent_library"), "--for", "native"}),
              exit_code::plugin_needs_missing);
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_crashes)
{
    EXPECT_EQ(check_run("crashing_in_reader"), exit_code::plugin_crashed);
    EXPECT_TRUE(complains_in_one_line_of("signal 11 (Segmentation fault)")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_throws)
{
    EXPECT_EQ(check_run("throwing"), exit_code::plugin_crashed);
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_hangs)
{
    EXPECT_EQ(check({built_plugin("hanging"), "--run", "--timeout", "100ms"}), exit_code::plugin_hung);
    EXPECT_TRUE(complains_in_one_line_of("did not return within 0.100 s")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_that_leaves_a_thread)
{
    EXPECT_EQ(check_run("leaving_thread"), exit_code::plugin_unclean);
}

TEST_F(check_plugin_command, only_warns_of_a_descriptor_that_is_left)
{
    EXPECT_EQ(check_run("leaving_descriptor"), exit_code::ok);
    EXPECT_TRUE(tells("warning      descriptors")) << out();
}

TEST_F(check_plugin_command, only_warns_of_output)
{
    EXPECT_EQ(check_run("printing"), exit_code::ok);
    EXPECT_TRUE(tells("5 bytes on standard output: \"hello\"")) << out();
}

TEST_F(check_plugin_command, only_warns_of_a_plugin_that_refuses_what_a_scripted_device_answers)
{
    EXPECT_EQ(check_run("plugin_refusing"), exit_code::ok);
    EXPECT_TRUE(tells("refused to start")) << out();
}

TEST_F(check_plugin_command, warns_of_success_without_a_transfer)
{
    check_run("optimistic");
    EXPECT_TRUE(tells("though the device took nothing") && tells("though the device gave nothing")) << out();
}

TEST_F(check_plugin_command, has_a_code_for_a_plugin_whose_libraries_the_other_machine_lacks)
{
    REQUIRE_ARMHF_PLUGIN();
    const scratch_file neighbour("");
    EXPECT_EQ(check({armhf_plugin(), "--sysroot", neighbour.folder()}), exit_code::plugin_needs_missing);
    EXPECT_TRUE(complains_in_one_line_of("libraries: not found: libc.so.6")) << err();
}

TEST_F(check_plugin_command, tells_what_the_loader_says_when_it_runs_a_plugin_that_cannot_be_loaded)
{
    EXPECT_EQ(check_run("needing_absent_library"), exit_code::plugin_needs_missing);
    EXPECT_TRUE(tells("the loader says: other_library.so: cannot open shared object file")) << out();
}

TEST_F(check_plugin_command, only_warns_of_a_plugin_that_gives_up_when_half_of_the_bytes_move)
{
    EXPECT_EQ(check_run("plugin_failing"), exit_code::ok);
    EXPECT_TRUE(tells("Go on with the rest when a transfer moves less than was asked.")) << out();
}

TEST_F(check_plugin_command, has_a_code_for_a_transfer_without_a_buffer)
{
    EXPECT_EQ(check_run("asking_for_nothing"), exit_code::plugin_unclean);
    EXPECT_TRUE(complains_in_one_line_of("1 of them without a buffer or a length")) << err();
}

TEST_F(check_plugin_command, has_a_code_for_a_transfer_after_the_session)
{
    EXPECT_EQ(check_run("asking_late"), exit_code::plugin_unclean);
    EXPECT_TRUE(complains_in_one_line_of("1 of them after interpreter_dtor")) << err();
}

TEST_F(check_plugin_command, only_warns_of_a_process_that_is_left)
{
    EXPECT_EQ(check_run("leaving_process"), exit_code::ok);
    EXPECT_TRUE(tells("processes that it started outlive it")) << out();
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

TEST_F(check_plugin_command, refuses_invalid_bytes)
{
    EXPECT_EQ(check({built_plugin("passing"), "--run", "--send", "xyz"}), exit_code::usage);
    EXPECT_TRUE(complains_in_one_line_of("--send")) << err();
}

TEST_F(check_plugin_command, refuses_to_send_a_file_that_is_not_there)
{
    EXPECT_EQ(check({built_plugin("passing"), "--run", "--send", "@/nonexistent"}), exit_code::input_file);
}

TEST_F(check_plugin_command, refuses_to_receive_nothing)
{
    EXPECT_EQ(check({built_plugin("passing"), "--run", "--recv", "0"}), exit_code::usage);
}

TEST_F(check_plugin_command, refuses_an_invalid_time)
{
    EXPECT_EQ(check({built_plugin("passing"), "--run", "--timeout", "soon"}), exit_code::usage);
}

TEST_F(check_plugin_command, refuses_an_invalid_version)
{
    EXPECT_EQ(check({built_plugin("passing"), "--glibc", "new"}), exit_code::usage);
}

TEST_F(check_plugin_command, refuses_a_sysroot_for_this_machine)
{
    EXPECT_EQ(check({built_plugin("passing"), "--for", "native", "--sysroot", "/"}), exit_code::usage);
}
