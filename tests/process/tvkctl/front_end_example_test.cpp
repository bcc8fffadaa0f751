// docs/examples/front_end.py as it stands there, run by Python.

#include <cstdlib>
#include <filesystem>

#include "process/tvkctl/tvkctl_test.h"

namespace fs = std::filesystem;

namespace process_test {

namespace {

class front_end_example : public tvkctl_test {
protected:
    void SetUp() override
    {
        tvkctl_test::SetUp();
        if (!IsSkipped())
            put_program_in_path("exec " + kTvkintifPath);
    }

    /// The fake bus is for the program alone: Python is left as it is.
    tvkctl_result run_script(const std::vector<std::string>& arguments)
    {
        tarvik::launch how = launch_of(PYTHON_PATH, {SOURCE_FOLDER "/docs/examples/front_end.py"});
        how.arguments.insert(how.arguments.end(), arguments.begin(), arguments.end());
        how.environment["FOR_PROGRAM"] = how.environment["LD_PRELOAD"];
        how.environment["LD_PRELOAD"] = "";
        how.environment["PATH"] =
            fs::path(scratch("tvkintif")).parent_path().string() + ":" + std::getenv("PATH");
        return run_launch(how);
    }

    /// What it says of a run that fails.
    std::string failure_of(const std::vector<std::string>& arguments)
    {
        const tvkctl_result result = run_script(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        return result.err;
    }

    static void put_program_in_path(const std::string& command)
    {
        write_scratch("tvkintif", "#!/bin/sh\nexport LD_PRELOAD=\"$FOR_PROGRAM\"\n" + command + "\n");
        fs::permissions(scratch("tvkintif"), fs::perms::owner_all);
    }
};

TEST_F(front_end_example, writes_what_the_scanner_answers)
{
    with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 00414243\n");
    const tvkctl_result result = run_script({"usb:1a2b:3c4d", "1b 53 02", "4"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, std::string("\0ABC", 4));
    EXPECT_EQ(result.err, "");
}

TEST_F(front_end_example, sends_its_command_and_receives_in_pieces_of_64_kib)
{
    run_script({"usb:1a2b:3c4d", "1b 53 02", "65537"});
    EXPECT_EQ(usb_lines_about("bulk_transfer").text(),
              (lines{"bulk_transfer scanner 0x02 3 60000 -> 0 (3)",
                     "bulk_transfer scanner 0x81 65536 60000 -> 0 (65536)",
                     "bulk_transfer scanner 0x81 1 60000 -> 0 (1)"})
                  .text());
}

TEST_F(front_end_example, lets_the_program_end_in_order)
{
    run_script({"usb:1a2b:3c4d", "1b", "1"});
    EXPECT_EQ(usb_lines_about("plugin_good dtor").text(), lines{"plugin_good dtor"}.text());
    EXPECT_EQ(usb_lines_about("end of process").text(), lines{"end of process"}.text());
}

TEST_F(front_end_example, names_the_step_that_failed)
{
    const std::string failed_read = "transfer scanner 81 result LIBUSB_ERROR_IO count 0\n";
    with_bus("device scanner 1a2b:3c4d\n" + failed_read);
    const std::vector<std::string> arguments = {"usb:1a2b:3c4d", "1b", "4"};
    EXPECT_EQ(failure_of(arguments), "front_end.py: receive 4 bytes: answered with ng\n");
    with_plugin("plugin_refusing");
    EXPECT_EQ(failure_of(arguments), "front_end.py: open usb:1a2b:3c4d: answered with ng\n");
    with_plugin("plugin_crashing_in_reader");
    EXPECT_EQ(failure_of(arguments), "front_end.py: tvkintif ended with status -6\n");
    put_program_in_path("echo -1; exit 1");
    EXPECT_EQ(failure_of(arguments), "front_end.py: start tvkintif: expected a port, got b'-1\\n'\n");
}

TEST_F(front_end_example, keeps_the_pieces_that_came_before_a_failure)
{
    with_bus("device scanner 1a2b:3c4d\n"
             "transfer scanner 81\n"
             "transfer scanner 81 result LIBUSB_ERROR_IO count 0\n");
    const tvkctl_result result = run_script({"usb:1a2b:3c4d", "1b", "65540"});
    EXPECT_EQ(result.out.size(), 65536U);
    EXPECT_EQ(result.err, "front_end.py: receive 4 bytes: answered with ng\n");
}

TEST_F(front_end_example, shows_how_it_is_used)
{
    const tvkctl_result result = run_script({"usb:1a2b:3c4d"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("front_end.py usb:1a2b:3c4d \"1b 53 02\" 512"), std::string::npos)
        << result.err;
}

} // namespace

} // namespace process_test
