#include "common/log/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/clock_seam.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/private_paths.h"
#include "support/wait_until.h"
#include "unit/common/log_calls.h"
#include "unit/tvkintif/allocation_seam.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::init_log;
using vl::common::log::log_mtx;
using vl::common::log::logConfigure;
using vl::common::log::Logger;

namespace fs = std::filesystem;
namespace log_calls = unit::log_calls;

namespace {

constexpr std::chrono::seconds kDeadline{10};
constexpr auto kInfo = ESeveryLevel::info;

static_assert(std::is_polymorphic_v<Logger> && std::has_virtual_destructor_v<Logger>);
static_assert(!std::is_copy_constructible_v<Logger> && !std::is_copy_assignable_v<Logger>);

std::time_t utc(int year, int month, int day, int hour, int minute, int second)
{
    std::tm date = {};
    date.tm_year = year - 1900;
    date.tm_mon = month - 1;
    date.tm_mday = day;
    date.tm_hour = hour;
    date.tm_min = minute;
    date.tm_sec = second;
    return timegm(&date);
}

/// 10:23:45 on 15 November 2026.
std::time_t now()
{
    return utc(2026, 11, 15, 10, 23, 45);
}

/// A zone counts from the next second on that is logged: looks at another one in between.
void set_time_zone(const char* zone)
{
    setenv("TZ", zone, 1);
    support::set_time(0);
    Logger("main", 1, kInfo);
    support::set_time(now());
}

/// The header up to the level, as it must stand in the log at 10:23:45.
std::string header(const std::string& level_name, const std::string& clock = "10:23:45.45000")
{
    return "[" + clock + "][" + std::to_string(getpid()) + "](" + std::to_string(syscall(SYS_gettid)) + ")[" +
           level_name + "]";
}

std::string file_name(const std::string& date = "20261115")
{
    return support::kLogDirectory + "/unit_logger_" + date + ".log";
}

std::string content(const fs::path& path)
{
    std::ostringstream all;
    all << std::ifstream(path, std::ios::binary).rdbuf();
    return all.str();
}

void read_settings_anew(const std::string& program_name = "tvkintif")
{
    logConfigure::instance_ = logConfigure();
    init_log(nullptr, program_name, "setting.ini");
}

void open_log_with(const std::string& settings)
{
    support::make_log_directory();
    std::ofstream(support::kSettingsFile, std::ios::binary) << settings;
    read_settings_anew();
}

constexpr int kNothing = 1000; ///< lowest enabled level where none is

/// The lowest of the levels from -2 to 6 that is enabled.
int lowest_enabled_level()
{
    for (int level = -2; level <= 6; ++level)
        if (logConfigure::instance_.is_enabled(static_cast<ESeveryLevel>(level)))
            return level;
    return kNothing;
}

/// Whether another thread could take the lock now.
bool is_log_unlocked()
{
    return std::async(std::launch::async,
                      [] {
                          const std::unique_lock<std::mutex> attempt(log_mtx, std::try_to_lock);
                          return attempt.owns_lock();
                      })
        .get();
}

/// Calls the member that takes the arguments as a list.
__attribute__((format(printf, 2, 3))) void put_list(Logger& record, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    record.put(format, arguments);
    va_end(arguments);
}

/// One message of whatever kind, and its text in the log.
struct message_case {
    const char* name;
    std::function<void(Logger&)> say;
    std::string text;
};

/// Counts how often a stream is asked to show it.
struct shown_value {
    int* times_shown;
};

std::ostream& operator<<(std::ostream& stream, const shown_value& value)
{
    ++*value.times_shown;
    return stream << "shown";
}

/// At now(), in a time zone without offset.
class logger_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::open_log(1);
        set_time_zone("UTC0");
        log_calls::reset();
    }

    void TearDown() override
    {
        log_calls::reset();
        support::set_time(std::nullopt);
        std::setlocale(LC_ALL, "C");
        if (support::have_private_paths())
            support::close_log();
    }
};

} // namespace

// The line

class message : public logger_test, public testing::WithParamInterface<message_case> {
protected:
    /// What standard error got.
    static std::string say()
    {
        testing::internal::CaptureStderr();
        {
            Logger record("main", 93, kInfo);
            GetParam().say(record);
        }
        return testing::internal::GetCapturedStderr();
    }
};

TEST_P(message, follows_clock_process_thread_and_level_and_is_not_copied)
{
    EXPECT_EQ(say(), "");
    EXPECT_EQ(support::raw_log(), header("INFO") + GetParam().text + "\n");
}

TEST_P(message, follows_source_and_line_too_when_verbose_and_is_copied_letter_for_letter)
{
    support::open_log(0);
    const std::string line = header("INFO") + "main(93) " + GetParam().text + "\n";
    EXPECT_EQ(say(), line);
    EXPECT_EQ(support::raw_log(), line);
}

message_case of_length(const char* name, std::size_t length, std::size_t written)
{
    return {name, [=](Logger& record) { record("%s", std::string(length, 'm').c_str()); },
            std::string(written, 'm')};
}

std::string repeated(const std::string& text, int times)
{
    std::string all;
    for (int i = 0; i < times; ++i)
        all += text;
    return all;
}

const std::vector<message_case> kMessages = {
    {"plain", [](Logger& record) { record("End Run"); }, "End Run"},
    {"with_arguments",
     [](Logger& record) {
         record("transferred %zd bytes, %s, %c%%", static_cast<ssize_t>(-1), "100 %s %n", 'x');
     },
     "transferred -1 bytes, 100 %s %n, x%"},
    of_length("of_0_letters", 0, 0),
    of_length("of_1022_letters", 1022, 1022),
    of_length("of_1023_letters", 1023, 1023),
    of_length("of_1024_letters_is_cut", 1024, 1023),
    of_length("of_2000_letters_is_cut", 2000, 1023),
    {"with_arguments_as_a_list_is_cut_alike",
     [](Logger& record) { put_list(record, "%s%d", std::string(1022, 'm').c_str(), 42); },
     std::string(1022, 'm') + "4"},
    // The numeric locale of this process has no such character, so the formatting fails in the middle.
    {"that_cannot_be_formatted_is_empty",
     [](Logger& record) { record("before %lc after", static_cast<std::wint_t>(0x20AC)); }, ""},
    {"put_is_neither_cut_nor_formatted",
     [](Logger& record) { record.put((std::string(2000, 'm') + "%d").c_str()); },
     std::string(2000, 'm') + "%d"},
    {"null_is_empty", [](Logger& record) { record.put(static_cast<const char*>(nullptr)); }, ""},
    {"streamed_is_not_formatted", [](Logger& record) { record << "text with 100 %d"; }, "text with 100 %d"},
    {"streamed_is_not_cut", [](Logger& record) { record << std::string(2000, 'm'); }, std::string(2000, 'm')},
    {"streamed_null_is_empty", [](Logger& record) { record << static_cast<const char*>(nullptr); }, ""},
    {"in_pieces_has_one_header", [](Logger& record) { record << "one, " << 2; }, "one, 2"},
    {"hex_dump",
     [](Logger& record) {
         std::array<char, 2> data = {'\x01', '\xAB'};
         record.Dumpbin(data.data(), data.size());
     },
     "01 AB "},
    {"hex_dump_is_one_line_however_long",
     [](Logger& record) { record.Dumpbin(std::string(2000, '\xFF').data(), 2000); }, repeated("FF ", 2000)},
    {"hex_dump_of_nothing_is_empty", [](Logger& record) { record.Dumpbin(nullptr, 0); }, ""},
};

INSTANTIATE_TEST_SUITE_P(logger_test, message, testing::ValuesIn(kMessages),
                         [](const auto& test) { return test.param.name; });

TEST_F(logger_test, thread_id_is_that_of_the_thread_that_logs)
{
    long thread_id = 0;
    std::thread([&] {
        thread_id = syscall(SYS_gettid);
        Logger("main", 1, kInfo)("from a thread");
    }).join();
    EXPECT_EQ(support::log_lines().at(0).thread, std::to_string(thread_id));
}

TEST_F(logger_test, source_name_is_not_shortened_and_null_leaves_source_and_line_out)
{
    support::open_log(0);
    testing::internal::CaptureStderr();
    Logger("src/some/main.cpp", -1, kInfo)("one");
    Logger(nullptr, 93, kInfo)("two");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(support::raw_log(), header("INFO") + "src/some/main.cpp(-1) one\n" + header("INFO") + "two\n");
}

struct clock_case {
    int hour;
    int minute;
    int second;
    const char* text;
};

class clock_field : public logger_test, public testing::WithParamInterface<clock_case> {};

TEST_P(clock_field, shows_the_second_times_a_thousand_after_the_point)
{
    const clock_case& when = GetParam();
    support::set_time(utc(2026, 11, 15, when.hour, when.minute, when.second));
    Logger("main", 1, kInfo)("now");
    EXPECT_EQ(support::raw_log(), header("INFO", when.text) + "now\n");
}

INSTANTIATE_TEST_SUITE_P(logger_test, clock_field,
                         testing::Values(clock_case{0, 0, 0, "00:00:00.0000"},
                                         clock_case{8, 7, 9, "08:07:09.9000"},
                                         clock_case{8, 0, 10, "08:00:10.10000"},
                                         clock_case{23, 59, 59, "23:59:59.59000"}),
                         [](const auto& test) {
                             std::string name = test.param.text;
                             for (char& c : name)
                                 c = c == ':' || c == '.' ? '_' : c;
                             return "at_" + name;
                         });

TEST_F(logger_test, clock_is_local_time)
{
    set_time_zone("AHEAD-3");
    Logger("main", 1, kInfo)("now");
    EXPECT_EQ(support::raw_log(), header("INFO", "13:23:45.45000") + "now\n");
}

struct level_case {
    int level;
    const char* name;
};

class level_name : public logger_test, public testing::WithParamInterface<level_case> {};

TEST_P(level_name, stands_in_brackets_before_the_message)
{
    open_log_with("loglevel=-5"); // everything, also what is below TRACE
    testing::internal::CaptureStderr();
    Logger(nullptr, 1, static_cast<ESeveryLevel>(GetParam().level))("text");
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(support::raw_log(), header(GetParam().name) + "text\n");
}

INSTANTIATE_TEST_SUITE_P(logger_test, level_name,
                         testing::Values(level_case{0, "TRACE"}, level_case{1, "INFO"},
                                         level_case{2, "WARNING"}, level_case{3, "ERROR"},
                                         level_case{4, "FATAL"}, level_case{5, ""}, level_case{7, ""},
                                         level_case{-1, ""}),
                         [](const auto& test) {
                             const int level = test.param.level;
                             return level < 0 ? "minus_" + std::to_string(-level) : std::to_string(level);
                         });

TEST_F(logger_test, header_is_that_of_the_construction_and_not_of_the_write)
{
    Logger record("main", 1, kInfo);
    support::set_time(utc(2026, 11, 15, 10, 23, 46));
    record("later");
    EXPECT_EQ(support::raw_log(), header("INFO") + "later");
}

// The record

TEST_F(logger_test, streaming_gives_the_record_back)
{
    Logger record("main", 1, kInfo);
    EXPECT_EQ(&(record << "text"), &record);
}

TEST_F(logger_test, record_without_a_message_writes_nothing)
{
    {
        const Logger record("main", 1, kInfo);
    }
    EXPECT_FALSE(fs::exists(file_name()));
}

TEST_F(logger_test, line_of_another_record_can_fall_between_a_message_and_its_newline)
{
    {
        Logger record("main", 1, kInfo);
        record("one");
        Logger("main", 1, kInfo)("two");
    }
    EXPECT_EQ(support::raw_log(), header("INFO") + "one" + header("INFO") + "two\n\n");
}

TEST_F(logger_test, another_header_ends_the_line_and_a_short_one_ends_after_the_thread_id)
{
    {
        Logger record("main", 1, kInfo);
        record("one");
        record.add_header(false);
        record("two");
        record.add_header(true);
        record("three");
    }
    const std::string full = header("INFO");
    const std::string cut = full.substr(0, full.size() - std::strlen("[INFO]"));
    EXPECT_EQ(support::raw_log(), full + "one\n" + full + "two\n" + cut + "three\n");
}

// The file

TEST_F(logger_test, file_that_was_moved_away_is_made_anew_for_the_next_line)
{
    Logger("main", 1, kInfo)("first");
    fs::rename(file_name(), file_name("moved"));
    Logger("main", 1, kInfo)("second");
    EXPECT_EQ(content(file_name("moved")), header("INFO") + "first\n");
    EXPECT_EQ(content(file_name()), header("INFO") + "second\n");
}

TEST_F(logger_test, file_that_is_moved_away_between_message_and_newline_gets_both)
{
    {
        Logger record("main", 1, kInfo);
        record("text");
        fs::rename(file_name(), file_name("moved"));
    }
    EXPECT_EQ(content(file_name("moved")), header("INFO") + "text\n");
    EXPECT_FALSE(fs::exists(file_name()));
}

TEST_F(logger_test, file_is_close_on_exec_and_closed_with_the_line)
{
    int descriptor = -1;
    std::vector<int> flags;
    log_calls::before_writev([&](int each) {
        descriptor = each;
        flags.push_back(fcntl(each, F_GETFD));
    });
    Logger("main", 1, kInfo)("text");
    EXPECT_EQ(flags, (std::vector<int>{FD_CLOEXEC, FD_CLOEXEC}));
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(logger_test, lines_are_appended_to_what_the_file_holds)
{
    std::ofstream(file_name()) << "earlier\n";
    Logger("main", 1, kInfo)("text");
    EXPECT_EQ(content(file_name()), "earlier\n" + header("INFO") + "text\n");
}

TEST_F(logger_test, newline_goes_into_the_next_days_file_when_midnight_falls_between)
{
    support::set_time(utc(2026, 11, 15, 23, 59, 59));
    {
        Logger record("main", 1, kInfo);
        record("late");
        support::set_time(utc(2026, 11, 16, 0, 0, 0));
    }
    EXPECT_EQ(content(file_name("20261115")), header("INFO", "23:59:59.59000") + "late");
    EXPECT_EQ(content(file_name("20261116")), "\n");
}

TEST_F(logger_test, date_in_the_file_name_is_local_and_has_leading_zeros)
{
    set_time_zone("AHEAD-14");
    EXPECT_EQ(logConfigure::instance_.output_logfile(), file_name("20261116"));
    support::set_time(utc(2027, 1, 1, 23, 0, 0));
    EXPECT_EQ(logConfigure::instance_.output_logfile(), file_name("20270102"));
}

TEST_F(logger_test, file_that_cannot_be_opened_drops_the_line_and_its_copy)
{
    support::open_log(0);
    fs::remove_all(support::kLogDirectory);
    testing::internal::CaptureStderr();
    Logger("main", 1, kInfo)("text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

TEST_F(logger_test, file_that_cannot_be_opened_leaves_the_header_pending)
{
    {
        Logger record("main", 1, kInfo);
        fs::remove_all(support::kLogDirectory);
        record("lost");
        fs::create_directory(support::kLogDirectory);
        record("kept");
    }
    EXPECT_EQ(support::raw_log(), header("INFO") + "kept\n");
}

TEST_F(logger_test, file_that_cannot_be_opened_leaves_no_newline_due)
{
    {
        Logger record("main", 1, kInfo);
        fs::remove_all(support::kLogDirectory);
        record("lost");
        fs::create_directory(support::kLogDirectory);
    }
    EXPECT_FALSE(fs::exists(file_name()));
}

TEST_F(logger_test, line_that_the_disk_has_no_room_for_is_still_copied_to_standard_error)
{
    support::open_log(0);
    fs::create_symlink("/dev/full", file_name());
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(Logger("main", 1, kInfo)("text"));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), header("INFO") + "main(1) text\n");
}

// What others have put in the place of the log

TEST_F(logger_test, fifo_in_place_of_the_file_drops_the_line_at_once)
{
    ASSERT_EQ(mkfifo(file_name().c_str(), 0600), 0);
    const int reader = open(file_name().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    Logger("main", 1, kInfo)("text");
    char byte = 0;
    EXPECT_EQ(read(reader, &byte, sizeof byte), 0);
    close(reader);
}

TEST_F(logger_test, file_with_another_name_where_others_may_write_drops_the_line)
{
    const std::string other = support::kLogDirectory + "/key";
    std::ofstream(other) << "key\n";
    fs::create_hard_link(other, file_name());
    fs::permissions(support::kLogDirectory, fs::perms::all);
    Logger("main", 1, kInfo)("text");
    EXPECT_EQ(content(other), "key\n");
}

TEST_F(logger_test, fifo_in_place_of_the_settings_turns_the_log_off_at_once)
{
    support::make_log_directory();
    ASSERT_EQ(mkfifo((support::kSettingsFile).c_str(), 0600), 0);
    read_settings_anew();
    EXPECT_EQ(lowest_enabled_level(), kNothing);
}

TEST_F(logger_test, only_the_first_64_kibibytes_of_the_settings_count)
{
    const std::string line = "loglevel=0\n";
    open_log_with(std::string(64 * 1024 - line.size(), '\n') + line);
    EXPECT_EQ(lowest_enabled_level(), 0);
    open_log_with(std::string(64 * 1024 - line.size(), '\n') + "loglevel=3" + line);
    EXPECT_EQ(lowest_enabled_level(), 3);
    open_log_with(std::string(64 * 1024, '\n') + line);
    EXPECT_EQ(lowest_enabled_level(), kNothing);
}

TEST_F(logger_test, settings_without_end_turn_the_log_off)
{
    support::make_log_directory();
    fs::create_symlink("/dev/zero", support::kSettingsFile);
    read_settings_anew();
    EXPECT_EQ(lowest_enabled_level(), kNothing);
}

TEST_F(logger_test, line_is_dropped_before_the_log_has_a_path)
{
    logConfigure::instance_ = logConfigure();
    logConfigure::instance_.set_config_file(support::kSettingsFile);
    const fs::path before = fs::current_path();
    fs::current_path(support::kLogDirectory);
    Logger("main", 1, kInfo)("text");
    fs::current_path(before);
    EXPECT_EQ(logConfigure::instance_.output_logfile(), "");
    EXPECT_EQ(support::raw_log(), "");
}

/// Both levels of the log's directory.
class log_folder : public logger_test, public testing::WithParamInterface<std::string> {
protected:
    void SetUp() override
    {
        logger_test::SetUp();
        if (!IsSkipped() && geteuid() != 0)
            GTEST_SKIP() << "only root can make folders that belong to somebody else";
    }
    static void give(const std::string& path, uid_t user) { ASSERT_EQ(lchown(path.c_str(), user, user), 0); }
};

TEST_P(log_folder, of_a_stranger_counts_as_not_there)
{
    give(GetParam(), 12345);
    read_settings_anew();
    give(GetParam(), 0);
    EXPECT_EQ(lowest_enabled_level(), kNothing);
}

TEST_P(log_folder, of_root_serves_another_user_when_everybody_may_write_there)
{
    fs::permissions(GetParam(), fs::perms::all);
    fs::permissions(support::kLogDirectory, fs::perms::all);
    ASSERT_EQ(seteuid(12345), 0);
    read_settings_anew();
    Logger("main", 1, kInfo)("text");
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(support::raw_log(), header("INFO") + "text\n");
}

INSTANTIATE_TEST_SUITE_P(logger_test, log_folder, testing::Values(support::kLogRoot, support::kLogDirectory),
                         [](const auto& test) {
                             return test.param == support::kLogRoot ? "root" : "of_the_program";
                         });

// No memory

TEST_F(logger_test, line_needs_no_memory)
{
    {
        const unit::allocation_limit none(0);
        Logger("main", 1, kInfo)("text %s", "long enough for any small-string buffer");
    }
    EXPECT_EQ(support::raw_log(), header("INFO") + "text long enough for any small-string buffer\n");
}

TEST_F(logger_test, streamed_value_that_there_is_no_memory_for_is_dropped)
{
    {
        const unit::allocation_limit none(0);
        Logger("main", 1, kInfo) << std::string_view("text that is long enough for any small-string buffer");
    }
    EXPECT_EQ(support::raw_log(), "");
}

TEST_F(logger_test, hex_dump_that_there_is_no_memory_for_is_dropped)
{
    std::vector<char> data(2000, '\xFF');
    {
        const unit::allocation_limit none(0);
        Logger("main", 1, kInfo).Dumpbin(data.data(), 2000);
    }
    EXPECT_EQ(support::raw_log(), "");
}

// A disabled level

TEST_F(logger_test, disabled_level_asks_neither_clock_nor_memory_and_formats_and_writes_nothing)
{
    const std::size_t before = unit::allocation_count();
    int times_shown = 0;
    std::array<char, 1> data = {'\x01'};
    Logger record("main", 1, ESeveryLevel::trace);
    record("text %d, long enough for any small-string buffer", 1);
    record.put("text");
    record.Dumpbin(data.data(), data.size());
    record << "text" << shown_value{&times_shown};
    EXPECT_EQ(unit::allocation_count(), before);
    EXPECT_EQ(times_shown, 0);
    EXPECT_EQ(log_calls::clock_count(), 0);
    EXPECT_EQ(log_calls::format_count(), 0);
    put_list(record, "%d", 1);
    EXPECT_FALSE(fs::exists(file_name()));

    Logger("main", 1, kInfo)("text %d", 1); // an enabled one is seen to ask
    EXPECT_GT(log_calls::clock_count(), 0);
    EXPECT_GT(log_calls::format_count(), 0);
}

TEST_F(logger_test, logging_without_settings_or_a_level_in_them_allocates_nothing)
{
    for (const bool has_settings : {false, true}) {
        support::close_log();
        if (has_settings)
            open_log_with("a_key_too_long_for_any_small_string_buffer=1\n");
        const std::size_t before = unit::allocation_count();
        Logger("main", 1, ESeveryLevel::fatal)("text %d, long enough for any small-string buffer", 1);
        EXPECT_EQ(unit::allocation_count(), before);
    }
}

TEST_F(logger_test, disabled_level_does_not_take_the_lock)
{
    std::unique_lock<std::mutex> lock(log_mtx);
    auto logging = std::async(std::launch::async, [] { Logger("main", 1, ESeveryLevel::trace)("text"); });
    EXPECT_EQ(logging.wait_for(kDeadline), std::future_status::ready);
    lock.unlock();
}

// Threads

TEST_F(logger_test, header_is_built_without_the_lock_and_each_write_holds_it)
{
    std::vector<bool> unlocked;
    support::set_time(now() + 1);
    log_calls::before_localtime([&] { unlocked.push_back(is_log_unlocked()); });
    log_calls::before_writev([&](int /*descriptor*/) { unlocked.push_back(is_log_unlocked()); });
    Logger("main", 1, kInfo)("text");
    EXPECT_EQ(unlocked, (std::vector<bool>{true, false, false}));
}

TEST_F(logger_test, clock_is_converted_once_a_second)
{
    int conversions = 0;
    log_calls::before_localtime([&] { ++conversions; });
    for (const int second : {1, 1, 2, 2, 1}) {
        support::set_time(now() + second);
        Logger("main", 1, kInfo)("text");
    }
    EXPECT_EQ(conversions, 3);
}

TEST_F(logger_test, lock_is_free_again_after_a_write_and_after_a_file_that_could_not_be_opened)
{
    Logger record("main", 1, kInfo);
    record("text");
    EXPECT_TRUE(is_log_unlocked());
    fs::remove_all(support::kLogDirectory);
    record("text");
    EXPECT_TRUE(is_log_unlocked());
}

TEST_F(logger_test, settings_are_read_under_the_lock)
{
    std::vector<bool> unlocked;
    log_calls::before_setlocale([&] { unlocked.push_back(is_log_unlocked()); });
    read_settings_anew();
    EXPECT_EQ(unlocked, (std::vector<bool>{false, false}));
}

TEST_F(logger_test, lines_of_two_threads_stay_whole)
{
    constexpr int kLines = 200;
    const auto text = [](int i) { return "line " + std::to_string(i) + " of " + std::string(300, 'x'); };
    const auto write_lines = [&] {
        for (int i = 0; i < kLines; ++i)
            Logger("main", 1, kInfo)("%s", text(i).c_str());
        return syscall(SYS_gettid);
    };
    auto other = std::async(std::launch::async, write_lines);
    const long own_thread = write_lines();
    const long other_thread = other.get();
    const std::string log = support::raw_log();
    std::size_t size = 0;
    for (const long thread : {own_thread, other_thread})
        for (int i = 0; i < kLines; ++i) {
            const std::string line = "[10:23:45.45000][" + std::to_string(getpid()) + "](" +
                                     std::to_string(thread) + ")[INFO]" + text(i);
            EXPECT_NE(log.find(line), std::string::npos) << line;
            size += line.size() + 1;
        }
    EXPECT_EQ(log.size(), size);
}

// The settings

namespace {

struct settings_case {
    const char* name;
    std::string settings;
    int lowest;
};

} // namespace

class settings_file : public logger_test, public testing::WithParamInterface<settings_case> {};

TEST_P(settings_file, fixes_the_lowest_level_that_is_written)
{
    open_log_with(GetParam().settings);
    EXPECT_EQ(lowest_enabled_level(), GetParam().lowest);
    EXPECT_EQ(logConfigure::instance_.is_verbose(), GetParam().lowest <= 0);
}

INSTANTIATE_TEST_SUITE_P(
    logger_test, settings_file,
    testing::Values(
        settings_case{"trace", "loglevel=0\n", 0}, settings_case{"info", "loglevel=1\n", 1},
        settings_case{"warning", "loglevel=2\n", 2}, settings_case{"error", "loglevel=3\n", 3},
        settings_case{"fatal", "loglevel=4\n", 4}, settings_case{"none_at_5", "loglevel=5\n", 5},
        settings_case{"mixed_case_and_blanks", "  LogLevel \t=\t 0  \n", 0},
        settings_case{"other_white_space", "\v\floglevel\r=\v2\f\n", 2},
        settings_case{"first_of_two_lines_wins", "loglevel=3\nloglevel=0\n", 3},
        settings_case{"first_wins_whatever_its_case", "LOGLEVEL=3\nloglevel=0\n", 3},
        settings_case{"empty_value_alone", "loglevel=\n", kNothing},
        settings_case{"blank_value_alone", "loglevel= \t \n", kNothing},
        settings_case{"empty_value_is_skipped", "loglevel=\nloglevel=2\n", 2},
        settings_case{"digits_then_letters", "loglevel=2abc\n", 2},
        settings_case{"letters", "loglevel=abc\n", 0},
        settings_case{"letters_then_digits", "loglevel=a2\n", 0},
        settings_case{"plus_sign", "loglevel=+3\n", 3}, settings_case{"negative", "loglevel=-1\n", -1},
        settings_case{"base_10_with_leading_zero", "loglevel=02\n", 2},
        settings_case{"not_hexadecimal", "loglevel=0x3\n", 0},
        settings_case{"later_equals_sign_is_value", "loglevel=2=0\n", 2},
        settings_case{"value_beginning_with_equals", "loglevel==2\n", 0},
        settings_case{"carriage_returns", "loglevel=2\r\n", 2},
        settings_case{"carriage_return_is_no_line_end", "other=1\rloglevel=2\n", kNothing},
        settings_case{"no_newline_at_the_end", "loglevel=2", 2}, settings_case{"empty_file", "", kNothing},
        settings_case{"no_such_key", "level=0\nlog=0\n", kNothing},
        settings_case{"key_with_a_blank_inside", "log level=0\n", kNothing},
        settings_case{"key_without_equals_sign", "loglevel\n", kNothing},
        settings_case{"key_without_equals_sign_is_skipped", "loglevel 0\nloglevel=2\n", 2},
        settings_case{"empty_key", "=0\n", kNothing},
        settings_case{"section_line_is_skipped", "[log]\nloglevel=2\n", 2},
        settings_case{"hash_is_part_of_the_key", "#loglevel=0\n", kNothing},
        settings_case{"semicolon_is_part_of_the_key", ";loglevel=0\nloglevel=2\n", 2},
        settings_case{"other_keys_are_ignored", "verbose=1\nLOG=0\nloglevel=2\nlast=0\n", 2},
        settings_case{"too_large_for_any_integer", "loglevel=99999999999999999999999\n", kNothing},
        settings_case{"too_small_for_any_integer", "loglevel=-99999999999999999999999\n", -2}),
    [](const auto& test) { return test.param.name; });

TEST_F(logger_test, directory_without_a_settings_file_means_info)
{
    support::open_log();
    EXPECT_EQ(lowest_enabled_level(), 1);
    EXPECT_FALSE(logConfigure::instance_.is_verbose());
}

TEST_F(logger_test, missing_directory_is_silent_and_stays_missing)
{
    support::close_log();
    EXPECT_EQ(lowest_enabled_level(), kNothing);
    testing::internal::CaptureStderr();
    Logger("main", 1, ESeveryLevel::fatal)("text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(fs::exists(support::kLogDirectory));
}

TEST_F(logger_test, file_in_place_of_the_directory_disables_every_level)
{
    support::close_log();
    std::ofstream(support::kLogDirectory) << "no directory\n";
    read_settings_anew();
    EXPECT_EQ(lowest_enabled_level(), kNothing);
    fs::remove(support::kLogDirectory);
}

TEST_F(logger_test, settings_path_without_a_slash_and_without_a_file_disables_every_level)
{
    logConfigure settings;
    settings.set_config_file("no-such-file.ini");
    EXPECT_FALSE(settings.is_enabled(ESeveryLevel::fatal));
}

TEST_F(logger_test, record_made_before_the_settings_are_read_is_dropped)
{
    logConfigure::instance_ = logConfigure();
    EXPECT_EQ(lowest_enabled_level(), kNothing);
    Logger("main", 1, ESeveryLevel::fatal)("early");
    init_log(nullptr, "tvkintif", "setting.ini");
    EXPECT_EQ(support::raw_log(), "");
}

TEST_F(logger_test, absent_level_is_looked_up_again)
{
    logConfigure settings;
    ASSERT_FALSE(settings.is_enabled(kInfo));
    settings.set_config_file(support::kSettingsFile);
    EXPECT_TRUE(settings.is_enabled(kInfo));
}

TEST_F(logger_test, level_is_never_computed_again_once_known)
{
    logConfigure settings;
    settings.set_config_file(support::kSettingsFile); // level INFO
    std::ofstream(support::kLogDirectory + "/other.ini") << "loglevel=0\n";
    settings.set_config_file(support::kLogDirectory + "/other.ini");
    EXPECT_FALSE(settings.is_enabled(ESeveryLevel::trace));
    EXPECT_FALSE(settings.is_verbose());
}

TEST_F(logger_test, level_survives_settings_that_have_none)
{
    logConfigure settings;
    settings.set_config_file(support::kSettingsFile);
    settings.set_config_file("/nowhere/setting.ini");
    EXPECT_TRUE(settings.is_enabled(kInfo));
}

TEST_F(logger_test, second_locale_call_is_given_what_the_first_one_returned_and_there_is_no_third)
{
    static std::array<char, 8> answer = {"anybody"};
    for (char* const first_answer : {answer.data(), static_cast<char*>(nullptr)}) {
        log_calls::reset();
        log_calls::set_locale_answer(first_answer);
        read_settings_anew();
        lowest_enabled_level();
        const auto& calls = log_calls::locale_calls();
        ASSERT_EQ(calls.size(), 2U);
        EXPECT_EQ(calls[0].category, LC_NUMERIC);
        EXPECT_STREQ(calls[0].locale, "en-US");
        EXPECT_EQ(calls[1].category, LC_NUMERIC);
        EXPECT_EQ(calls[1].locale, first_answer);
    }
}

// The name of the file

TEST_F(logger_test, file_is_named_after_the_program_file_and_the_date)
{
    const std::string program = fs::read_symlink("/proc/self/exe").filename().string();
    EXPECT_EQ(logConfigure::instance_.output_logfile(),
              support::kLogDirectory + "/" + program + "_20261115.log");
}

struct link_case {
    const char* name;
    std::optional<std::string> link;
    std::string base_name;
};

class program_link : public logger_test, public testing::WithParamInterface<link_case> {};

TEST_P(program_link, gives_the_stem_of_the_log_file)
{
    log_calls::set_link(GetParam().link);
    read_settings_anew();
    EXPECT_EQ(logConfigure::instance_.output_logfile(),
              support::kLogDirectory + "/" + GetParam().base_name + "_20261115.log");
}

INSTANTIATE_TEST_SUITE_P(
    logger_test, program_link,
    testing::Values(link_case{"plain", "/usr/bin/prog", "prog"},
                    link_case{"cut_at_the_last_dot", "/usr/bin/prog.old.bin", "prog.old"},
                    link_case{"dot_in_a_directory", "/usr/v1.2/prog", "prog"},
                    link_case{"nothing_before_the_dot", "/usr/bin/.prog", ""},
                    link_case{"no_slash", "prog", "prog"}, link_case{"empty", "", ""},
                    link_case{"unreadable", std::nullopt, ""},
                    link_case{"of_259_bytes", "/" + std::string(256, 'd') + "/p", "p"},
                    link_case{"of_260_bytes", "/" + std::string(256, 'd') + "/pq", "p"},
                    link_case{"of_1000_bytes", "/" + std::string(256, 'd') + "/p" + std::string(741, 'q'),
                              "p"}),
    [](const auto& test) { return test.param.name; });

TEST_F(logger_test, empty_program_name_puts_log_and_settings_into_the_log_root_itself)
{
    std::ofstream(support::kLogRoot + "/setting.ini") << "loglevel=3\n";
    read_settings_anew("");
    fs::remove(support::kLogRoot + "/setting.ini");
    EXPECT_EQ(lowest_enabled_level(), 3);
    EXPECT_EQ(logConfigure::instance_.output_logfile(), support::kLogRoot + "/unit_logger_20261115.log");
}

struct path_case {
    std::size_t length; ///< of the whole path, uncut
    std::size_t cut;    ///< bytes that are missing at its end
};

class log_path : public logger_test, public testing::WithParamInterface<path_case> {};

TEST_P(log_path, is_cut_at_259_bytes)
{
    const std::string end = "/unit_logger_20261115.log";
    const std::string name(GetParam().length - end.size() - std::strlen("/tmp/velnor/"), 'n');
    const std::string whole = "/tmp/velnor/" + name + end;
    read_settings_anew(name);
    EXPECT_EQ(logConfigure::instance_.output_logfile(), whole.substr(0, whole.size() - GetParam().cut));
}

INSTANTIATE_TEST_SUITE_P(logger_test, log_path,
                         testing::Values(path_case{258, 0}, path_case{259, 0}, path_case{260, 1},
                                         path_case{300, 41}),
                         [](const auto& test) { return "of_" + std::to_string(test.param.length); });
