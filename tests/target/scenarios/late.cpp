// What happens when the device cannot be reached at once: the program tries again, three seconds apart.
#include <chrono>
#include <string>
#include <vector>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"

using std::chrono::steady_clock;
using target::attempt;
using target::opening;
using target::plugin_folder;

namespace {

class late : public target::scanner_session {
protected:
    static opening all_attempts(attempt outcome)
    {
        opening what{kByIds};
        what.attempts = std::vector<attempt>(target::kMostAttempts, outcome);
        return what;
    }
};

} // namespace

TEST_F(late, device_that_never_comes_is_looked_for_five_times_and_its_plugin_never_started)
{
    constexpr std::chrono::seconds kFourPauses{12};
    const plugin_folder plugins(target::kTracingPlugin, target::kDefaultPlugin);
    const auto start = steady_clock::now();
    open_in_vain(all_attempts(attempt::finds_no_device));
    EXPECT_GE(steady_clock::now() - start, kFourPauses); // how much more is up to the machine
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin unloaded\n");
}

TEST_F(late, device_that_comes_before_the_third_attempt_is_opened_by_it)
{
    const plugin_folder plugins(target::kTracingPlugin, target::kDefaultPlugin);
    plug_in("late");
    begin_to_open(kByIds);
    wait_for_failed_attempts(2);
    scanner().plug("late");
    opening what{kByIds};
    what.attempts = {attempt::finds_no_device, attempt::finds_no_device, attempt::reaches_it};
    end_opening(what);
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin ctor\n");
    close();
    EXPECT_EQ(target::plugin_trace(), "plugin loaded\nplugin ctor\nplugin dtor\nplugin unloaded\n");
}

TEST_F(late, device_without_a_usable_interface_is_refused_after_five_attempts)
{
    plug_in("unusable");
    open_in_vain(all_attempts(attempt::finds_no_interface));
}
