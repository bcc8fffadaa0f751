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
constexpr const char* kToday = "tvkintif_20261115.log";
constexpr uid_t kSomebody = 54321;
constexpr uid_t kSomebodyElse = 54322;

struct stat status_of(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

mode_t mode_of(const std::string& path)
{
    return status_of(path).st_mode & 07777U;
}

uid_t owner_of(const std::string& path)
{
    return status_of(path).st_uid;
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
    log_switch_test()
    {
        setenv("TZ", "UTC", 1);
        tzset();
        place.root = folder / "velnor";
    }

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
    void with_log(const std::string& name = kToday) { folder.append("velnor/tvkintif/" + name, "line\n"); }

    log_state state() const { return look_at_log(place, kNow); }
    log_change turn_on(std::optional<log_level> least = {}, const std::optional<account>& owner = {})
    {
        return turn_log_on(place, least, owner);
    }
    std::string settings() const { return support::read_file(place.settings()); }
    std::string log_today() const { return place.directory() + "/" + kToday; }

    /// Why nothing is logged, with the sentence for it.
    void expect_off(log_state::reason why, const std::string& sentence) const
    {
        EXPECT_EQ(state().why, why);
        expect_not_logged(sentence);
    }
    void expect_not_logged(const std::string& sentence) const
    {
        EXPECT_FALSE(state().reaches_file());
        EXPECT_EQ(why_not_logged(state(), place), sentence);
    }
    void expect_on_refused(const std::string& sentence, std::optional<log_level> least = {},
                           const std::optional<account>& owner = {})
    {
        EXPECT_EQ(refusal_of([&] { turn_on(least, owner); }), sentence);
    }
    void expect_off_refused(bool purges, const std::string& sentence)
    {
        EXPECT_EQ(refusal_of([&] { turn_log_off(place, purges); }), sentence);
    }

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

TEST_F(log_switch_test, without_a_directory_logging_is_off)
{
    expect_off(log_state::reason::no_directory, place.directory() + " does not exist");
    fs::create_directory(place.root);
    folder.append("velnor/tvkintif", "");
    expect_off(log_state::reason::not_directory, place.directory() + " is not a directory");
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
    fs::remove(place.settings());
    with_settings("loglevel=-7\n");
    EXPECT_EQ(state().least, log_level::trace);
}

TEST_F(log_switch_test, settings_without_a_level_or_with_one_above_fatal_turn_logging_off)
{
    with_settings("colour=blue\nloglevel=\n");
    expect_off(log_state::reason::no_level, place.settings() + " sets no loglevel");
    fs::remove(place.settings());
    with_settings("loglevel=5\n");
    expect_off(log_state::reason::level_too_high, place.settings() + " sets a loglevel above that of FATAL");
}

TEST_F(log_switch_test, todays_file_is_named_by_the_day)
{
    with_directory();
    EXPECT_EQ(state().file, log_today());
    EXPECT_FALSE(state().has_file);
    with_log();
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

TEST_F(log_switch_test, on_sets_the_level_that_is_asked_for_and_keeps_the_other_settings)
{
    with_settings("colour = blue\nLOGLEVEL=4\n[part]\nloglevel=2");
    turn_on(log_level::warning);
    EXPECT_EQ(settings(), "loglevel = 2\ncolour = blue\n[part]\n");
    EXPECT_EQ(state().least, log_level::warning);
}

TEST_F(log_switch_test, on_without_level_leaves_a_level_that_logs_and_replaces_one_that_silences)
{
    with_settings("loglevel=3\n");
    EXPECT_EQ(turn_on(), log_change{});
    EXPECT_EQ(settings(), "loglevel=3\n");
    fs::remove(place.settings());
    with_settings("loglevel=5\n");
    turn_on();
    EXPECT_EQ(state().least, log_level::info);
}

TEST_F(log_switch_test, on_takes_the_right_to_write_from_others_and_leaves_a_closed_directory_closed)
{
    with_directory(0777);
    EXPECT_EQ(turn_on(), log_change{"made " + place.directory() + " writable for its owner alone"});
    EXPECT_EQ(mode_of(place.directory()), 0755U);
    with_directory(0700);
    turn_on();
    EXPECT_EQ(mode_of(place.directory()), 0700U);
}

TEST_F(log_switch_test, on_refuses_a_root_that_others_may_write_unless_it_is_sticky)
{
    fs::create_directory(place.root);
    ASSERT_EQ(chmod(place.root.c_str(), 0777), 0);
    expect_on_refused(place.root + " is writable by others, who could replace what is in it");
    EXPECT_FALSE(fs::exists(place.directory()));
    ASSERT_EQ(chmod(place.root.c_str(), 01777), 0);
    turn_on();
    EXPECT_TRUE(state().reaches_file());
}

TEST_F(log_switch_test, on_refuses_a_symbolic_link_at_either_level)
{
    fs::create_directory(folder / "elsewhere");
    for (const std::string& link : {place.root, place.directory()}) {
        fs::create_directory_symlink(folder / "elsewhere", link);
        expect_on_refused(link + " is not a directory but a file or a symbolic link", log_level::trace);
        EXPECT_TRUE(fs::is_empty(folder / "elsewhere"));
        fs::remove(link);
        fs::create_directory(place.root);
    }
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

TEST_F(log_switch_test, on_refuses_when_the_settings_cannot_be_written)
{
    with_directory();
    {
        const no_room_in_files here;
        expect_on_refused(place.directory() + " cannot take a settings file: write: File too large",
                          log_level::trace);
    }
    EXPECT_FALSE(fs::exists(place.settings()));
    fs::create_directories(place.settings());
    expect_on_refused(place.directory() + " cannot take a settings file: rename: Is a directory",
                      log_level::trace);
}

TEST_F(log_switch_test, off_removes_an_empty_directory_and_makes_none)
{
    EXPECT_EQ(turn_log_off(place, false), log_change{});
    EXPECT_FALSE(fs::exists(place.root));
    with_directory();
    EXPECT_EQ(turn_log_off(place, false), log_change{"removed " + place.directory()});
    EXPECT_EQ(state().why, log_state::reason::no_directory);
}

TEST_F(log_switch_test, off_keeps_the_logs_and_twice_does_nothing_more)
{
    with_directory();
    with_log();
    turn_log_off(place, false);
    EXPECT_EQ(state().why, log_state::reason::level_too_high);
    EXPECT_EQ(support::read_file(log_today()), "line\n");
    EXPECT_EQ(turn_log_off(place, false), log_change{});
}

TEST_F(log_switch_test, purge_removes_logs_settings_and_directory)
{
    with_settings("loglevel=1\n");
    with_log();
    EXPECT_EQ(turn_log_off(place, true), (log_change{"removed 1 log file", "removed " + place.directory()}));
    EXPECT_FALSE(fs::exists(place.directory()));
}

TEST_F(log_switch_test, purge_keeps_files_that_are_not_logs)
{
    with_settings("loglevel=1\n");
    with_log();
    with_log("notes.txt");
    turn_log_off(place, true);
    EXPECT_TRUE(fs::exists(place.directory() + "/notes.txt"));
    EXPECT_FALSE(fs::exists(log_today()));
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
        if (getuid() == 0)
            become_root();
    }

    void give(const std::string& path) { ASSERT_EQ(chown(path.c_str(), kSomebody, kSomebody), 0); }
    static void become_somebody() { ASSERT_EQ(seteuid(kSomebody), 0); }
    static void become_root() { ASSERT_EQ(seteuid(0), 0) << "later tests would run as somebody"; }

    const account somebody{kSomebody, std::to_string(kSomebody)};
    const account somebody_else{kSomebodyElse, "else"};
};

TEST_F(log_switch_test, settings_that_are_no_file_turn_it_off)
{
    with_directory();
    EXPECT_EQ(remedy_for_distrust(state()), "");
    ASSERT_EQ(mkfifo(place.settings().c_str(), 0600), 0);
    expect_off(log_state::reason::distrusted, place.settings() + " is neither a regular file nor a device");
    EXPECT_EQ(remedy_for_distrust(state()),
              "See who put it there (ls -ld " + place.settings() + ") and have root remove it.");
}

TEST_F(log_switch_test, log_that_is_not_a_file_takes_no_lines)
{
    with_directory();
    ASSERT_EQ(mkfifo(log_today().c_str(), 0600), 0);
    EXPECT_TRUE(state().is_on());
    expect_not_logged(log_today() + " is neither a regular file nor a device");
}

TEST_F(log_switch_test, log_with_other_names_takes_no_lines_where_others_may_write)
{
    with_directory(01777);
    folder.append("velnor/other", "line\n");
    fs::create_hard_link(folder / "velnor/other", log_today());
    expect_not_logged(log_today() + " has other names (hard links), which others may have made");
}

TEST_F(log_of_others_test, both_levels_are_off_when_they_belong_to_another_user_and_on_refuses_them)
{
    with_directory();
    for (const std::string& path : {place.root, place.directory()}) {
        give(path);
        expect_off(log_state::reason::distrusted, path + " belongs neither to root nor to this user");
        expect_on_refused(path + " belongs to 54321, who could redirect or rewrite what is logged there",
                          log_level::trace);
        ASSERT_EQ(chown(path.c_str(), 0, 0), 0);
    }
    EXPECT_FALSE(fs::exists(place.settings()));
}

TEST_F(log_of_others_test, link_of_another_user_takes_no_lines)
{
    with_directory();
    fs::create_symlink(folder / "target", log_today());
    ASSERT_EQ(lchown(log_today().c_str(), kSomebody, kSomebody), 0);
    expect_not_logged(log_today() + " is a link that belongs neither to root nor to this user");
}

TEST_F(log_of_others_test, a_directory_of_root_is_not_written_for_others)
{
    with_directory();
    become_somebody();
    EXPECT_TRUE(state().is_on());
    expect_not_logged(place.directory() + " is not writable by 54321");
}

TEST_F(log_of_others_test, todays_file_of_root_is_not_written_for_others)
{
    with_directory();
    with_log();
    give(place.directory());
    become_somebody();
    expect_not_logged(log_today() + " is not writable by 54321");
}

TEST_F(log_of_others_test, on_for_a_user_hands_directory_logs_and_settings_over)
{
    with_directory();
    with_log();
    turn_on(log_level::trace, somebody);
    for (const std::string& path : {place.directory(), log_today(), place.settings()})
        EXPECT_EQ(owner_of(path), kSomebody) << path;
    become_somebody();
    EXPECT_TRUE(state().reaches_file());
}

TEST_F(log_of_others_test, on_for_a_user_gives_no_file_away_that_is_linked_elsewhere)
{
    with_directory();
    folder.append("precious", "mine\n");
    fs::create_hard_link(folder / "precious", log_today());
    turn_on({}, somebody);
    EXPECT_EQ(owner_of(folder / "precious"), 0U);
}

TEST_F(log_of_others_test, a_user_who_may_not_make_or_open_the_root_is_told)
{
    become_somebody();
    expect_on_refused(place.root + " cannot be created: Permission denied");
    become_root();
    fs::create_directory(place.root);
    ASSERT_EQ(chmod(place.root.c_str(), 0700), 0);
    become_somebody();
    expect_on_refused(place.root + " cannot be opened: Permission denied");
}

TEST_F(log_of_others_test, a_user_can_neither_set_nor_hand_over_nor_remove_what_belongs_to_root)
{
    with_directory();
    become_somebody();
    expect_on_refused(place.directory() + " cannot take a settings file: create: Permission denied",
                      log_level::trace);
    expect_on_refused(place.directory() + " cannot be given to else: Operation not permitted", {},
                      somebody_else);
    expect_off_refused(false, place.directory() + " cannot be removed: Permission denied");
}

TEST_F(log_of_others_test, a_user_cannot_close_a_directory_of_root)
{
    with_directory(0777);
    become_somebody();
    expect_on_refused(place.directory() +
                      " is writable by others, and that cannot be changed: Operation not permitted");
}

TEST_F(log_of_others_test, a_user_can_neither_purge_nor_hand_over_the_logs_of_root)
{
    const std::string keeps = place.directory() + " keeps " + kToday + ", which cannot be ";
    with_directory();
    with_log();
    become_somebody();
    expect_off_refused(true, keeps + "removed: Permission denied");
    become_root();
    ASSERT_EQ(chown(place.directory().c_str(), kSomebodyElse, kSomebodyElse), 0);
    become_somebody();
    expect_on_refused(keeps + "given to else: Operation not permitted", {}, somebody_else);
}

TEST_F(log_of_others_test, root_turns_off_the_log_of_any_user)
{
    with_directory();
    give(place.directory());
    EXPECT_EQ(turn_log_off(place, false), log_change{"removed " + place.directory()});
}

} // namespace
