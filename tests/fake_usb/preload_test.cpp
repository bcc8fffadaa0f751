#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/files.h"
#include "support/wait_until.h"

namespace fs = std::filesystem;

namespace {

class fake_usb_preload_test : public testing::Test {
protected:
    fake_usb_preload_test() { fs::create_directories(folder); }
    ~fake_usb_preload_test() override { fs::remove_all(folder); }

    void script(const std::string& text) { std::ofstream(folder / "bus.txt") << text; }

    /// Runs the probe under the preloaded fake; its exit status.
    int run(const std::string& argument = "")
    {
        const std::string command =
            "LD_PRELOAD=" FAKE_USB_PRELOAD_FILE " FAKE_USB_BUS=" + (folder / "bus.txt").string() +
            " FAKE_USB_DIALOGUE=" + (folder / "dialogue.txt").string() +
            // The sanitizer wants to be loaded first and cannot be, beside a preloaded library.
            " ASAN_OPTIONS=verify_asan_link_order=0 " PREFIX_OF_PROGRAMS " " PRELOAD_PROBE_FILE " " +
            argument + " >" + (folder / "out.txt").string() + " 2>" + (folder / "err.txt").string();
        return std::system(command.c_str());
    }

    std::string dialogue() const { return support::read_file(folder / "dialogue.txt"); }
    std::string output() const { return support::read_file(folder / "out.txt"); }
    std::string errors() const { return support::read_file(folder / "err.txt"); }

    const fs::path folder = fs::temp_directory_path() / ("fake_usb_preload_test." + std::to_string(getpid()));
};

TEST_F(fake_usb_preload_test, plays_the_bus_for_a_finished_program_and_writes_down_its_calls)
{
    script("device scanner 1a2b:3c4d\n appears_at_search 2\nclock recorded\ntransfer scanner 81 bytes "
           "01020304\n");

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(output(), "4 01020304\n");
    EXPECT_EQ(dialogue(), "init -> 0\n"
                          "open_device_with_vid_pid 1a2b:3c4d -> null\n"
                          "sleep 3\n"
                          "open_device_with_vid_pid 1a2b:3c4d -> scanner\n"
                          "usleep 100\n"
                          "claim_interface scanner 0 -> 0\n"
                          "bulk_transfer scanner 0x81 4 60000 -> 0 (4)\n"
                          "a line from elsewhere\n"
                          "release_interface scanner 0 -> 0\n"
                          "close scanner\n"
                          "exit\n"
                          "end of process\n");
}

TEST_F(fake_usb_preload_test, writes_down_what_a_program_leaves_behind)
{
    script("device scanner 1a2b:3c4d\n");

    EXPECT_EQ(run("handle"), 0);
    const std::string all = dialogue();
    EXPECT_EQ(all.substr(std::min(all.size(), all.find("release_interface"))),
              "release_interface scanner 0 -> 0\n"
              "LEFT BEHIND: context\n"
              "LEFT BEHIND: handle of scanner\n"
              "LEFT BEHIND: 1 references to scanner\n"
              "end of process\n");
}

TEST_F(fake_usb_preload_test, sleeps_for_real_unless_the_clock_is_recorded)
{
    script("device scanner 1a2b:3c4d\n");

    EXPECT_EQ(run(), 0);
    EXPECT_EQ(dialogue().find("usleep"), std::string::npos);
}

TEST_F(fake_usb_preload_test, holds_a_transfer_until_the_writer_of_its_fifo_lets_go)
{
    const std::string fifo = (folder / "hold").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    script("device scanner 1a2b:3c4d\ntransfer scanner 81 hold " + fifo + "\n");
    std::thread program([&] { EXPECT_EQ(run(), 0); });
    int writer = -1;
    EXPECT_TRUE(support::wait_until(std::chrono::seconds(20), [&] {
        writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC); // opens when the transfer has begun
        return writer >= 0;
    }));
    EXPECT_EQ(dialogue().find("bulk_transfer"), std::string::npos);
    EXPECT_NE(dialogue().find("claim_interface"), std::string::npos);
    close(writer);
    program.join();

    EXPECT_NE(dialogue().find("bulk_transfer scanner 0x81 4 60000 -> 0 (4)\n"), std::string::npos);
}

TEST_F(fake_usb_preload_test, ends_the_program_with_a_message_when_the_script_is_broken)
{
    script("plug it\n");

    const int status = run();
    EXPECT_NE(status, 0);
    EXPECT_NE(errors().find("fake_usb: " + (folder / "bus.txt").string() + ":1: no such statement: plug"),
              std::string::npos)
        << errors();
}

TEST_F(fake_usb_preload_test, ends_the_program_with_a_message_when_there_is_no_script)
{
    EXPECT_NE(run(), 0);
    EXPECT_NE(errors().find("fake_usb: cannot read the bus from "), std::string::npos) << errors();
}

} // namespace
