#include "common/log/trusted_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/temporary_folder.h"

using vl::common::log::EDistrust;
using vl::common::log::judge_directory;
using vl::common::log::TrustedFile;

namespace fs = std::filesystem;

namespace {

constexpr uid_t kStranger = 12345;
constexpr uid_t kOwnUser = 23456;
constexpr int kToAppend = O_WRONLY | O_APPEND | O_CREAT;

class trusted_file_test : public testing::Test {
protected:
    std::string path(const std::string& name) const { return m_folder.path() + "/" + name; }

    std::string new_file(const std::string& name) const
    {
        std::ofstream(path(name)) << "text";
        return path(name);
    }

    EDistrust judge(const std::string& file, int flags = kToAppend) const
    {
        return TrustedFile(file.c_str(), flags).reason();
    }

private:
    temporary_folder m_folder;
};

/// Whoever makes files of strangers has to be root.
class strange_file : public trusted_file_test {
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can make files that belong to somebody else";
    }
    void TearDown() override { ASSERT_EQ(seteuid(0), 0) << "this user cannot become root again"; }

    /// From now on files of root are not this process's own.
    void become_own_user() const
    {
        ASSERT_EQ(chown(path("").c_str(), kOwnUser, kOwnUser), 0);
        ASSERT_EQ(seteuid(kOwnUser), 0);
    }

    static void give_away(const std::string& file)
    {
        ASSERT_EQ(lchown(file.c_str(), kStranger, kStranger), 0);
    }
};

} // namespace

TEST_F(trusted_file_test, own_file_is_opened)
{
    const TrustedFile file(new_file("log").c_str(), O_RDONLY);
    EXPECT_TRUE(file);
    EXPECT_GE(file.descriptor(), 0);
    EXPECT_EQ(file.reason(), EDistrust::none);
}

TEST_F(trusted_file_test, file_that_is_not_there_is_made)
{
    EXPECT_EQ(judge(path("log")), EDistrust::none);
    EXPECT_TRUE(fs::exists(path("log")));
}

TEST_F(trusted_file_test, file_that_is_not_to_be_made_is_absent)
{
    const TrustedFile file(path("log").c_str(), O_RDONLY);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(file);
    EXPECT_EQ(file.descriptor(), -1);
    EXPECT_EQ(file.reason(), EDistrust::absent);
}

TEST_F(trusted_file_test, descriptor_is_closed_by_exec_and_by_the_end)
{
    int descriptor = -1;
    {
        const TrustedFile file(new_file("log").c_str(), O_RDONLY);
        descriptor = file.descriptor();
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(trusted_file_test, descriptor_0_is_as_good_as_any)
{
    new_file("log");
    fs::create_symlink("log", path("link"));
    const int before = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    for (const char* name : {"log", "link"}) {
        {
            const TrustedFile file(path(name).c_str(), O_RDONLY);
            EXPECT_TRUE(file) << name;
            EXPECT_EQ(file.descriptor(), STDIN_FILENO) << name;
        }
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << name;
    }
    dup2(before, STDIN_FILENO);
    close(before);
}

TEST_F(trusted_file_test, refused_file_is_not_kept_open)
{
    const int next = dup(STDERR_FILENO);
    close(next);
    EXPECT_EQ(judge(path(""), O_RDONLY), EDistrust::wrong_kind);
    EXPECT_EQ(fcntl(next, F_GETFD), -1);
}

TEST_F(trusted_file_test, device_is_opened)
{
    if (judge_directory("/dev") != EDistrust::none)
        GTEST_SKIP() << "root's devices are not root's in this user namespace";
    EXPECT_EQ(judge("/dev/null"), EDistrust::none);
}

TEST_F(trusted_file_test, fifo_is_refused_at_once)
{
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    fs::create_symlink("fifo", path("log"));
    for (const char* name : {"fifo", "log"}) {
        EXPECT_EQ(judge(path(name)), EDistrust::wrong_kind) << name;
        EXPECT_EQ(judge(path(name), O_RDONLY), EDistrust::wrong_kind) << name;
    }
    const int reader = open(path("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(judge(path("fifo")), EDistrust::wrong_kind);
    close(reader);
}

TEST_F(trusted_file_test, socket_is_refused)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path("log").copy(address.sun_path, sizeof address.sun_path - 1);
    const int listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(bind(listening, reinterpret_cast<sockaddr*>(&address), sizeof address),
              0); // as sockets want it
    EXPECT_EQ(judge(path("log")), EDistrust::wrong_kind);
    close(listening);
}

TEST_F(trusted_file_test, directory_is_refused)
{
    EXPECT_EQ(judge(path(""), O_RDONLY), EDistrust::wrong_kind);
}

TEST_F(trusted_file_test, own_links_are_followed_one_after_the_other)
{
    fs::create_directory(path("folder"));
    new_file("folder/target");
    fs::create_symlink("target", path("folder/second"));
    fs::create_symlink(path("folder/second"), path("log"));
    const TrustedFile file(path("log").c_str(), O_WRONLY | O_TRUNC);
    ASSERT_TRUE(file);
    EXPECT_EQ(fs::file_size(path("folder/target")), 0U);
}

TEST_F(trusted_file_test, file_that_a_link_leads_to_is_made)
{
    fs::create_symlink("target", path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::none);
    EXPECT_TRUE(fs::is_regular_file(path("target")));
}

TEST_F(trusted_file_test, relative_path_is_opened_and_its_links_are_followed)
{
    const fs::path before = fs::current_path();
    fs::current_path(path(""));
    new_file("target");
    fs::create_symlink("target", path("log"));
    const EDistrust outcome = judge("log", O_RDONLY);
    fs::current_path(before);
    EXPECT_EQ(outcome, EDistrust::none);
}

TEST_F(trusted_file_test, eight_links_are_followed_and_no_more)
{
    new_file("0");
    for (int i = 1; i <= 9; ++i)
        fs::create_symlink(std::to_string(i - 1), path(std::to_string(i)));
    EXPECT_EQ(judge(path("8")), EDistrust::none);
    EXPECT_EQ(judge(path("9")), EDistrust::absent);
}

TEST_F(trusted_file_test, link_without_end_is_absent)
{
    fs::create_symlink("log", path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::absent);
}

TEST_F(trusted_file_test, own_file_with_several_names_is_opened_in_a_directory_that_is_the_owns_alone)
{
    fs::create_hard_link(new_file("other"), path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::none);
}

TEST_F(trusted_file_test, own_file_with_several_names_is_refused_where_others_may_write)
{
    fs::create_hard_link(new_file("other"), path("log"));
    for (const mode_t mode : {0702U, 0720U, 01777U}) {
        ASSERT_EQ(chmod(path("").c_str(), mode), 0);
        EXPECT_EQ(judge(path("log")), EDistrust::several_names) << std::oct << mode;
    }
}

TEST_F(strange_file, is_refused)
{
    give_away(new_file("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::foreign_owner);
}

TEST_F(strange_file, is_refused_behind_an_own_link)
{
    give_away(new_file("target"));
    fs::create_symlink("target", path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::foreign_owner);
}

TEST_F(strange_file, link_of_a_stranger_is_refused_and_nothing_is_made)
{
    fs::create_symlink("target", path("log"));
    give_away(path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::foreign_link);
    EXPECT_FALSE(fs::exists(path("target")));
}

TEST_F(strange_file, link_of_a_stranger_behind_an_own_one_is_refused)
{
    new_file("target");
    fs::create_symlink("target", path("second"));
    give_away(path("second"));
    fs::create_symlink("second", path("log"));
    EXPECT_EQ(judge(path("log")), EDistrust::foreign_link);
}

TEST_F(strange_file, file_of_root_is_opened_by_everybody)
{
    ASSERT_EQ(chmod(new_file("log").c_str(), 0666), 0);
    become_own_user();
    EXPECT_EQ(judge(path("log")), EDistrust::none);
}

TEST_F(strange_file, file_of_root_with_several_names_is_refused)
{
    ASSERT_EQ(chmod(new_file("other").c_str(), 0666), 0);
    fs::create_hard_link(path("other"), path("log"));
    become_own_user();
    EXPECT_EQ(judge(path("log")), EDistrust::several_names);
}

TEST_F(strange_file, directory_is_judged_by_its_owner)
{
    fs::create_directory(path("folder"));
    EXPECT_EQ(judge_directory(path("folder")), EDistrust::none);
    give_away(path("folder"));
    EXPECT_EQ(judge_directory(path("folder")), EDistrust::foreign_owner);
}

TEST_F(strange_file, directory_behind_a_link_is_judged_by_both_owners)
{
    fs::create_directory(path("folder"));
    fs::create_symlink("folder", path("link"));
    EXPECT_EQ(judge_directory(path("link")), EDistrust::none);
    give_away(path("link"));
    EXPECT_EQ(judge_directory(path("link")), EDistrust::foreign_link);
}

TEST_F(strange_file, directory_of_root_is_trusted_by_everybody_whoever_may_write_there)
{
    fs::create_directory(path("folder"));
    ASSERT_EQ(chmod(path("folder").c_str(), 0777), 0);
    become_own_user();
    EXPECT_EQ(judge_directory(path("folder")), EDistrust::none);
}

TEST_F(trusted_file_test, directory_that_is_absent_or_none_is_told_apart)
{
    EXPECT_EQ(judge_directory(path("folder")), EDistrust::absent);
    EXPECT_EQ(judge_directory(new_file("file")), EDistrust::wrong_kind);
    fs::create_symlink("nowhere", path("link"));
    EXPECT_EQ(judge_directory(path("link")), EDistrust::absent);
}
