// What happens when the device cannot be reached at once: the program tries again, with pauses between.
#include <chrono>
#include <string>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"
#include "tvkintif/src/scanner.h"

using expected::attempt;
using expected::planned_open;
using std::chrono::steady_clock;
using target::plugin_folder;

namespace {

class late : public target::scanner_session {};

} // namespace

TEST_F(late, device_that_never_comes_is_looked_for_in_all_attempts_and_its_plugin_never_started)
{
    constexpr std::chrono::seconds kAllPauses{::scanner::kPauseSeconds *
                                              (::scanner::kConnectionAttempts - 1)};
    const plugin_folder plugins(target::kTracingPlugin, kDefaultPlugin);
    const auto start = steady_clock::now();
    open_in_vain(expected::vain_opening(kByIds, attempt::finds_no_device));
    EXPECT_GE(steady_clock::now() - start, kAllPauses); // how much more is up to the machine
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin unloaded\n");
}

TEST_F(late, device_that_comes_before_the_third_attempt_is_opened_by_it)
{
    const plugin_folder plugins(target::kTracingPlugin, kDefaultPlugin);
    plug_in("late");
    begin_to_open(kByIds);
    wait_for_failed_attempts(2);
    scanner().plug("late");
    planned_open what{kByIds};
    what.attempts = {attempt::finds_no_device, attempt::finds_no_device, attempt::reaches_it};
    end_opening(what);
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin ctor\n");
    close();
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin ctor\nplugin dtor\nplugin unloaded\n");
}

TEST_F(late, device_without_a_usable_interface_is_refused_after_all_attempts)
{
    plug_in("unusable");
    open_in_vain(expected::vain_opening(kByIds, attempt::finds_no_interface));
}
