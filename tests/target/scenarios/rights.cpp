// A user who may not open the device, and what tvkctl advises.
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "support/private_paths.h"
#include "support/wait_until.h"
#include "target/scenarios/guest.h"
#include "target/scenarios/host_device.h"
#include "target/scenarios/scanner_session.h"
#include "tvkintif/src/scanner.h"

using expected::attempt;
using expected::planned_open;
using expected::serial_search;
using target::guest;
using target::host_device;

namespace {

namespace fs = std::filesystem;

class rights : public target::scanner_session {
protected:
    static constexpr tarvik::milliseconds kLimit{20'000};
    static constexpr int kNoRights = 22;

    rights() { guest::give(support::kLogDirectory); }

    void TearDown() override
    {
        scanner_session::TearDown();
        for (const std::string& rule : m_rules)
            fs::remove(rule);
        if (!m_rules.empty())
            run("udevadm control --reload");
    }

    /// Returns when the scanner's node has this mode, for which it is plugged in again as often as it takes:
    /// udev's daemon may have ignored the order to read its rules again, but does so by itself when a device
    /// comes, every three seconds at most.
    void replug_until_mode(mode_t mode)
    {
        EXPECT_TRUE(support::wait_until(kLimit,
                                        [&] {
                                            if (mode_of_node() == mode)
                                                return true;
                                            replug();
                                            return false;
                                        }))
            << "the scanner's node has mode " << std::oct << mode_of_node();
    }

    void replug()
    {
        scanner().unplug("plain");
        scanner().plug("plain");
    }

    static std::string explanation_to_the_guest()
    {
        const guest acting;
        tarvik::child_process tvkctl(tarvik::launch{"/usr/bin/tvkctl", {"explain", kBySerial}});
        EXPECT_EQ(tvkctl.wait_for_exit(kLimit), tarvik::exit_status::exited(kNoRights));
        return tvkctl.standard_output(kLimit);
    }

    /// Does everything that the explanation says to do with sudo, as somebody who may do that.
    void follow(const std::string& explanation)
    {
        constexpr const char* kRuleCommand = "sudo tee ";
        std::istringstream lines(explanation);
        for (std::string line; std::getline(lines, line);) {
            if (line.find("sudo ") == std::string::npos)
                continue;
            run("sudo() { \"$@\"; }\n" + line);
            if (const auto at = line.find(kRuleCommand); at != std::string::npos)
                m_rules.push_back(line.substr(at + std::string(kRuleCommand).size()));
        }
    }

private:
    static mode_t mode_of_node()
    {
        target::wait_for_node_rights();
        struct stat now = {};
        EXPECT_EQ(::stat(host_device("serial", kSerial).node().c_str(), &now), 0);
        return now.st_mode & 0777U;
    }

    /// Runs it until it succeeds: udev's daemon may hang up instead of answering, and none of the commands
    /// does harm when it is repeated.
    static void run(const std::string& command)
    {
        EXPECT_TRUE(support::wait_until(kLimit, [&] { return std::system(command.c_str()) == 0; }))
            << command;
    }

    std::vector<std::string> m_rules; ///< files
};

} // namespace

TEST_F(rights, user_without_them_is_refused_after_all_attempts)
{
    plug_in("plain");
    replug_until_mode(0664);
    planned_open what{kBySerial, kSerial, serial_search::finds_one_that_may_not_be_opened};
    what.attempts = std::vector<attempt>(::scanner::kConnectionAttempts, attempt::finds_no_device);
    const guest acting;
    open_in_vain(what);
}

TEST_F(rights, rule_that_explain_prints_gives_them_to_the_user)
{
    plug_in("plain");
    replug_until_mode(0664);
    follow(explanation_to_the_guest());
    replug();
    replug_until_mode(0660);
    const guest acting;
    open(kBySerial, kSerial);
    EXPECT_EQ(identified_serial(), kSerial);
    close();
}
