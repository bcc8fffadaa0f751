#include "tvkctl/src/log/log_switch.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "support/files.h"
#include "support/temporary_folder.h"
#include "tvkctl/src/machine/tool_error.h"

namespace {

namespace fs = std::filesystem;
using tarvik::tvkctl::account;
using tarvik::tvkctl::log_change;
using tarvik::tvkctl::log_level;
using tarvik::tvkctl::log_place;
using tarvik::tvkctl::log_state;
using tarvik::tvkctl::look_at_log;
using tarvik::tvkctl::tool_error;
using tarvik::tvkctl::turn_log_off;
using tarvik::tvkctl::turn_log_on;
using tarvik::tvkctl::why_not_logged;

constexpr std::time_t kNow = 1794736800; // 15 November 2026 in Greenwich
constexpr uid_t kSomebody = 54321;
constexpr uid_t kSomebodyElse = 54322;

mode_t mode_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777U;
}

uid_t owner_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status.st_uid;
}

/// Has every file of this process take no byte for a while, as on a full disk.
class no_room_in_files {
public:
    no_room_in_files() : m_signal(signal(SIGXFSZ, SIG_IGN))
    {
        getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit none = m_before;
        none.rlim_cur = 0;
        setrlimit(RLIMIT_FSIZE, &none);
    }
    no_room_in_files(const no_room_in_files&) = delete;
    no_room_in_files& operator=(const no_room_in_files&) = delete;
    ~no_room_in_files()
    {
        setrlimit(RLIMIT_FSIZE, &m_before);
        signal(SIGXFSZ, m_signal);
    }

private:
    void (*m_signal)(int);
    rlimit m_before = {};
};

class log_switch_test : public testing::Test {
protected:
    log_switch_test() { place.root = folder / "velnor"; }

    void with_directory(mode_t mode = 0755)
    {
        fs::create_directories(place.directory());
        ASSERT_EQ(chmod(place.directory().c_str(), mode), 0);
    }
    void with_settings(const std::string& text)
    {
        with_directory();
        folder.append("velnor/tvkintif/setting.ini", text);
    }
    void with_log(const std::string& name) { folder.append("velnor/tvkintif/" + name, "line\n"); }

    log_state state() const { return look_at_log(place, kNow); }
    log_change turn_on(std::optional<log_level> least = {}, const std::optional<account>& owner = {})
    {
        return turn_log_on(place, least, owner);
    }
    std::string settings() const { return support::read_file(place.settings()); }

    /// The refusal that `action` ends in.
    template <typename Action>
    static std::string refusal_of(Action action)
    {
        try {
            action();
        } catch (const tool_error& error) {
            EXPECT_EQ(error.why().word, tarvik::tvkctl::kLogRefused.word);
            EXPECT_FALSE(error.next().empty());
            return error.what();
        }
        return "none";
    }

    temporary_folder folder;
    log_place place;
};

TEST_F(log_switch_test, without_directory_logging_is_off)
{
    EXPECT_EQ(state().why, log_state::reason::no_directory);
    EXPECT_EQ(why_not_logged(state(), place), place.directory() + " does not exist");
}

TEST_F(log_switch_test, a_file_in_its_place_is_not_a_directory)
{
    fs::create_directory(place.root);
    folder.append("velnor/tvkintif", "");
    EXPECT_EQ(state().why, log_state::reason::not_directory);
    EXPECT_EQ(why_not_logged(state(), place), place.directory() + " is not a directory");
}

TEST_F(log_switch_test, a_directory_alone_means_info)
{
    with_directory();
    EXPECT_TRUE(state().reaches_file());
    EXPECT_EQ(state().least, log_level::info);
    EXPECT_FALSE(state().has_settings);
}

TEST_F(log_switch_test, the_settings_file_names_the_level)
{
    with_settings(" LogLevel = 3 \nloglevel=0\n");
    EXPECT_EQ(state().least, log_level::error);
    EXPECT_TRUE(state().has_settings);
}

TEST_F(log_switch_test, a_level_below_trace_is_trace)
{
    with_settings("loglevel=-7\n");
    EXPECT_EQ(state().least, log_level::trace);
}

TEST_F(log_switch_test, settings_without_a_level_turn_logging_off)
{
    with_settings("colour=blue\nloglevel=\n");
    EXPECT_EQ(state().why, log_state::reason::no_level);
    EXPECT_EQ(why_not_logged(state(), place), place.settings() + " sets no loglevel");
}

TEST_F(log_switch_test, a_level_above_fatal_turns_logging_off)
{
    with_settings("loglevel=5\n");
    EXPECT_EQ(state().why, log_state::reason::level_too_high);
    EXPECT_EQ(why_not_logged(state(), place), place.settings() + " sets a loglevel above that of FATAL");
}

TEST_F(log_switch_test, todays_file_is_named_by_the_day)
{
    setenv("TZ", "UTC", 1);
    tzset();
    with_directory();
    EXPECT_EQ(state().file, place.directory() + "/tvkintif_20261115.log");
    EXPECT_FALSE(state().has_file);
    with_log("tvkintif_20261115.log");
    EXPECT_TRUE(state().has_file);
}

TEST_F(log_switch_test, on_makes_directories_that_only_their_owner_writes_whatever_the_umask)
{
    const mode_t before = umask(0);
    const log_change done = turn_on();
    umask(before);
    EXPECT_EQ(done, (log_change{"made " + place.root, "made " + place.directory()}));
    EXPECT_EQ(mode_of(place.root), 0755U);
    EXPECT_EQ(mode_of(place.directory()), 0755U);
    EXPECT_EQ(state().least, log_level::info);
}

TEST_F(log_switch_test, on_opens_the_directories_to_readers_whatever_the_umask)
{
    const mode_t before = umask(0077);
    turn_on(log_level::trace);
    umask(before);
    EXPECT_EQ(mode_of(place.directory()), 0755U);
    EXPECT_EQ(mode_of(place.settings()), 0644U);
}

TEST_F(log_switch_test, on_sets_the_level_that_is_asked_for)
{
    turn_on(log_level::trace);
    EXPECT_EQ(settings(), "loglevel = 0\n");
    EXPECT_EQ(state().least, log_level::trace);
}

TEST_F(log_switch_test, on_without_level_leaves_a_level_that_logs)
{
    with_settings("loglevel=3\n");
    EXPECT_EQ(turn_on(), log_change{});
    EXPECT_EQ(settings(), "loglevel=3\n");
}

TEST_F(log_switch_test, on_without_level_replaces_settings_that_silence)
{
    with_settings("loglevel=5\n");
    turn_on();
    EXPECT_EQ(state().least, log_level::info);
}

TEST_F(log_switch_test, on_keeps_the_other_settings)
{
    with_settings("colour = blue\nLOGLEVEL=4\n[part]\nloglevel=2");
    turn_on(log_level::warning);
    EXPECT_EQ(settings(), "loglevel = 2\ncolour = blue\n[part]\n");
}

TEST_F(log_switch_test, on_takes_the_right_to_write_from_others)
{
    with_directory(0777);
    EXPECT_EQ(turn_on(), log_change{"made " + place.directory() + " writable for its owner alone"});
    EXPECT_EQ(mode_of(place.directory()), 0755U);
}

TEST_F(log_switch_test, on_leaves_a_closed_directory_closed)
{
    with_directory(0700);
    turn_on();
    EXPECT_EQ(mode_of(place.directory()), 0700U);
}

TEST_F(log_switch_test, on_refuses_a_root_that_others_may_write)
{
    fs::create_directory(place.root);
    ASSERT_EQ(chmod(place.root.c_str(), 0777), 0);
    EXPECT_EQ(refusal_of([&] { turn_on(); }),
              place.root + " is writable by others, who could replace what is in it");
    EXPECT_FALSE(fs::exists(place.directory()));
}

TEST_F(log_switch_test, on_accepts_a_sticky_root)
{
    fs::create_directory(place.root);
    ASSERT_EQ(chmod(place.root.c_str(), 01777), 0);
    turn_on();
    EXPECT_TRUE(state().reaches_file());
}

TEST_F(log_switch_test, on_refuses_a_symbolic_link_as_root)
{
    fs::create_directory(folder / "elsewhere");
    fs::create_directory_symlink(folder / "elsewhere", place.root);
    EXPECT_EQ(refusal_of([&] { turn_on(); }),
              place.root + " is not a directory but a file or a symbolic link");
    EXPECT_TRUE(fs::is_empty(folder / "elsewhere"));
}

TEST_F(log_switch_test, on_refuses_a_symbolic_link_as_directory)
{
    fs::create_directory(place.root);
    fs::create_directory(folder / "elsewhere");
    fs::create_directory_symlink(folder / "elsewhere", place.directory());
    EXPECT_EQ(refusal_of([&] { turn_on(log_level::trace); }),
              place.directory() + " is not a directory but a file or a symbolic link");
    EXPECT_TRUE(fs::is_empty(folder / "elsewhere"));
}

TEST_F(log_switch_test, on_replaces_a_linked_settings_file_instead_of_writing_through_it)
{
    with_directory();
    folder.append("precious", "mine\n");
    fs::create_symlink(folder / "precious", place.settings());
    fs::create_symlink(folder / "precious", place.settings() + ".new");
    turn_on(log_level::trace);
    EXPECT_EQ(support::read_file(folder / "precious"), "mine\n");
    EXPECT_EQ(settings(), "loglevel = 0\n");
}

TEST_F(log_switch_test, on_refuses_when_the_settings_have_no_room)
{
    with_directory();
    const no_room_in_files here;
    EXPECT_EQ(refusal_of([&] { turn_on(log_level::trace); }),
              place.directory() + " cannot take a settings file: write: File too large");
    EXPECT_FALSE(fs::exists(place.settings()));
}

TEST_F(log_switch_test, on_refuses_a_directory_in_place_of_the_settings)
{
    fs::create_directories(place.settings());
    EXPECT_EQ(refusal_of([&] { turn_on(log_level::trace); }),
              place.directory() + " cannot take a settings file: rename: Is a directory");
}

TEST_F(log_switch_test, off_without_directory_does_nothing)
{
    EXPECT_EQ(turn_log_off(place, false), log_change{});
    EXPECT_FALSE(fs::exists(place.root));
}

TEST_F(log_switch_test, off_removes_an_empty_directory)
{
    with_directory();
    EXPECT_EQ(turn_log_off(place, false), log_change{"removed " + place.directory()});
    EXPECT_EQ(state().why, log_state::reason::no_directory);
}

TEST_F(log_switch_test, off_keeps_the_logs)
{
    with_directory();
    with_log("tvkintif_20261114.log");
    turn_log_off(place, false);
    EXPECT_EQ(state().why, log_state::reason::level_too_high);
    EXPECT_EQ(support::read_file(place.directory() + "/tvkintif_20261114.log"), "line\n");
}

TEST_F(log_switch_test, off_twice_does_nothing_more)
{
    with_settings("loglevel=1\n");
    turn_log_off(place, false);
    EXPECT_EQ(turn_log_off(place, false), log_change{});
}

TEST_F(log_switch_test, purge_removes_logs_settings_and_directory)
{
    with_settings("loglevel=1\n");
    with_log("tvkintif_20261114.log");
    EXPECT_EQ(turn_log_off(place, true), (log_change{"removed 1 log file", "removed " + place.directory()}));
    EXPECT_FALSE(fs::exists(place.directory()));
}

TEST_F(log_switch_test, purge_keeps_files_that_are_not_logs)
{
    with_settings("loglevel=1\n");
    with_log("tvkintif_20261114.log");
    with_log("notes.txt");
    turn_log_off(place, true);
    EXPECT_TRUE(fs::exists(place.directory() + "/notes.txt"));
    EXPECT_FALSE(fs::exists(place.directory() + "/tvkintif_20261114.log"));
    EXPECT_FALSE(state().is_on());
}

/// What only root can arrange.
class log_of_others_test : public log_switch_test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0 || chown(folder.path().c_str(), kSomebody, kSomebody) != 0)
            GTEST_SKIP() << "only root can make files of another user; run the tests as root";
        ASSERT_EQ(chown(folder.path().c_str(), 0, 0), 0);
        ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    }
    void TearDown() override
    {
        if (getuid() == 0) {
            ASSERT_EQ(seteuid(0), 0) << "later tests would run as somebody";
        }
    }

    void give(const std::string& path) { ASSERT_EQ(chown(path.c_str(), kSomebody, kSomebody), 0); }
    static void become_somebody() { ASSERT_EQ(seteuid(kSomebody), 0); }

    const account somebody{kSomebody, std::to_string(kSomebody)};
};

TEST_F(log_switch_test, settings_that_are_no_file_turn_it_off)
{
    with_directory();
    ASSERT_EQ(mkfifo(place.settings().c_str(), 0600), 0);
    EXPECT_EQ(state().why, log_state::reason::distrusted);
    EXPECT_EQ(why_not_logged(state(), place), place.settings() + " is neither a regular file nor a device");
    EXPECT_EQ(remedy_for_distrust(state()),
              "See who put it there (ls -ld " + place.settings() + ") and have root remove it.");
}

TEST_F(log_switch_test, log_that_is_not_a_file_takes_no_lines)
{
    with_directory();
    ASSERT_EQ(mkfifo(state().file.c_str(), 0600), 0);
    EXPECT_TRUE(state().is_on());
    EXPECT_FALSE(state().reaches_file());
    EXPECT_EQ(why_not_logged(state(), place), state().file + " is neither a regular file nor a device");
}

TEST_F(log_switch_test, log_with_other_names_takes_no_lines_where_others_may_write)
{
    with_directory(01777);
    folder.append("velnor/other", "line\n");
    fs::create_hard_link(folder / "velnor/other", state().file);
    EXPECT_FALSE(state().reaches_file());
    EXPECT_EQ(why_not_logged(state(), place),
              state().file + " has other names (hard links), which others may have made");
}

TEST_F(log_switch_test, what_is_trusted_needs_no_remedy)
{
    with_directory();
    EXPECT_EQ(remedy_for_distrust(state()), "");
}

TEST_F(log_of_others_test, both_levels_are_off_when_they_belong_to_another_user)
{
    with_directory();
    for (const std::string& path : {place.root, place.directory()}) {
        give(path);
        EXPECT_EQ(state().why, log_state::reason::distrusted);
        EXPECT_EQ(why_not_logged(state(), place), path + " belongs neither to root nor to this user");
        ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    }
}

TEST_F(log_of_others_test, link_of_another_user_takes_no_lines)
{
    with_directory();
    fs::create_symlink(folder / "target", state().file);
    ASSERT_EQ(lchown(state().file.c_str(), kSomebody, kSomebody), 0);
    EXPECT_FALSE(state().reaches_file());
    EXPECT_EQ(why_not_logged(state(), place),
              state().file + " is a link that belongs neither to root nor to this user");
}

TEST_F(log_of_others_test, on_refuses_a_root_of_another_user)
{
    fs::create_directory(place.root);
    give(place.root);
    EXPECT_EQ(refusal_of([&] { turn_on(); }),
              place.root + " belongs to 54321, who could redirect or rewrite what is logged there");
}

TEST_F(log_of_others_test, on_refuses_a_directory_of_another_user)
{
    with_directory();
    give(place.directory());
    EXPECT_EQ(refusal_of([&] { turn_on(log_level::trace); }),
              place.directory() + " belongs to 54321, who could redirect or rewrite what is logged there");
    EXPECT_FALSE(fs::exists(place.settings()));
}

TEST_F(log_of_others_test, a_directory_of_root_is_not_written_for_others)
{
    with_directory();
    become_somebody();
    EXPECT_TRUE(state().is_on());
    EXPECT_FALSE(state().reaches_file());
    EXPECT_EQ(why_not_logged(state(), place), place.directory() + " is not writable by 54321");
}

TEST_F(log_of_others_test, todays_file_of_root_is_not_written_for_others)
{
    with_directory();
    with_log("tvkintif_20261115.log");
    give(place.directory());
    become_somebody();
    EXPECT_EQ(why_not_logged(state(), place),
              place.directory() + "/tvkintif_20261115.log is not writable by 54321");
}

TEST_F(log_of_others_test, on_for_a_user_hands_directory_logs_and_settings_over)
{
    with_directory();
    with_log("tvkintif_20261115.log");
    turn_on(log_level::trace, somebody);
    EXPECT_EQ(owner_of(place.directory()), kSomebody);
    EXPECT_EQ(owner_of(place.directory() + "/tvkintif_20261115.log"), kSomebody);
    EXPECT_EQ(owner_of(place.settings()), kSomebody);
    become_somebody();
    EXPECT_TRUE(state().reaches_file());
}

TEST_F(log_of_others_test, on_for_a_user_gives_no_file_away_that_is_linked_elsewhere)
{
    with_directory();
    folder.append("precious", "mine\n");
    fs::create_hard_link(folder / "precious", place.directory() + "/tvkintif_20261115.log");
    turn_on({}, somebody);
    EXPECT_EQ(owner_of(folder / "precious"), 0U);
}

TEST_F(log_of_others_test, a_user_who_may_not_make_the_directory_is_told_who_can)
{
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_on(); }), place.root + " cannot be created: Permission denied");
}

TEST_F(log_of_others_test, a_user_cannot_set_the_level_of_root)
{
    with_directory();
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_on(log_level::trace); }),
              place.directory() + " cannot take a settings file: create: Permission denied");
}

TEST_F(log_of_others_test, a_root_that_is_closed_to_a_user_is_reported)
{
    fs::create_directory(place.root);
    ASSERT_EQ(chmod(place.root.c_str(), 0700), 0);
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_on(); }), place.root + " cannot be opened: Permission denied");
}

TEST_F(log_of_others_test, a_user_cannot_close_a_directory_of_root)
{
    with_directory(0777);
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_on(); }),
              place.directory() +
                  " is writable by others, and that cannot be changed: Operation not permitted");
}

TEST_F(log_of_others_test, a_user_cannot_hand_the_directory_over)
{
    with_directory();
    become_somebody();
    EXPECT_EQ(refusal_of([&] {
                  turn_on({}, account{kSomebodyElse, "else"});
              }),
              place.directory() + " cannot be given to else: Operation not permitted");
}

TEST_F(log_of_others_test, a_user_cannot_hand_the_logs_over)
{
    with_directory();
    with_log("tvkintif_20261115.log");
    ASSERT_EQ(chown(place.directory().c_str(), kSomebodyElse, kSomebodyElse), 0);
    become_somebody();
    EXPECT_EQ(refusal_of([&] {
                  turn_on({}, account{kSomebodyElse, "else"});
              }),
              place.directory() +
                  " keeps tvkintif_20261115.log, which cannot be given to else: Operation not permitted");
}

TEST_F(log_of_others_test, a_user_cannot_remove_the_directory_of_root)
{
    with_directory();
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_log_off(place, false); }),
              place.directory() + " cannot be removed: Permission denied");
}

TEST_F(log_of_others_test, a_user_cannot_purge_files_of_root)
{
    with_directory();
    with_log("tvkintif_20261115.log");
    become_somebody();
    EXPECT_EQ(refusal_of([&] { turn_log_off(place, true); }),
              place.directory() + " keeps tvkintif_20261115.log, which cannot be removed: Permission denied");
}

TEST_F(log_of_others_test, root_turns_off_the_log_of_any_user)
{
    with_directory();
    give(place.directory());
    EXPECT_EQ(turn_log_off(place, false), log_change{"removed " + place.directory()});
}

} // namespace
