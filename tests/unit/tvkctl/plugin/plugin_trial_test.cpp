#include "tvkctl/src/plugin/plugin_trial.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

#include "support/plugin_files.h"
#include "support/process_limits.h"

using support::built_plugin;
using tarvik::exit_status;
using tarvik::tvkctl::transfer_script;
using tarvik::tvkctl::trial_extent;
using tarvik::tvkctl::trial_plan;
using tarvik::tvkctl::trial_report;
using tarvik::tvkctl::trial_step;
using tarvik::tvkctl::try_plugin;
using outcome = tarvik::tvkctl::trial_report::outcome;

namespace {

using std::chrono::milliseconds;

/// Long enough for a busy machine where nothing hangs, short where something does.
constexpr milliseconds kPlenty{60'000};
constexpr milliseconds kShort{300};

trial_report try_one(const std::string& plugin, transfer_script script = transfer_script::all,
                     milliseconds timeout = kPlenty)
{
    trial_plan plan;
    plan.path = built_plugin(plugin);
    plan.script = script;
    plan.timeout = timeout;
    return try_plugin(plan);
}

trial_report only_load(const std::string& plugin, milliseconds timeout = kPlenty)
{
    trial_plan plan;
    plan.path = built_plugin(plugin);
    plan.extent = trial_extent::load;
    plan.timeout = timeout;
    return try_plugin(plan);
}

/// What a function returned; -1 when it was not called or did not return.
int result_of(const trial_report& report, trial_step step)
{
    const auto found =
        std::find_if(report.calls.begin(), report.calls.end(),
                     [=](const tarvik::tvkctl::trial_call& call) { return call.step == step; });
    return found == report.calls.end() ? -1 : found->result;
}

void expect_contains(const std::string& text, const std::string& part)
{
    EXPECT_NE(text.find(part), std::string::npos) << text << "\nlacks " << part;
}

void expect_no_process_left()
{
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

/// Why a trial cannot be made where nothing but its two pipes can be opened.
std::string refusal_without_descriptors()
{
    try {
        const support::few_descriptors_left here(4); // gone when the error is looked at
        try_one("passing");
    } catch (const std::system_error& error) {
        return error.code().message();
    }
    return "none";
}

} // namespace

TEST(plugin_trial, runs_a_whole_session_and_finds_nothing_wrong_with_a_good_plugin)
{
    const trial_report report = try_one("passing");
    EXPECT_EQ(report.end, outcome::completed);
    EXPECT_EQ(report.last, trial_step::done);
    EXPECT_EQ(report.status, exit_status::exited(0));
    EXPECT_EQ(report.calls.size(), 6U) << "load, four functions, unload";
    EXPECT_EQ(report.reads, 1U);
    EXPECT_EQ(report.writes, 1U);
    EXPECT_FALSE(report.left_buffer_untouched);
    EXPECT_TRUE(report.threads.empty() && report.descriptors.empty() && !report.has_left_processes);
}

TEST(plugin_trial, sets_the_environment_that_a_plugin_finds_in_the_process)
{
    EXPECT_EQ(result_of(try_one("needing_environment"), trial_step::ctor), 1);
}

TEST(plugin_trial, moves_half_of_each_transfer_or_nothing_when_told_to)
{
    const trial_report half = try_one("passing", transfer_script::half);
    EXPECT_EQ(result_of(half, trial_step::reader), 1);
    EXPECT_EQ(half.reads, 10U) << "512 bytes, by halves";
    const trial_report nothing = try_one("passing", transfer_script::nothing);
    EXPECT_EQ(result_of(nothing, trial_step::reader), 0);
    EXPECT_EQ(result_of(nothing, trial_step::writer), 0);
}

TEST(plugin_trial, repeats_the_words_of_the_loader)
{
    trial_plan bare_name;
    bare_name.path = "libc.so.6"; // a file, and not a library to search
    expect_contains(try_plugin(bare_name).words, "cannot open shared object file");
    for (const auto& [plugin, words] : {std::pair("needing_absent_library", "other_library.so: cannot open"),
                                        std::pair("cpp_names", "undefined symbol: interpreter_ctor")}) {
        const trial_report report = try_one(plugin);
        EXPECT_EQ(report.end, outcome::not_loadable);
        expect_contains(report.words, words);
    }
}

TEST(plugin_trial, unloads_a_plugin_that_refuses_to_start)
{
    const trial_report report = try_one("plugin_refusing");
    EXPECT_EQ(report.end, outcome::refused);
    EXPECT_EQ(result_of(report, trial_step::dtor), -1) << "interpreter_dtor must not be called";
    EXPECT_EQ(result_of(report, trial_step::unload), 0);
}

TEST(plugin_trial, that_only_loads_calls_nothing_and_names_each_function_that_is_missing)
{
    const trial_report report = only_load("passing");
    EXPECT_EQ(report.end, outcome::completed);
    EXPECT_EQ(report.last, trial_step::done);
    EXPECT_EQ(report.calls.size(), 2U) << "load, unload";
    EXPECT_EQ(report.missing, std::vector<std::string>());
    EXPECT_EQ(only_load("plugin_without_reader").missing, std::vector<std::string>{"interpreter_reader"});
    EXPECT_EQ(only_load("cpp_names").missing.size(), 4U);
}

TEST(plugin_trial, that_only_loads_reports_a_crash_while_unloading)
{
    const trial_report report = only_load("crashing_at_unload");
    EXPECT_EQ(report.end, outcome::died);
    EXPECT_EQ(report.last, trial_step::unload);
}

TEST(plugin_trial, that_only_loads_ends_a_plugin_that_hangs_and_what_it_started)
{
    const trial_report report = only_load("plugin_hanging_when_loaded", kShort);
    EXPECT_EQ(report.end, outcome::hung);
    EXPECT_EQ(report.last, trial_step::load);
    EXPECT_TRUE(report.has_left_processes);
    expect_no_process_left();
}

struct crash {
    const char* plugin;
    trial_step step;
};

class plugin_trial_of_a_crash : public testing::TestWithParam<crash> {};

TEST_P(plugin_trial_of_a_crash, reports_its_step_and_its_place)
{
    const std::string plugin = GetParam().plugin;
    const trial_report report = try_one(plugin);
    EXPECT_EQ(report.end, outcome::died);
    EXPECT_EQ(report.last, GetParam().step) << tarvik::tvkctl::trial_step_name(report.last);
    EXPECT_EQ(report.status, exit_status::killed_by(SIGSEGV));
    expect_contains(report.place, plugin + ".so");
}

INSTANTIATE_TEST_SUITE_P(, plugin_trial_of_a_crash,
                         testing::Values(crash{"crashing_at_load", trial_step::load},
                                         crash{"crashing_in_ctor", trial_step::ctor},
                                         crash{"crashing_in_writer", trial_step::writer},
                                         crash{"crashing_in_reader", trial_step::reader},
                                         crash{"overflowing_stack", trial_step::reader},
                                         crash{"crashing_in_dtor", trial_step::dtor},
                                         crash{"crashing_at_unload", trial_step::unload}),
                         [](const auto& test) { return test.param.plugin; });

TEST(plugin_trial, reports_who_called_a_function_that_aborted)
{
    const trial_report report = try_one("aborting");
    EXPECT_EQ(report.status, exit_status::killed_by(SIGABRT));
    expect_contains(report.place, "libc.so.6");
    expect_contains(report.place, "called from interpreter_reader+");
}

TEST(plugin_trial, reports_who_called_a_function_that_is_not_there)
{
    const trial_report report = try_one("jumping_nowhere");
    expect_contains(report.place, "jumping_nowhere.so");
    EXPECT_EQ(report.words, "through a null pointer");
}

TEST(plugin_trial, reports_a_plugin_that_writes_beyond_its_buffer_or_uses_it_after_the_call)
{
    EXPECT_EQ(try_one("overrunning").words, "beyond the end of the buffer that it was lent");
    EXPECT_EQ(try_one("keeping_buffer").words, "in the buffer of a call that has returned");
}

TEST(plugin_trial, reports_a_plugin_that_writes_in_front_of_a_buffer_that_fills_its_pages)
{
    trial_plan plan;
    plan.path = built_plugin("underrunning");
    plan.received = 64 * 1024; // where a page begins, whatever its size
    EXPECT_EQ(try_plugin(plan).words, "before the beginning of the buffer that it was lent");
}

TEST(plugin_trial, reports_a_plugin_that_ends_the_process)
{
    const trial_report report = try_one("exiting");
    EXPECT_EQ(report.end, outcome::died);
    EXPECT_EQ(report.status, exit_status::exited(0));
    EXPECT_EQ(report.last, trial_step::reader);
}

TEST(plugin_trial, reports_a_function_that_is_in_no_library)
{
    const trial_report report = try_one("missing_symbol");
    EXPECT_EQ(report.end, outcome::died);
    expect_contains(report.errors, "defined_nowhere");
}

TEST(plugin_trial, reports_an_exception)
{
    const trial_report report = try_one("throwing");
    EXPECT_EQ(report.end, outcome::threw);
    EXPECT_EQ(report.last, trial_step::ctor);
}

TEST(plugin_trial, ends_a_plugin_that_hangs_and_tells_where_unless_it_takes_no_signal)
{
    const trial_report report = try_one("hanging", transfer_script::all, kShort);
    EXPECT_EQ(report.end, outcome::hung);
    EXPECT_EQ(report.last, trial_step::ctor);
    expect_contains(report.place, "hanging.so");
    const trial_report deaf = try_one("hanging_deaf", transfer_script::all, kShort);
    EXPECT_EQ(deaf.end, outcome::hung);
    EXPECT_EQ(deaf.status, exit_status::killed_by(SIGKILL));
    EXPECT_EQ(deaf.place, "");
}

TEST(plugin_trial, ends_a_plugin_that_tries_for_ever_when_nothing_moves)
{
    const trial_report report = try_one("insisting", transfer_script::nothing, kShort);
    EXPECT_EQ(report.end, outcome::hung);
    EXPECT_GT(report.reads, 1U);
}

TEST(plugin_trial, ends_a_plugin_that_prints_for_ever_and_keeps_only_the_beginning)
{
    const trial_report report = try_one("printing_without_end", transfer_script::all, kShort);
    EXPECT_EQ(report.end, outcome::hung);
    EXPECT_EQ(report.output.substr(0, 14), "one more line\n");
    EXPECT_LE(report.output.size(), 4096U);
    EXPECT_GT(report.output_size, report.output.size());
}

TEST(plugin_trial, takes_what_a_plugin_prints)
{
    const trial_report report = try_one("printing");
    EXPECT_EQ(report.output, "hello");
    EXPECT_EQ(report.errors, "oh");
}

TEST(plugin_trial, names_what_outlives_the_session_and_leaves_no_process_behind)
{
    const trial_report thread = try_one("leaving_thread");
    ASSERT_EQ(thread.threads.size(), 1U);
    expect_contains(thread.threads.front(), "poller");
    const trial_report descriptor = try_one("leaving_descriptor");
    ASSERT_EQ(descriptor.descriptors.size(), 1U);
    expect_contains(descriptor.descriptors.front(), "/dev/zero");
    EXPECT_TRUE(try_one("leaving_process").has_left_processes);
    expect_no_process_left();
}

TEST(plugin_trial, says_that_this_machine_has_no_process_for_it)
{
    SUPPORT_REQUIRE_NO_PROCESSES_LEFT();
    EXPECT_THROW(try_one("passing"), std::system_error);
}

TEST(plugin_trial, says_that_it_has_no_descriptor_to_watch_with_and_leaves_no_process_behind)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' run-time needs descriptors itself; run this in a build without them";
#endif
    EXPECT_EQ(refusal_without_descriptors(), std::generic_category().message(EMFILE));
    expect_no_process_left();
}

TEST(plugin_trial, counts_transfers_without_a_buffer_or_after_the_session_and_success_without_one)
{
    EXPECT_EQ(try_one("asking_for_nothing").bad_transfers, 1U);
    EXPECT_EQ(try_one("asking_late").late_transfers, 1U);
    EXPECT_TRUE(try_one("untouching").left_buffer_untouched);
}

TEST(plugin_trial, gives_the_plugin_the_answers_of_the_plan)
{
    trial_plan plan;
    plan.path = SAMPLE_PLUGIN_PATH;
    // A scan of one pixel at 75 dpi, and the scanner's answers to what the plugin makes of it: the sheet has
    // 620 by 876 pixels, and a line of it follows.
    plan.sent = {'V', 'S', 'C', '1', 0, 1, 0, 0, 75, 0, 0, 0, 16, 0, 0, 0,
                 0,   0,   0,   0,   0, 0, 0, 0, 1,  0, 0, 0, 1,  0, 0, 0};
    plan.answers = {'V',  'S', 'A', '1', 7,   0,   0,   0,   0, 0, 0, 0, 8, 0, 0, 0, 0x6c, 2, 0, 0,
                    0x6c, 3,   0,   0,   'V', 'S', 'A', '1', 8, 0, 0, 0, 0, 0, 0, 0, 0x6c, 2, 0, 0};
    plan.received = 17;
    const trial_report report = try_plugin(plan);
    EXPECT_EQ(result_of(report, trial_step::writer), 1);
    EXPECT_EQ(result_of(report, trial_step::reader), 1);
}
