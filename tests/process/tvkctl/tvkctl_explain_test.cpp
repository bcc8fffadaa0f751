#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "common/process/unique_fd.h"
#include "process/tvkctl/explain_test.h"
#include "process/tvkctl/usb_paths.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "tvkintif/src/models.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

using nlohmann::json;

class tvkctl_explain_test : public explain_test {
protected:
    struct check {
        std::string status; ///< when it fails
        std::string name;
    };

    /// All of them in their order, by tvkctl's own account.
    std::vector<check> checks()
    {
        const std::string help = run({"explain", "--help"}).out;
        const std::regex row("\n  ([0-9]+)  ([a-z]+) ");
        std::vector<check> all;
        for (std::sregex_iterator match(help.begin(), help.end(), row), end; match != end; ++match)
            all.push_back({(*match)[1], (*match)[2]});
        return all;
    }
};

/// Expects a line; of one that ends in "..." the beginning.
void expect_line(const tvkctl_result& result, const std::string& line)
{
    const std::size_t dots = line.rfind("...");
    const std::string wanted = dots == std::string::npos ? line + "\n" : line.substr(0, dots);
    EXPECT_NE(("\n" + result.out).find("\n" + wanted), std::string::npos) << result.out << "---- lacks\n"
                                                                          << line;
}

std::string without_blanks(const std::string& column)
{
    return std::regex_replace(column, std::regex(" +$"), "");
}

/// The outcome and the name of each check, a line for each: "failed plugin".
std::string outcomes(const tvkctl_result& result)
{
    const std::regex row("(?:^|\n)([a-z ]{11})  ([a-z]+) ");
    std::string text;
    for (std::sregex_iterator match(result.out.begin(), result.out.end(), row), end; match != end; ++match)
        text += without_blanks(match->str(1)) + " " + match->str(2) + "\n";
    return text;
}

/// A scanner on the bus, of which more is to be said.
const std::string kScanner = "device scanner 1a2b:3c4d\n  place 1 1 1\n";

/// A machine with one thing that is not as it should be, and what explain makes of it.
struct one_thing;
class unusual_machine : public tvkctl_explain_test, public testing::WithParamInterface<one_thing> {
public:
    using explain_test::node;
    using explain_test::plugin_file;
    using explain_test::with_bus;
    using explain_test::with_plugin;
    using explain_test::with_plugin_file;

    void with_plugin_of_another_machine()
    {
        constexpr std::size_t kMachineField = 18; // of the ELF header
        constexpr char kAnotherMachine = 22;      // IBM S/390, on which nobody runs this test
        std::string content = support::read_file(support::built_plugin("plugin_good"));
        ASSERT_GT(content.size(), kMachineField);
        content[kMachineField] = kAnotherMachine;
        content[kMachineField + 1] = 0;
        with_plugin_file(content);
    }
    void hold_node() { m_held = tarvik::unique_fd(open(node().c_str(), O_RDWR | O_CLOEXEC)); }
    void replace_program(const std::string& script) { options = {"--program", program_that(script)}; }
    /// Takes the program from beside tvkctl.
    void leave_tvkctl_alone(const std::string& path)
    {
        with_environment("PATH", path);
        m_tvkctl = lonely_tvkctl();
    }

    std::string udi = kUdi;
    std::vector<std::string> options = {};

protected:
    /// What explain says here, with words in the place of the paths.
    tvkctl_result explained()
    {
        options.insert(options.begin(), {"explain", udi});
        tvkctl_result result = run_launch(launch_of(m_tvkctl, options));
        for (const auto& [path, word] :
             {std::pair(plugin_file(), "PLUGIN"), std::pair(kTvkintifPath, "PROGRAM"),
              std::pair(scratch("program"), "PROGRAM")})
            for (std::size_t at = 0; (at = result.out.find(path, at)) != std::string::npos;)
                result.out.replace(at, path.size(), word);
        return result;
    }

private:
    std::string m_tvkctl = kTvkctlPath;
    tarvik::unique_fd m_held;
};

struct one_thing {
    const char* name;
    std::string line; ///< that tells of it, with PLUGIN and PROGRAM in the place of paths
    void (*arrange)(unusual_machine& here);
    std::string more = {}; ///< another one, behind its indentation
};

const one_thing kThings[] = {
    {"invalid_address", "failed       address    field 2, the product id, is missing",
     [](unusual_machine& here) { here.udi = "usb:1a2b"; }},
    {"bus_that_cannot_be_looked_at",
     "failed       bus        the USB devices cannot be enumerated: libusb_init answers LIBUSB_ERROR_OTHER",
     [](unusual_machine& here) { here.with_bus("fail init LIBUSB_ERROR_OTHER\n"); }},
    {"missing_node", "failed       rights     /dev/bus/usb/001/001 does not exist",
     [](unusual_machine& here) { fs::remove(here.node()); }},
    {"no_usable_interface",
     "failed       interface  no interface is vendor specific and has bulk endpoints both ways",
     [](unusual_machine& here) {
         here.with_bus(kScanner + "  configuration 1\n  interface 0\n  endpoint 81\n");
     },
     "- configuration 1, interface 0, setting 0: no bulk endpoint to the device"},
    {"claimed_interface", "failed       driver     another process has claimed interface 0",
     [](unusual_machine& here) {
         bind_driver("1-1:1.0", "usbfs");
         here.hold_node();
     },
     "- tvkctl_tests (process ..."},
    {"device_that_sysfs_does_not_know",
     "not checked  driver     /sys does not tell which driver is bound to the interface",
     [](unusual_machine& here) { here.with_bus("device scanner 1a2b:3c4d\n  place 1 1 2\n"); }},
    {"plugin_with_a_flaw", "warning      plugin     PLUGIN can be loaded and has the four entry points",
     [](unusual_machine& here) { here.with_plugin_file(support::read_file(PLUGIN_WITH_FLAW)); },
     "- stack: asks for an executable stack, for the whole process"},
    {"plugin_that_is_no_library", "failed       plugin     PLUGIN: not an ELF file",
     [](unusual_machine& here) { here.with_plugin_file("no library at all\n"); }},
    {"plugin_of_another_machine", "failed       plugin     PLUGIN cannot be loaded",
     [](unusual_machine& here) { here.with_plugin_of_another_machine(); },
     "install the plugin that is built for ..."},
    {"plugin_without_an_entry_point", "failed       plugin     PLUGIN lacks interpreter_reader",
     [](unusual_machine& here) { here.with_plugin("plugin_without_reader"); }, "tvkctl check-plugin PLUGIN"},
    {"plugin_that_crashes_when_it_is_loaded",
     "failed       plugin     PLUGIN ends the process when it is loaded",
     [](unusual_machine& here) { here.with_plugin("plugin_crashing_when_loaded"); }},
    {"program_that_is_not_there",
     "failed       program    start /nonexistent/none: expected a program to execute, got No such file or "
     "directory",
     [](unusual_machine& here) {
         here.options = {"--program", "/nonexistent/none"};
     }},
    {"program_that_cannot_be_found", "failed       program    there is no tvkintif beside tvkctl or in PATH",
     [](unusual_machine& here) { here.leave_tvkctl_alone("/nonexistent"); },
     "install it, or say where it is with --program FILE"},
    {"program_in_path", "ok           program    PROGRAM starts, prints a port and accepts",
     [](unusual_machine& here) {
         here.leave_tvkctl_alone("/nonexistent:" + fs::path(PROGRAM_PATH).parent_path().string());
     }},
    {"program_that_prints_no_port",
     "failed       program    read the port line of PROGRAM: expected a port from 1 to 65535, got \"hello\"",
     [](unusual_machine& here) { here.replace_program("echo hello"); }},
    {"program_that_ends_early",
     "failed       program    read the port line of PROGRAM: expected a port from 1 to 65535, got no line "
     "and then exit status 3; its standard error: \"no bus...",
     [](unusual_machine& here) { here.replace_program("echo no bus >&2; exit 3"); }},
    {"port_on_which_nobody_waits", "failed       program    connect to port 1: ...",
     [](unusual_machine& here) { here.replace_program("echo 1; exec sleep 60"); }},
    {"refusal_with_a_log_of_errors_alone", "failed       open       the open is answered with ng",
     [](unusual_machine& here) {
         support::make_log_directory(3);
         here.with_plugin("plugin_refusing");
     },
     "- the reason is logged at INFO, and the log takes only ERROR and above"},
    {"device_that_vanishes_before_the_open", "failed       open       the open is answered with ng",
     [](unusual_machine& here) {
         support::make_log_directory();
         here.with_bus(kScanner + "fail open_device_with_vid_pid LIBUSB_ERROR_NO_DEVICE\nclock recorded\n");
     },
     "the device vanished or refused to be opened: unplug it and plug it in again"},
    {"claim_that_fails", "failed       open       the open is answered with ng",
     [](unusual_machine& here) {
         support::make_log_directory();
         here.with_bus(kScanner + "fail claim_interface LIBUSB_ERROR_BUSY\nclock recorded\n");
     },
     "the device was opened, but its interface could not be claimed: end what else uses it"},
    {"plugin_that_crashes_at_its_start",
     "failed       open       open \"usb:1a2b:3c4d\": expected a reply's header of 20 bytes, got the end of "
     "the stream after 0 bytes; the program ended with signal 6 (Aborted)",
     [](unusual_machine& here) { here.with_plugin("plugin_crashing_in_ctor"); },
     "tvkctl check-plugin --run PLUGIN"},
    {"plugin_that_crashes_at_its_end",
     "failed       open       the scanner was opened, but when it was closed the program ended with signal 6 "
     "(Aborted)",
     [](unusual_machine& here) { here.with_plugin("plugin_crashing_in_dtor"); }},
};

TEST_P(unusual_machine, is_explained)
{
    const std::vector<check> all = checks();
    GetParam().arrange(*this);
    const tvkctl_result result = explained();
    expect_line(result, GetParam().line);
    expect_line(result, GetParam().more.empty() ? GetParam().line : "        " + GetParam().more);
    const auto unusual = std::find_if(all.begin(), all.end(), [](const check& each) {
        return GetParam().line.compare(13, each.name.size() + 1, each.name + " ") == 0;
    });
    ASSERT_NE(unusual, all.end()) << "no such check";
    const std::string outcome = without_blanks(GetParam().line.substr(0, 13));
    const bool is_failure = outcome == "failed";
    EXPECT_EQ(std::to_string(result.status), is_failure ? unusual->status : "0");
    std::string expected;
    for (auto each = all.begin(); each != (is_failure ? unusual + 1 : all.end()); ++each)
        expected += (each == unusual ? outcome : "ok") + " " + each->name + "\n";
    EXPECT_EQ(outcomes(result), expected);
}

INSTANTIATE_TEST_SUITE_P(tvkctl, unusual_machine, testing::ValuesIn(kThings),
                         [](const auto& test) { return test.param.name; });

TEST_F(tvkctl_explain_test, when_all_is_well_the_scanner_is_really_opened_and_closed)
{
    const tvkctl_result result = explain();
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    std::string all_ok;
    for (const check& each : checks())
        all_ok += "ok " + each.name + "\n";
    EXPECT_EQ(outcomes(result), all_ok);
    expect_line(result, "ok           open       the scanner was opened and closed again");
    // Twice loaded: by a child of tvkctl, which only looks, and by the program.
    EXPECT_EQ(usb_lines_about("plugin").text(),
              lines({"plugin_good loaded", "plugin_good unloaded", "plugin_good loaded", "plugin_good ctor",
                     "plugin_good dtor", "plugin_good unloaded"})
                  .text());
}

TEST_F(tvkctl_explain_test, the_plugin_is_that_of_the_product)
{
    with_bus("device scanner 1a2b:0a71\n  place 1 1 1\n");
    expect_line(explain("usb:1a2b:0a71"),
                "        - product 0a71 is served by " + std::string(plugin_name(0x0A71)));
}

TEST_F(tvkctl_explain_test, the_log_of_that_open_alone_is_told)
{
    support::make_log_directory();
    with_plugin("plugin_refusing");
    explain();
    const std::string out = explain().out;
    const std::string first_line = "        -     port = 0\n";
    const std::size_t begin = out.find("        - the log tells:\n" + first_line);
    ASSERT_NE(begin, std::string::npos) << out;
    EXPECT_EQ(out.find(first_line), out.rfind(first_line)) << out;
    EXPECT_NE(out.find("        -     usb ctor failer.\n", begin), std::string::npos) << out;
}

TEST_F(tvkctl_explain_test, json_has_each_check_up_to_the_one_that_fails)
{
    with_plugin("plugin_without_reader");
    const tvkctl_result result = explain(kUdi, {"--json"});
    const json document = json::parse(result.out);
    EXPECT_EQ(document["udi"], kUdi);
    EXPECT_EQ(document["opens"], false);
    EXPECT_EQ(document["exit_status"], result.status);
    EXPECT_EQ(document["checks"][0], json::parse(R"({"check": "address", "outcome": "ok", "cause": null,
        "summary": "vendor 1a2b, product 3c4d, any serial number", "evidence": [], "next": []})"));
    const json& failed = document["checks"].back();
    EXPECT_EQ(failed["check"], "plugin");
    EXPECT_EQ(failed["outcome"], "failed");
    EXPECT_EQ(failed["cause"], "missing_entry_point");
    EXPECT_EQ(failed["next"].back(), "tvkctl check-plugin " + plugin_file());
}

TEST_F(tvkctl_explain_test, json_says_that_the_scanner_opens_in_spite_of_a_warning)
{
    bind_driver("1-1:1.0", "usblp");
    const tvkctl_result result = explain(kUdi, {"--json"});
    const json document = json::parse(result.out);
    EXPECT_EQ(document["opens"], true);
    EXPECT_EQ(document["exit_status"], 0);
    EXPECT_EQ(document["checks"].size(), checks().size());
    EXPECT_NE(result.out.find("\"outcome\": \"warning\""), std::string::npos) << result.out;
}

TEST_F(tvkctl_explain_test, a_missing_address_is_a_usage_error)
{
    const tvkctl_result result = run({"explain"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "tvkctl: UDI is required. See tvkctl explain --help.\n");
}

} // namespace

} // namespace process_test
