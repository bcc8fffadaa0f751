#include "tvkctl/src/session/receive_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "support/files.h"
#include "support/private_paths.h"
#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

class receive_file_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        std::remove(path.c_str());
    }
    ~receive_file_test() override { std::remove(path.c_str()); }

    std::string content() const { return support::read_file(path); }

    const std::string path = support::kLogRoot + "/received.raw";
};

TEST_F(receive_file_test, a_piece_is_in_the_file_when_it_was_written)
{
    receive_file file(path, false);
    file.write("ab");
    EXPECT_EQ(content(), "ab");
}

TEST_F(receive_file_test, pieces_follow_each_other)
{
    receive_file file(path, false);
    file.write("ab");
    file.write("cd");
    EXPECT_EQ(content(), "abcd");
}

TEST_F(receive_file_test, an_old_file_is_emptied)
{
    receive_file(path, false).write("old");
    receive_file(path, false).write("n");
    EXPECT_EQ(content(), "n");
}

TEST_F(receive_file_test, an_old_file_is_added_to_on_request)
{
    receive_file(path, false).write("old");
    receive_file(path, true).write(" new");
    EXPECT_EQ(content(), "old new");
}

TEST_F(receive_file_test, a_file_of_more_than_2_gib_can_be_added_to)
{
    constexpr off64_t kSize = 3LL << 30;
    receive_file(path, false).write("a");
    ASSERT_EQ(truncate64(path.c_str(), kSize), 0);
    receive_file(path, true).write("b");
    struct stat64 status = {};
    ASSERT_EQ(stat64(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, kSize + 1);
}

TEST_F(receive_file_test, a_file_that_cannot_be_made_is_reported_by_name_and_reason)
{
    try {
        receive_file("/nonexistent/a.raw", false);
        FAIL() << "nothing was thrown";
    } catch (const tool_error& error) {
        EXPECT_EQ(error.why().word, kOutputFile.word);
        EXPECT_EQ(std::string(error.what()),
                  "/nonexistent/a.raw cannot be written: No such file or directory");
    }
}

TEST_F(receive_file_test, a_full_disk_is_reported)
{
    receive_file file("/dev/full", false);
    EXPECT_THROW(file.write("a"), tool_error);
}

} // namespace

} // namespace tarvik::tvkctl
