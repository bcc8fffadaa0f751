#pragma once

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/process/child_process.h"
#include "support/lines.h"

namespace process_test {

using support::lines;

/// How a run of tvkctl ended.
struct tvkctl_result {
    int status = -1;
    std::string out;
    std::string err;
};

/// Runs the finished tvkctl, which runs the finished tvkintif, on a machine of the test: one scanner
/// 1a2b:3c4d on a fake bus, plugin_good as its plugin, no log directory. Each test fails for anything that is
/// left behind on the bus.
class tvkctl_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// In the language of fake_usb/script.h.
    void with_bus(const std::string& script) { m_bus = script; }
    void with_plugin(const std::string& target, const std::string& file_name = "libryo-mora-hk-t210.so");
    void with_environment(const std::string& name, const std::string& value) { m_environment[name] = value; }

    tvkctl_result run(const std::vector<std::string>& arguments);
    /// Runs a command of the shell, in which $TVKCTL stands for tvkctl.
    tvkctl_result run_in_shell(const std::string& command);
    /// Runs any program.
    tvkctl_result run_launch(const tarvik::launch& how);
    void start(const std::vector<std::string>& arguments);
    /// Runs tvkctl with both streams on a terminal; `arguments` are as a shell takes them, without '.
    void start_on_terminal(const std::string& arguments);
    static bool have_terminals();
    tvkctl_result wait();
    tarvik::child_process& process() { return *m_process; }

    /// How to start a program on this machine.
    tarvik::launch launch_of(const std::string& path, const std::vector<std::string>& arguments);
    /// The dialogue with the USB bus and the plugin, as far as its lines begin so.
    lines usb_lines_about(const std::string& beginning) const;

    /// `command` of the shell as another user, without rights. Status 127 where that cannot be done.
    static std::string as_nobody(const std::string& command);

    /// A copy of tvkctl without tvkintif beside it; its path.
    static std::string lonely_tvkctl();

    /// A file beside the program's working directory.
    static std::string scratch(const std::string& name);
    static void write_scratch(const std::string& name, const std::string& content);

    static const std::string kTvkctlPath;
    static const std::string kTvkintifPath;

private:
    std::string m_bus = "device scanner 1a2b:3c4d\n";
    std::map<std::string, std::string> m_environment;
    std::unique_ptr<tarvik::child_process> m_process;
};

} // namespace process_test

/// First statement of a test that needs a terminal: some containers have none to give.
#define REQUIRE_TERMINALS()                                                                                  \
    if (!have_terminals())                                                                                   \
    GTEST_SKIP() << "needs a pseudo-terminal, and /dev/ptmx gives none"
