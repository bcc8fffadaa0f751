#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/log/logger.h"
#include "support/clock_seam.h"
#include "support/dialogue.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "support/wait_until.h"

namespace fs = std::filesystem;
using lines = std::vector<std::string>;
using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

class private_paths_test : public testing::Test {
protected:
    void SetUp() override { SUPPORT_REQUIRE_PRIVATE_PATHS(); }
    void TearDown() override
    {
        if (!support::have_private_paths())
            return;
        support::remove_plugins();
        for (const fs::directory_entry& entry : fs::directory_iterator(support::kLogRoot))
            fs::remove_all(entry.path());
    }
};

bool is_mount_point(const std::string& path)
{
    return support::read_file("/proc/self/mountinfo").find(" " + path + " ") != std::string::npos;
}

TEST_F(private_paths_test, log_root_is_the_process_s_own_and_empty)
{
    EXPECT_TRUE(is_mount_point(support::kLogRoot));
    EXPECT_TRUE(fs::is_empty(support::kLogRoot));
}

TEST_F(private_paths_test, plugin_root_is_the_process_s_own_and_its_plugin_directory_empty)
{
    EXPECT_TRUE(is_mount_point(fs::path(support::kPluginRoot).parent_path()));
    EXPECT_TRUE(fs::is_empty(support::kPluginDirectory));
}

TEST_F(private_paths_test, a_child_has_them_too)
{
    std::ofstream(support::kLogRoot + "/mark") << "mark";

    EXPECT_EQ(std::system(("test -e " + support::kLogRoot + "/mark").c_str()), 0);
}

TEST_F(private_paths_test, a_plugin_is_installed_under_the_name_that_the_program_looks_for)
{
    support::install_plugin("plugin_good", "libqvintZ4.so");

    EXPECT_EQ(fs::file_size(support::built_plugin("plugin_good")),
              fs::file_size(support::kPluginDirectory + "/libqvintZ4.so"));
    support::remove_plugins();
    EXPECT_TRUE(fs::is_empty(support::kPluginDirectory));
}

class log_reader_test : public private_paths_test {
protected:
    void SetUp() override
    {
        private_paths_test::SetUp();
        if (!IsSkipped())
            support::make_log_directory();
    }

    void log_file(const std::string& name, const std::string& content)
    {
        std::ofstream(support::kLogDirectory + "/" + name) << content;
    }
};

TEST_F(log_reader_test, takes_a_line_apart)
{
    log_file("tvkintif_20261115.log", "[10:23:45.45000][1234](1236)[INFO]open usb:1a2b:3c4d [x](y)\n");

    const std::vector<support::log_line> all = support::log_lines();
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].clock, "10:23:45.45000");
    EXPECT_EQ(all[0].process, "1234");
    EXPECT_EQ(all[0].thread, "1236");
    EXPECT_EQ(all[0].level, "INFO");
    EXPECT_EQ(all[0].message, "open usb:1a2b:3c4d [x](y)");
}

TEST_F(log_reader_test, gives_the_lines_of_several_days_in_order)
{
    log_file("tvkintif_20261116.log", "[00:00:00.0000][1](1)[ERROR]after\n");
    log_file("tvkintif_20261115.log", "[23:59:59.59000][1](1)[INFO]before\n");

    EXPECT_EQ(support::log_dialogue(), (lines{"INFO before", "ERROR after"}));
}

TEST_F(log_reader_test, leaves_a_line_without_header_whole)
{
    log_file("tvkintif_20261116.log", "[00:00:00.0000] no header\n");

    EXPECT_EQ(support::log_dialogue(), lines{" [00:00:00.0000] no header"});
}

TEST_F(log_reader_test, reads_nothing_when_there_is_no_log_directory)
{
    fs::remove_all(support::kLogDirectory);

    EXPECT_EQ(support::log_dialogue(), lines{});
}

TEST(verbose_message, is_split_into_source_and_text)
{
    EXPECT_EQ(support::source_of("main(93) End Run"), "main");
    EXPECT_EQ(support::without_source("main(93) End Run"), "End Run");
}

TEST(verbose_message, is_left_whole_when_it_has_no_source)
{
    EXPECT_EQ(support::source_of("open it (93) End Run"), "");
    EXPECT_EQ(support::without_source("main(x) End Run"), "main(x) End Run");
}

TEST_F(private_paths_test, own_log_is_switched_on_at_the_wanted_level)
{
    support::open_log(2);
    Logger("support", __LINE__, ESeveryLevel::info)("%s", "not wanted");
    Logger("support", __LINE__, ESeveryLevel::warning)("%s", "wanted");

    EXPECT_EQ(support::log_dialogue(), lines{"WARNING wanted"});
}

TEST_F(private_paths_test, own_log_starts_afresh_each_time_and_ends)
{
    support::open_log(4);
    support::open_log();
    Logger("support", __LINE__, ESeveryLevel::info)("%s", "wanted");
    EXPECT_EQ(support::log_dialogue(), lines{"INFO wanted"});

    support::close_log();
    Logger("support", __LINE__, ESeveryLevel::fatal)("%s", "not wanted");
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

TEST(wait_until, ends_as_soon_as_the_condition_holds)
{
    int looks = 0;
    EXPECT_TRUE(support::wait_until(std::chrono::hours(1), [&] { return ++looks == 3; }));
    EXPECT_EQ(looks, 3);
}

TEST(wait_until, gives_up_at_the_deadline)
{
    EXPECT_FALSE(support::wait_until(std::chrono::milliseconds(5), [] { return false; }));
}

class dialogue_test : public testing::Test {
protected:
    void SetUp() override { support::take_dialogue(); }
    void TearDown() override
    {
        support::merge_into_dialogue({});
        support::set_dialogue_sink({});
    }
};

TEST_F(dialogue_test, keeps_the_order_of_all_who_record)
{
    sleep(3);
    support::record("found it");
    support_record_line("plugin loaded");
    usleep(100);

    EXPECT_EQ(support::take_dialogue(), (lines{"sleep 3", "found it", "plugin loaded", "usleep 100"}));
    EXPECT_EQ(support::take_dialogue(), lines{});
}

TEST_F(dialogue_test, merges_what_another_source_has_before_the_line_that_follows_it)
{
    lines waiting{"log 1", "log 2"};
    support::merge_into_dialogue([&] { return std::exchange(waiting, {}); });
    support::record("call");
    waiting = {"log 3"};

    EXPECT_EQ(support::dialogue(), (lines{"log 1", "log 2", "call", "log 3"}));
}

TEST_F(dialogue_test, hands_each_line_to_the_sink_at_once)
{
    std::string seen;
    support::set_dialogue_sink([&](const std::string& line) { seen += line; });
    support::record("a");
    EXPECT_EQ(seen, "a");
}

TEST(clock_seam, sets_the_time_and_gives_the_real_one_back)
{
    support::set_time(86400);
    EXPECT_EQ(std::time(nullptr), 86400);
    support::set_time(std::nullopt);

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    EXPECT_LE(std::abs(now.tv_sec - std::time(nullptr)), 1);
}

} // namespace
