#include <signal.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <regex>

#include "front_end/src/front_end.h"
#include "process/held_transfer.h"
#include "process/tvkctl/tvkctl_test.h"
#include "process/wire.h"
#include "support/files.h"
#include "support/scripted_peer.h"
#include "support/wait_until.h"
#include "tvkctl/src/commands/exit_code.h"

namespace process_test {

namespace {

using nlohmann::json;
using tarvik::tvkctl::exit_code;

constexpr const char* kUdi = "usb:1a2b:3c4d";

class tvkctl_run_test : public tvkctl_test {
protected:
    void SetUp() override
    {
        tvkctl_test::SetUp();
        signal(SIGTERM, SIG_DFL);
    }

    tvkctl_result run_steps(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"run", kUdi});
        return run(arguments);
    }

    /// From when the program is in the transfer.
    static void hold_for_a_second(held_transfer& held)
    {
        using clock = std::chrono::steady_clock;
        ASSERT_TRUE(held.is_reached());
        const auto end = clock::now() + std::chrono::seconds(1);
        ASSERT_TRUE(support::wait_until(std::chrono::seconds(10), [&] { return clock::now() >= end; }));
        held.release();
    }

    /// The scanner's answer to the first read comes when `held` is released.
    void with_held_read(const held_transfer& held)
    {
        with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 hold " + held.path() + "\n");
    }

    static void expect_one_line_with(const std::string& text, const std::string& part)
    {
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
};

TEST_F(tvkctl_run_test, shows_what_goes_and_what_comes)
{
    with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 00414243\n");
    const tvkctl_result result = run_steps({"send 01 \"A\"", "recv 4", "query 2"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.out, "open usb:1a2b:3c4d\n"
                          "send 01 \"A\"\n"
                          "00000000  01 41                                            |.A|\n"
                          "recv 4\n"
                          "00000000  00 41 42 43                                      |.ABC|\n"
                          "query 2\n"
                          "00000000  00 00 00 00                                      |....|\n"
                          "close\n");
}

TEST_F(tvkctl_run_test, a_caller_that_ignores_the_end_of_children_changes_nothing)
{
    const tvkctl_result result = run_in_shell("trap '' CHLD; exec \"$TVKCTL\" run usb:1a2b:3c4d 'query 1'");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
}

TEST_F(tvkctl_run_test, a_step_reaches_the_scanner_in_one_transfer)
{
    run_steps({"send 01 02 03", "recv 5"});
    EXPECT_EQ(usb_lines_about("bulk_transfer").text(), (lines{"bulk_transfer scanner 0x02 3 60000 -> 0 (3)",
                                                              "bulk_transfer scanner 0x81 5 60000 -> 0 (5)"})
                                                           .text());
}

TEST_F(tvkctl_run_test, chunk_limits_each_request_in_both_directions_to_64_kib_where_it_is_not_given)
{
    run_steps({"--chunk", "2", "send 010203", "recv 5 > a.raw"});
    EXPECT_EQ(usb_lines_about("plugin_good writer").text(),
              (lines{"plugin_good writer 2", "plugin_good writer 1"}).text());
    run_steps({"recv 65537 > a.raw"});
    EXPECT_EQ(usb_lines_about("plugin_good reader").text(),
              (lines{"plugin_good reader 2", "plugin_good reader 2", "plugin_good reader 1",
                     "plugin_good reader 65536", "plugin_good reader 1"})
                  .text());
}

TEST_F(tvkctl_run_test, a_receive_to_a_file_fills_it_and_says_so)
{
    const tvkctl_result result = run_steps({"recv 100000 > \"my scan.raw\""});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "open usb:1a2b:3c4d\n"
                          "recv 100000 > \"my scan.raw\"\n"
                          "100000 bytes in my scan.raw\n"
                          "close\n");
    const std::string content = support::read_file(scratch("my scan.raw"));
    EXPECT_TRUE(bytes(content.begin(), content.end()) == device_bytes(100000));
}

TEST_F(tvkctl_run_test, a_receive_that_takes_a_second_shows_bytes_rate_and_time_left_on_a_terminal)
{
    REQUIRE_TERMINALS();
    held_transfer held;
    with_held_read(held);
    start_on_terminal("run usb:1a2b:3c4d \"recv 128KiB > a.raw\"");
    hold_for_a_second(held);
    const tvkctl_result result = wait();
    EXPECT_TRUE(std::regex_search(
        result.out, std::regex("\r\033\\[K64\\.0 KiB of 128\\.0 KiB, [0-9.]+ [KM]iB/s, [0-9]+ s left")))
        << result.out;
}

TEST_F(tvkctl_run_test, a_receive_shows_no_progress_elsewhere)
{
    held_transfer held;
    with_held_read(held);
    start({"run", kUdi, "recv 128KiB > a.raw"});
    hold_for_a_second(held);
    EXPECT_EQ(wait().err, "");
}

TEST_F(tvkctl_run_test, two_arrows_add_to_a_file_and_one_replaces_it)
{
    with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 4142\n");
    write_scratch("a.raw", "before ");
    run_steps({"recv 2 >> a.raw"});
    EXPECT_EQ(support::read_file(scratch("a.raw")), "before AB");
    run_steps({"recv 2 > a.raw"});
    EXPECT_EQ(support::read_file(scratch("a.raw")), "AB");
}

TEST_F(tvkctl_run_test, a_script_is_carried_out_line_by_line)
{
    write_scratch("a.steps", "# a comment\nsend 01\n\nsleep 1ms\nrecv 2 > a.raw\n");
    EXPECT_EQ(run_steps({"--script", "a.steps"}).out,
              "open usb:1a2b:3c4d\n"
              "send 01\n"
              "00000000  01                                               |.|\n"
              "sleep 1ms\n"
              "recv 2 > a.raw\n"
              "2 bytes in a.raw\n"
              "close\n");
}

TEST_F(tvkctl_run_test, a_script_can_come_on_standard_input)
{
    const tvkctl_result result =
        run_in_shell("echo 'recv 2 > a.raw' | \"$TVKCTL\" run usb:1a2b:3c4d --script -");
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(support::read_file(scratch("a.raw")).size(), 2U);
}

TEST_F(tvkctl_run_test, verbose_tells_the_time_of_each_step)
{
    const tvkctl_result result = run_steps({"-v", "send 01", "recv 2 > a.raw"});
    EXPECT_TRUE(std::regex_match(result.err, std::regex(R"(tvkctl: open usb:1a2b:3c4d: ok, [0-9.]+ s
tvkctl: send 01: ok, [0-9.]+ s, [0-9.]+ [A-Za-z]+/s
tvkctl: recv 2 > a.raw: ok, [0-9.]+ s, [0-9.]+ [A-Za-z]+/s
tvkctl: close: ok, [0-9.]+ s
)"))) << result.err;
}

TEST_F(tvkctl_run_test, json_tells_each_step)
{
    with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 00ff\n");
    json document = json::parse(run_steps({"--json", "send 01", "recv 2", "recv 3 > a.raw"}).out);
    for (json& step : document["steps"]) {
        EXPECT_GE(step["seconds"].get<double>(), 0);
        step.erase("seconds");
    }
    EXPECT_EQ(document, json::parse(R"({"udi": "usb:1a2b:3c4d", "error": null, "steps": [
        {"step": "open usb:1a2b:3c4d", "answer": "ok"},
        {"step": "send 01", "answer": "ok", "sent": "01"},
        {"step": "recv 2", "answer": "ok", "count": 2, "received": "00ff"},
        {"step": "recv 3 > a.raw", "answer": "ok", "count": 3, "file": "a.raw"},
        {"step": "close", "answer": "ok"}]})"));
}

TEST_F(tvkctl_run_test, json_tells_what_came_before_a_failure)
{
    with_bus("device scanner 1a2b:3c4d\n"
             "transfer scanner 81 bytes 4142\n"
             "transfer scanner 81 result LIBUSB_ERROR_PIPE count 0\n");
    const tvkctl_result result = run_steps({"--json", "--chunk", "2", "recv 4"});
    EXPECT_EQ(result.status, 13);
    const json document = json::parse(result.out);
    EXPECT_EQ(document["steps"][1]["received"], "4142");
    EXPECT_EQ(document["error"], "step 1, \"recv 4\": the program answers ng after 2 bytes");
}

TEST_F(tvkctl_run_test, a_refused_receive_keeps_what_came_before_and_says_where)
{
    with_bus("device scanner 1a2b:3c4d\n"
             "transfer scanner 81 bytes 41424344\n"
             "transfer scanner 81 result LIBUSB_ERROR_PIPE count 0\n");
    const tvkctl_result result = run_steps({"--chunk", "4", "recv 12 > a.raw", "send 01"});
    EXPECT_EQ(result.status, 13);
    EXPECT_EQ(support::read_file(scratch("a.raw")), "ABCD");
    EXPECT_EQ(result.err,
              "tvkctl: step 1, \"recv 12 > a.raw\": the program answers ng; a.raw keeps the 4 bytes "
              "that came. The plugin or the scanner refused; the program's log says more: tvkctl log "
              "show.\n");
}

TEST_F(tvkctl_run_test, a_refused_step_is_the_last_and_the_scanner_is_parked)
{
    with_plugin("plugin_failing");
    EXPECT_EQ(run_steps({"send 01", "send 02"}).status, 13);
    EXPECT_EQ(usb_lines_about("plugin_failing").text(),
              (lines{"plugin_failing loaded", "plugin_failing ctor", "plugin_failing writer 1",
                     "plugin_failing dtor", "plugin_failing unloaded"})
                  .text());
}

struct failing_run {
    const char* name;
    std::string steps; ///< and options, as a shell takes them
    exit_code code;
    const char* complaint; ///< a part of the one line on standard error
    const char* plugin = "plugin_good";
};

class failing_runs : public tvkctl_run_test, public testing::WithParamInterface<failing_run> {};

TEST_P(failing_runs, have_a_status_and_a_line_that_says_why)
{
    with_plugin(GetParam().plugin);
    const tvkctl_result result = run_in_shell("exec \"$TVKCTL\" run usb:1a2b:3c4d " + GetParam().steps);
    EXPECT_EQ(result.status, static_cast<int>(GetParam().code));
    expect_one_line_with(result.err, GetParam().complaint);
}

const failing_run kFailingRuns[] = {
    {"missing_file_to_send", "'send @none.bin'", exit_code::input_file,
     "tvkctl: none.bin cannot be read: No such file or directory. Check the name after the @.\n"},
    {"missing_script", "--script none.steps", exit_code::input_file, "none.steps"},
    {"file_that_cannot_be_made", "'recv 4 > none/a.raw'", exit_code::output_file,
     "tvkctl: step 1, \"recv 4 > none/a.raw\": none/a.raw cannot be written: No such file or directory. "
     "Check the folder, its rights and the space that is left.\n"},
    {"full_disk", "'recv 4 > /dev/full'", exit_code::output_file, "/dev/full"},
    {"file_that_is_not_there", "--program /nonexistent 'send 01'", exit_code::start_failed, "/nonexistent"},
    {"program_that_prints_no_port", "--program /bin/true 'send 01'", exit_code::start_failed, "/bin/true"},
    {"port_where_nobody_listens", "--connect 1 'send 01'", exit_code::connect_failed, "connect to port 1"},
    {"refused_open", "'send 01'", exit_code::open_refused,
     "tvkctl: the program cannot open usb:1a2b:3c4d: it answers ng. See why with: tvkctl explain "
     "usb:1a2b:3c4d.\n",
     "plugin_refusing"},
    {"refused_query", "'query 0xFFFFFFFF'", exit_code::request_refused, "query 0xFFFFFFFF"},
    {"plugin_that_crashes", "'recv 4 > a.raw'", exit_code::connection_lost,
     "the program ended with signal 6 (Aborted); a.raw keeps the 0 bytes that came",
     "plugin_crashing_in_reader"},
    {"plugin_that_crashes_at_the_end", "'send 01'", exit_code::program_failed,
     "the program ended with signal 6", "plugin_crashing_in_dtor"},
};

INSTANTIATE_TEST_SUITE_P(tvkctl, failing_runs, testing::ValuesIn(kFailingRuns),
                         [](const auto& test) { return test.param.name; });

TEST_F(tvkctl_run_test, what_cannot_be_read_or_written_costs_no_transfer)
{
    EXPECT_EQ(run_steps({"send 01", "send @none.bin"}).out, "");
    EXPECT_EQ(usb_lines_about("plugin_good").text(), "");
    run_steps({"recv 4 > none/a.raw"});
    EXPECT_EQ(usb_lines_about("plugin_good reader").text(), "");
}

TEST_F(tvkctl_run_test, a_scanner_that_does_not_answer_runs_into_the_timeout)
{
    held_transfer held;
    with_held_read(held);
    const tvkctl_result result = run_steps({"--timeout", "200ms", "recv 4"});
    EXPECT_EQ(result.status, 15);
    expect_one_line_with(result.err, "step 1, \"recv 4\": ");
}

TEST_F(tvkctl_run_test, an_interrupt_ends_the_session_and_keeps_what_came)
{
    held_transfer held;
    with_held_read(held);
    start({"run", kUdi, "recv 4 > a.raw", "send 01"});
    ASSERT_TRUE(held.is_reached());
    ASSERT_TRUE(process().signal(SIGINT));
    held.release();
    const tvkctl_result result = wait();
    EXPECT_EQ(result.status, 130);
    EXPECT_EQ(support::read_file(scratch("a.raw")).size(), 4U);
    EXPECT_EQ(result.err,
              "tvkctl: step 1, \"recv 4 > a.raw\": interrupted; a.raw keeps the 4 bytes that came\n");
}

TEST_F(tvkctl_run_test, an_interrupt_ends_a_sleep)
{
    start({"run", kUdi, "send 01", "sleep 3600"});
    ASSERT_TRUE(support::wait_until(std::chrono::seconds(30),
                                    [&] { return !usb_lines_about("plugin_good writer").empty(); }));
    ASSERT_TRUE(process().signal(SIGTERM));
    EXPECT_EQ(wait().status, 130);
}

TEST_F(tvkctl_run_test, a_program_that_cannot_be_found_is_reported)
{
    with_environment("PATH", "/nonexistent");
    const tvkctl_result result = run_launch(launch_of(lonely_tvkctl(), {"run", kUdi, "send 01"}));
    EXPECT_EQ(result.status, 10);
    EXPECT_EQ(result.err,
              "tvkctl: no tvkintif is beside tvkctl or in PATH. Say where it is with --program.\n");
}

TEST_F(tvkctl_run_test, connect_drives_a_program_that_somebody_else_started)
{
    tarvik::front_end started(launch_of(kTvkintifPath, {}));
    const tvkctl_result result = run_steps({"--connect", std::to_string(started.port()), "send 01"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(usb_lines_about("plugin_good writer").text(), (lines{"plugin_good writer 1"}).text());
    EXPECT_EQ(started.finish(), tarvik::exit_status::exited(0));
}

TEST_F(tvkctl_run_test, a_reply_with_another_id_breaks_the_protocol)
{
    const bytes open = frame(1, 4, 0, bytes_of(kUdi));
    scripted_peer program({expects(open), answers(ok_reply({}, 7))});
    const tvkctl_result result = run_steps({"--connect", std::to_string(program.port()), "send 01"});
    EXPECT_EQ(result.status, 16);
    expect_one_line_with(result.err, "id 7");
}

TEST_F(tvkctl_run_test, a_machine_without_descriptors_left_is_reported)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer needs descriptors itself, to look at memory";
#endif
    const tvkctl_result result = run_in_shell("ulimit -n 6; exec \"$TVKCTL\" run usb:1a2b:3c4d 'query 1'");
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "tvkctl: pipe2: Too many open files\n");
}

struct bad_command_line {
    const char* name;
    std::string arguments; ///< as a shell takes them
    const char* complaint; ///< all of it but "tvkctl: "
};

class bad_command_lines : public tvkctl_run_test, public testing::WithParamInterface<bad_command_line> {};

TEST_P(bad_command_lines, get_one_line_and_the_status_for_it)
{
    const tvkctl_result result = run_in_shell("exec \"$TVKCTL\" " + GetParam().arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, std::string("tvkctl: ") + GetParam().complaint + "\n");
}

const bad_command_line kBadCommandLines[] = {
    {"no_command", "", "A subcommand is required. See tvkctl --help."},
    {"unknown_command", "scan", "unknown command \"scan\". See tvkctl --help."},
    {"unknown_option", "list --every",
     "The following argument was not expected: --every. See tvkctl list --help."},
    {"no_address", "run", "UDI is required. See tvkctl run --help."},
    {"bad_address", "run 1a2b:3c4d 'send 01'",
     "invalid scanner address \"1a2b:3c4d\". An address is usb:VENDOR:PRODUCT or "
     "usb:VENDOR:PRODUCT:SERIAL, with hexadecimal ids; tvkctl list shows them."},
    {"no_steps", "run usb:1a2b:3c4d",
     "no steps are given. Give some, such as 'recv 512', or a file with --script."},
    {"steps_twice", "run usb:1a2b:3c4d 'send 01' --script a",
     "steps are given both by --script and as arguments. Leave one of them out."},
    {"bad_chunk", "run usb:1a2b:3c4d --chunk 0 'recv 1'",
     "invalid size \"0\" for --chunk. Write 512, 0x200, 64KiB, 1MiB or 2GiB, less than "
     "4GiB."},
    {"bad_port", "run usb:1a2b:3c4d --connect 65536 'recv 1'",
     "invalid port \"65536\" for --connect. Give the number that the program printed "
     "when it started."},
    {"bad_timeout", "run usb:1a2b:3c4d --timeout 0 'recv 1'",
     "invalid time \"0\" for --timeout. Write 2, 0.5, 3s or 250ms."},
    {"program_and_port", "run usb:1a2b:3c4d --program a --connect 1 'recv 1'",
     "--connect excludes --program. See tvkctl run --help."},
};

INSTANTIATE_TEST_SUITE_P(tvkctl, bad_command_lines, testing::ValuesIn(kBadCommandLines),
                         [](const auto& test) { return test.param.name; });

TEST_F(tvkctl_run_test, a_step_without_quotes_is_reported_with_the_forms_of_all_steps)
{
    const tvkctl_result result = run_steps({"send", "01"});
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(
        std::regex_match(result.err, std::regex("tvkctl: step 1, \"send\": there is nothing to send; "
                                                "put the whole step in quotes: 'send 01 02'\\. A step "
                                                "is one of: send [^\n]*, recv [^\n]*\\.\n")))
        << result.err;
}

} // namespace

} // namespace process_test
