#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "support/dialogue.h"
#include "support/files.h"
#include "support/log_reader.h"
#include "support/private_paths.h"
#include "support/wait_until.h"
#include "target/scenarios/machine_clock.h"
#include "target/scenarios/own_mounts.h"
#include "target/scenarios/scanner_session.h"

namespace fs = std::filesystem;

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

/// Whatever becomes of the log, the front-end does not notice: each test has a session whose bytes on the
/// wire are compared with those of a session without a log.
class logging : public target::scanner_session {
protected:
    void SetUp() override
    {
        plug_in("plain");
        fs::remove_all(support::kLogDirectory);
        m_withoutLog = bytes_of_a_session();
        log() = support::lines();
    }

    void expect_same_session(const tarvik::launch& how = target::program_launch())
    {
        EXPECT_EQ(bytes_of_a_session(how), m_withoutLog);
    }

    void expect_whole_log() { EXPECT_EQ(support::text(support::log_dialogue()), log().text()); }

    static fs::path log_file_of(std::time_t day)
    {
        char name[] = "tvkintif_yyyymmdd.log";
        std::strftime(name, sizeof name, "tvkintif_%Y%m%d.log", std::localtime(&day));
        return fs::path(support::kLogDirectory) / name;
    }

    /// A session in three parts; talk() may come in the middle of something else.
    void begin_session(const tarvik::launch& how = target::program_launch())
    {
        m_seen.clear();
        start(how);
        program().observe([this](const target::frame& frame) { see(frame); });
        request_open(kByIds);
        end_opening({kByIds});
    }

    void talk()
    {
        command(command_code::identify);
        answer_to(command_code::identify);
        command(command_code::echo, 0, virtual_scanner::pattern(kEchoed));
        EXPECT_EQ(answer_to(command_code::echo), virtual_scanner::pattern(kEchoed));
    }

    void end_session()
    {
        request_close();
        EXPECT_EQ(wait_for_exit(), tarvik::exit_status::exited(0));
        log() += expected::kLeft;
    }

    bytes bytes_of_a_session(const tarvik::launch& how = target::program_launch())
    {
        begin_session(how);
        talk();
        const bytes seen = m_seen;
        end_session();
        return seen;
    }

    const bytes& without_log() const { return m_withoutLog; }
    const bytes& seen() const { return m_seen; }

private:
    static constexpr std::uint32_t kEchoed = 1000;

    void see(const target::frame& frame)
    {
        const tarvik::wire_header head = tarvik::to_wire(frame.header);
        m_seen.insert(m_seen.end(), head.begin(), head.end());
        m_seen.insert(m_seen.end(), frame.payload.begin(), frame.payload.end());
    }

    bytes m_seen; ///< all that crossed the wire in a session, in both directions
    bytes m_withoutLog;
};

tarvik::launch launch_with_captured_errors()
{
    tarvik::launch how = target::program_launch();
    how.errors = tarvik::launch::standard_error::capture;
    return how;
}

} // namespace

TEST_F(logging, receive_of_more_than_32_bits_can_address_is_an_error_that_ends_the_program)
{
    support::make_log_directory();
    begin_session();
    begin(tarvik::request_code::recv, std::numeric_limits<std::uint32_t>::max(), {});
    EXPECT_EQ(wait_for_exit(), tarvik::exit_status::exited(1));
    log() += support::lines{"ERROR std::bad_alloc"} + expected::info({"--- Leave int interface ---"});
    expect_whole_log();
}

TEST_F(logging, midnight_in_a_session_begins_the_next_days_file)
{
    using std::chrono::milliseconds;
    using std::chrono::seconds;
    const std::time_t day = 1'893'456'000; // 1 January 2030
    const seconds midnight(day);
    support::make_log_directory();
    const target::machine_clock clock;
    target::machine_clock::set(midnight - seconds(60));
    begin_session();
    wait_until_idle();
    support::lines before = log();
    before += expected::reading(expected::kHeaderSize);
    target::machine_clock::set(midnight - milliseconds(100));
    ASSERT_TRUE(support::wait_until(target::kStepLimit, [&] { return std::time(nullptr) >= day; }));
    talk();
    EXPECT_EQ(seen(), without_log());
    end_session();
    expect_whole_log();
    const std::string first = support::read_file(log_file_of(day - 1));
    const std::string second = support::read_file(log_file_of(day));
    EXPECT_EQ(static_cast<std::size_t>(std::count(first.begin(), first.end(), '\n')), before.size());
    EXPECT_EQ(second.rfind("[00:00:", 0), 0U) << second.substr(0, 40);
    EXPECT_EQ(first + second, support::raw_log()) << "there is a third file";
}

TEST_F(logging, full_disk_cuts_the_log_and_nothing_else)
{
    constexpr std::size_t kRoom = 4096; // a page is the least that a file system in memory has
    support::make_log_directory();
    target::cover(support::kLogDirectory, "size=4k");
    expect_same_session();
    EXPECT_EQ(support::raw_log().size(), kRoom);
    std::vector<std::string> written = support::log_dialogue();
    written.pop_back(); // cut somewhere
    ASSERT_LT(written.size(), log().size());
    EXPECT_EQ(support::text(written),
              support::text({log().begin(), log().begin() + static_cast<std::ptrdiff_t>(written.size())}));
}

TEST_F(logging, read_only_directory_drops_the_lines_and_their_copies)
{
    support::make_log_directory();
    target::cover(support::kLogDirectory);
    std::ofstream(support::kSettingsFile) << "loglevel=0\n";
    target::make_read_only(support::kLogDirectory);
    expect_same_session(launch_with_captured_errors());
    EXPECT_EQ(support::raw_log(), "");
    EXPECT_EQ(program().process().standard_error(), "");
}
