#include "tvkctl/src/plugin/loader_probe.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <system_error>

#include "support/plugin_files.h"
#include "support/process_limits.h"
#include "tvkctl/src/plugin/plugin_check.h"

namespace {

using outcome = tarvik::tvkctl::load_attempt::outcome;
using tarvik::tvkctl::load_attempt;

load_attempt attempt_on(const std::string& path, std::chrono::milliseconds timeout = std::chrono::seconds(30))
{
    return tarvik::tvkctl::try_to_load(
        path, {tarvik::tvkctl::kEntryPoints.begin(), tarvik::tvkctl::kEntryPoints.end()}, timeout);
}

load_attempt attempt_on_plugin(const std::string& target)
{
    return attempt_on(support::built_plugin(target));
}

load_attempt attempt_on_hanging_plugin()
{
    return attempt_on(support::built_plugin("plugin_hanging_when_loaded"), std::chrono::milliseconds(200));
}

TEST(loader_probe_test, a_good_plugin_is_loaded_and_has_all_functions)
{
    const load_attempt attempt = attempt_on_plugin("plugin_good");
    EXPECT_EQ(attempt.end, outcome::loaded);
    EXPECT_TRUE(attempt.missing.empty());
}

TEST(loader_probe_test, a_missing_function_is_named)
{
    const load_attempt attempt = attempt_on_plugin("plugin_without_reader");
    EXPECT_EQ(attempt.end, outcome::loaded);
    EXPECT_EQ(attempt.missing, std::vector<std::string>{"interpreter_reader"});
}

TEST(loader_probe_test, the_loader_says_why_it_refuses)
{
    const load_attempt attempt = attempt_on_plugin("plugin_needing_absent_library");
    EXPECT_EQ(attempt.end, outcome::refused);
    EXPECT_EQ(attempt.words,
              "libabsent_when_loaded.so: cannot open shared object file: No such file or directory");
}

TEST(loader_probe_test, functions_are_looked_up_as_late_as_the_program_does)
{
    EXPECT_EQ(attempt_on_plugin("plugin_calling_nobody").end, outcome::loaded);
}

TEST(loader_probe_test, a_crash_while_loading_is_survived_and_told)
{
    const load_attempt attempt = attempt_on_plugin("plugin_crashing_when_loaded");
    EXPECT_EQ(attempt.end, outcome::died);
    EXPECT_FALSE(attempt.was_loaded);
    EXPECT_EQ(attempt.status, tarvik::exit_status::killed_by(SIGABRT));
}

TEST(loader_probe_test, a_crash_while_unloading_is_told_apart)
{
    const load_attempt attempt = attempt_on_plugin("plugin_crashing_when_unloaded");
    EXPECT_EQ(attempt.end, outcome::died);
    EXPECT_TRUE(attempt.was_loaded);
}

TEST(loader_probe_test, a_plugin_that_hangs_is_given_up)
{
    const load_attempt attempt = attempt_on_hanging_plugin();
    EXPECT_EQ(attempt.end, outcome::hung);
    EXPECT_FALSE(attempt.was_loaded);
}

TEST(loader_probe_test, a_machine_without_processes_left_is_told)
{
    SUPPORT_REQUIRE_NO_PROCESSES_LEFT();
    EXPECT_THROW(attempt_on_plugin("plugin_good"), std::system_error);
}

TEST(loader_probe_test, processes_that_a_plugin_started_end_with_it)
{
    int held[2] = {-1, -1}; // every process inherits the writing end; the reading end tells when all are gone
    ASSERT_EQ(pipe(held), 0);
    attempt_on_hanging_plugin();
    close(held[1]);
    pollfd end = {held[0], POLLIN, 0};
    EXPECT_EQ(poll(&end, 1, 30'000), 1) << "a process is left";
    close(held[0]);
}

} // namespace
