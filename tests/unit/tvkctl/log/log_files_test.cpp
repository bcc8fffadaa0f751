#include "tvkctl/src/log/log_files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <future>
#include <system_error>

#include "support/temporary_folder.h"
#include "support/wait_until.h"

namespace {

namespace fs = std::filesystem;
using tarvik::deadline;
using tarvik::milliseconds;
using tarvik::tvkctl::day_named;
using tarvik::tvkctl::day_of;
using tarvik::tvkctl::day_of_file;
using tarvik::tvkctl::directory_watch;
using tarvik::tvkctl::log_file_names;
using tarvik::tvkctl::log_tail;
using tarvik::tvkctl::read_log_file;

using texts = std::vector<std::string>;

texts lines_of(const std::string& path)
{
    texts lines;
    read_log_file(path, [&](const std::string& line) { lines.push_back(line); });
    return lines;
}

texts new_lines_of(log_tail& tail)
{
    texts lines;
    tail.take_new([&](const std::string& line) { lines.push_back(line); });
    return lines;
}

constexpr const char* kToday = "tvkintif_20261115.log";
constexpr const char* kTomorrow = "tvkintif_20261116.log";

TEST(log_day_test, a_day_is_that_of_the_local_clock)
{
    setenv("TZ", "UTC-14", 1);
    tzset();
    EXPECT_EQ(day_of(1794736800), "20261116"); // 10:00 on the 15th in Greenwich
    setenv("TZ", "UTC", 1);
    tzset();
    EXPECT_EQ(day_of(1794736800), "20261115");
}

TEST(log_day_test, both_ways_to_write_a_day_are_read)
{
    EXPECT_EQ(day_named("2026-11-15"), "20261115");
    EXPECT_EQ(day_named("20261115"), "20261115");
    EXPECT_EQ(day_named("2028-02-29"), "20280229");
}

TEST(log_day_test, an_invalid_day_is_refused)
{
    for (const char* text : {"", "today", "2026-11-31", "2026-02-29", "20261301", "2026-1-15", "2026/11/15",
                             "2026-11-150", "-2026115", "20261115 "})
        EXPECT_FALSE(day_named(text)) << text;
}

TEST(log_day_test, the_day_stands_at_the_end_of_the_name)
{
    EXPECT_EQ(day_of_file("tvkintif_20261115.log"), "20261115");
    EXPECT_EQ(day_of_file("_20261115.log"), "20261115");
    for (const char* name : {"setting.ini", "tvkintif_20261115.log.gz", "tvkintif_2026115.log",
                             "tvkintif-20261115.log", "20261115.log", "tvkintif_2026111x.log", ".log"})
        EXPECT_FALSE(day_of_file(name)) << name;
}

class log_files_test : public testing::Test {
protected:
    temporary_folder folder;
};

TEST_F(log_files_test, names_come_oldest_first_and_a_missing_folder_has_none)
{
    for (const char* name : {"b_20261114.log", "a_20261116.log", "a_20261114.log", "setting.ini"})
        folder.append(name, "x");
    EXPECT_EQ(log_file_names(folder.path()), (texts{"a_20261114.log", "b_20261114.log", "a_20261116.log"}));
    EXPECT_EQ(log_file_names(folder / "none"), texts{});
}

TEST_F(log_files_test, a_file_is_read_with_its_unfinished_last_line)
{
    folder.append(kToday, "one\ntwo\nthr");
    EXPECT_EQ(lines_of(folder / kToday), (texts{"one", "two", "thr"}));
}

TEST_F(log_files_test, a_newline_left_over_from_midnight_makes_no_line)
{
    folder.append(kToday, "\none\n\ntwo\n");
    EXPECT_EQ(lines_of(folder / kToday), (texts{"one", "", "two"}));
}

TEST_F(log_files_test, neither_a_symbolic_link_nor_a_fifo_is_read)
{
    folder.append("secret", "one\n");
    fs::create_symlink(folder / "secret", folder / kToday);
    EXPECT_EQ(lines_of(folder / kToday), texts{});
    ASSERT_EQ(mkfifo((folder / kTomorrow).c_str(), 0600), 0);
    EXPECT_EQ(lines_of(folder / kTomorrow), texts{});
}

/// What happens to the logs between two looks at their end, and the lines that the second look finds.
struct event {
    std::string appended; ///< to today's file
    texts lines;
    std::string appended_tomorrow = {};
    bool is_renamed_before = false;
    bool is_emptied_before = false;
};

struct history {
    const char* name;
    std::string before; ///< in the file of the first look
    std::vector<event> events;
    log_tail::start from = log_tail::start::at_the_beginning;
};

const std::string kLong(200'000, 'x');

const history kHistories[] = {
    {"what_is_there_and_then_what_is_added",
     "one\n",
     {{"", {"one"}}, {"", {}}, {"two\nthree\n", {"two", "three"}}}},
    {"line_when_its_newline_comes", "", {{"one", {}}, {"\n", {"one"}}}},
    {"long_log_whole", "", {{kLong + "\n" + kLong + "\n", {kLong, kLong}}}},
    {"only_what_is_added_at_the_end", "one\n", {{"two\n", {"two"}}}, log_tail::start::at_the_end},
    {"whole_line_at_the_end_of_an_unfinished_one", "one", {{"\n", {"one"}}}, log_tail::start::at_the_end},
    {"only_what_is_added_at_the_end_of_a_long_log",
     kLong + "\none",
     {{" and more\n", {"one and more"}}},
     log_tail::start::at_the_end},
    {"next_days_file_after_midnight", "one\n", {{"", {"one"}}, {"two\n", {"two", "three"}, "three\n"}}},
    {"line_that_midnight_cuts_from_its_newline_once", "one", {{"", {}}, {"", {"one", "two"}, "\ntwo\n"}}},
    {"new_file_after_one_that_was_moved_away", "one\n", {{"", {"one"}}, {"two\n", {"two"}, "", true}}},
    {"unfinished_line_of_a_file_that_was_moved_away",
     "one",
     {{"", {}}, {"\ntwo\n", {"one", "two"}, "", true}}},
    {"beginning_of_a_file_that_was_emptied",
     "one and a half\n",
     {{"", {"one and a half"}}, {"two\n", {"two"}, "", false, true}}},
};

class log_tail_test : public testing::TestWithParam<history> {};

TEST_P(log_tail_test, finds)
{
    const temporary_folder folder;
    folder.append("tvkintif_20261114.log", "old\n"); // earlier days do not count
    if (!GetParam().before.empty())
        folder.append(kToday, GetParam().before);
    log_tail tail(folder.path(), "20261115", GetParam().from);
    for (const event& each : GetParam().events) {
        if (each.is_renamed_before)
            fs::rename(folder / kToday, folder / "old");
        if (each.is_emptied_before)
            fs::resize_file(folder / kToday, 0);
        if (!each.appended.empty())
            folder.append(kToday, each.appended);
        if (!each.appended_tomorrow.empty())
            folder.append(kTomorrow, each.appended_tomorrow);
        EXPECT_EQ(new_lines_of(tail), each.lines);
    }
}

INSTANTIATE_TEST_SUITE_P(, log_tail_test, testing::ValuesIn(kHistories),
                         [](const auto& test) { return test.param.name; });

class directory_watch_test : public testing::Test {
protected:
    temporary_folder folder;
};

TEST_F(directory_watch_test, an_added_line_wakes)
{
    folder.append(kToday, "one\n");
    directory_watch watch(folder.path());
    auto writer = std::async(std::launch::async, [&] { folder.append(kToday, "two\n"); });
    EXPECT_EQ(watch.wait(deadline(support::kPatience)), directory_watch::news::change);
}

TEST_F(directory_watch_test, a_new_file_wakes)
{
    directory_watch watch(folder.path());
    folder.append(kTomorrow, "");
    EXPECT_EQ(watch.wait(deadline(support::kPatience)), directory_watch::news::change);
}

TEST_F(directory_watch_test, a_folder_that_is_removed_or_renamed_is_gone)
{
    for (const bool is_renamed : {false, true}) {
        fs::create_directory(folder / "log");
        directory_watch watch(folder / "log");
        if (is_renamed)
            fs::rename(folder / "log", folder / "old");
        else
            fs::remove(folder / "log");
        EXPECT_EQ(watch.wait(deadline(support::kPatience)), directory_watch::news::gone);
    }
}

TEST_F(directory_watch_test, nothing_happens_until_the_deadline)
{
    directory_watch watch(folder.path());
    EXPECT_EQ(watch.wait(deadline(milliseconds(0))), directory_watch::news::none);
}

TEST_F(directory_watch_test, a_missing_folder_is_an_error)
{
    EXPECT_THROW(directory_watch(folder / "none"), std::system_error);
}

} // namespace
