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

TEST_F(log_files_test, names_come_oldest_first)
{
    for (const char* name : {"b_20261114.log", "a_20261116.log", "a_20261114.log", "setting.ini"})
        folder.append(name, "x");
    EXPECT_EQ(log_file_names(folder.path()), (texts{"a_20261114.log", "b_20261114.log", "a_20261116.log"}));
}

TEST_F(log_files_test, a_missing_folder_has_no_names)
{
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

TEST_F(log_files_test, a_symbolic_link_is_not_read)
{
    folder.append("secret", "one\n");
    fs::create_symlink(folder / "secret", folder / kToday);
    EXPECT_EQ(lines_of(folder / kToday), texts{});
}

TEST_F(log_files_test, a_fifo_is_not_waited_for)
{
    ASSERT_EQ(mkfifo((folder / kToday).c_str(), 0600), 0);
    EXPECT_EQ(lines_of(folder / kToday), texts{});
}

class log_tail_test : public testing::Test {
protected:
    log_tail from_the_beginning() { return {folder.path(), "20261115", log_tail::start::at_the_beginning}; }
    log_tail from_the_end() { return {folder.path(), "20261115", log_tail::start::at_the_end}; }

    temporary_folder folder;
};

TEST_F(log_tail_test, what_is_there_comes_first_and_then_what_is_added)
{
    folder.append(kToday, "one\n");
    log_tail tail = from_the_beginning();
    EXPECT_EQ(new_lines_of(tail), texts{"one"});
    EXPECT_EQ(new_lines_of(tail), texts{});
    folder.append(kToday, "two\nthree\n");
    EXPECT_EQ(new_lines_of(tail), (texts{"two", "three"}));
}

TEST_F(log_tail_test, at_the_end_only_what_is_added_comes)
{
    folder.append(kToday, "one\n");
    log_tail tail = from_the_end();
    folder.append(kToday, "two\n");
    EXPECT_EQ(new_lines_of(tail), texts{"two"});
}

TEST_F(log_tail_test, a_line_comes_when_its_newline_does)
{
    log_tail tail = from_the_beginning();
    folder.append(kToday, "one");
    EXPECT_EQ(new_lines_of(tail), texts{});
    folder.append(kToday, "\n");
    EXPECT_EQ(new_lines_of(tail), texts{"one"});
}

TEST_F(log_tail_test, at_the_end_of_an_unfinished_line_the_whole_line_comes)
{
    folder.append(kToday, "one");
    log_tail tail = from_the_end();
    folder.append(kToday, "\n");
    EXPECT_EQ(new_lines_of(tail), texts{"one"});
}

TEST_F(log_tail_test, a_long_log_is_read_whole)
{
    log_tail tail = from_the_beginning();
    const std::string line(1000, 'x');
    for (int i = 0; i < 200; ++i)
        folder.append(kToday, line + "\n");
    EXPECT_EQ(new_lines_of(tail), texts(200, line));
}

TEST_F(log_tail_test, at_the_end_of_a_long_log_only_what_is_added_comes)
{
    folder.append(kToday, std::string(200'000, 'x') + "\none");
    log_tail tail = from_the_end();
    folder.append(kToday, " and more\n");
    EXPECT_EQ(new_lines_of(tail), texts{"one and more"});
}

TEST_F(log_tail_test, after_midnight_the_next_days_file_is_read)
{
    log_tail tail = from_the_beginning();
    folder.append(kToday, "one\n");
    EXPECT_EQ(new_lines_of(tail), texts{"one"});
    folder.append(kToday, "two\n");
    folder.append(kTomorrow, "three\n");
    EXPECT_EQ(new_lines_of(tail), (texts{"two", "three"}));
}

TEST_F(log_tail_test, a_line_that_midnight_cuts_from_its_newline_comes_once)
{
    log_tail tail = from_the_beginning();
    folder.append(kToday, "one");
    EXPECT_EQ(new_lines_of(tail), texts{});
    folder.append(kTomorrow, "\ntwo\n");
    EXPECT_EQ(new_lines_of(tail), (texts{"one", "two"}));
}

TEST_F(log_tail_test, earlier_days_do_not_count)
{
    folder.append("tvkintif_20261114.log", "old\n");
    log_tail tail = from_the_beginning();
    EXPECT_EQ(new_lines_of(tail), texts{});
}

TEST_F(log_tail_test, a_file_that_was_moved_away_is_replaced_by_the_new_one)
{
    folder.append(kToday, "one\n");
    log_tail tail = from_the_beginning();
    new_lines_of(tail);
    fs::rename(folder / kToday, folder / "old");
    folder.append(kToday, "two\n");
    EXPECT_EQ(new_lines_of(tail), texts{"two"});
}

TEST_F(log_tail_test, an_unfinished_line_of_a_file_that_was_moved_away_comes_by_itself)
{
    folder.append(kToday, "one");
    log_tail tail = from_the_beginning();
    new_lines_of(tail);
    fs::rename(folder / kToday, folder / "old");
    folder.append(kToday, "\ntwo\n");
    EXPECT_EQ(new_lines_of(tail), (texts{"one", "two"}));
}

TEST_F(log_tail_test, a_file_that_was_emptied_is_read_from_its_beginning)
{
    folder.append(kToday, "one and a half\n");
    log_tail tail = from_the_beginning();
    new_lines_of(tail);
    fs::resize_file(folder / kToday, 0);
    folder.append(kToday, "two\n");
    EXPECT_EQ(new_lines_of(tail), texts{"two"});
}

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

TEST_F(directory_watch_test, the_end_of_the_folder_is_reported)
{
    fs::create_directory(folder / "log");
    directory_watch watch(folder / "log");
    fs::remove(folder / "log");
    EXPECT_EQ(watch.wait(deadline(support::kPatience)), directory_watch::news::gone);
}

TEST_F(directory_watch_test, a_folder_that_is_renamed_is_gone)
{
    fs::create_directory(folder / "log");
    directory_watch watch(folder / "log");
    fs::rename(folder / "log", folder / "old");
    EXPECT_EQ(watch.wait(deadline(support::kPatience)), directory_watch::news::gone);
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
