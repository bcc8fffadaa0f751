#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <future>
#include <regex>
#include <string>
#include <vector>

#include "front_end/src/front_end.h"
#include "support/dialogue.h"
#include "support/log_reader.h"
#include "support/log_transfers.h"
#include "support/proc_files.h"
#include "target/scenarios/scanner_session.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

using names = std::vector<std::string>;

/// Much of the same, and several at once.
class endurance : public target::scanner_session {
protected:
    /// In the program a session ends with the process, which hides what closing leaves behind: here it is the
    /// same session in a process that goes on.
    static void expect_nothing_left_of_sessions(int count)
    {
        constexpr std::size_t kTolerance = 64; // KiB; 330 bytes lost in each of 200 are more, or 3.3 KB in 20
        for (int session = 0; session < kWarmUp; ++session)
            open_and_close();
        const std::size_t descriptors = support::open_descriptors(::getpid());
        const std::size_t memory = support::resident_memory(::getpid());
        for (int session = 0; session < count; ++session)
            open_and_close();
        EXPECT_EQ(support::open_descriptors(::getpid()), descriptors);
        EXPECT_LE(support::resident_memory(::getpid()), memory + kTolerance);
    }

private:
    static constexpr int kWarmUp = 10; // the allocator and the loader keep what they got at first

    static void open_and_close()
    {
        ASSERT_TRUE(::scanner::instance().open(kByIds));
        ASSERT_EQ(target::claimed_interfaces().size(), 1U);
        ::scanner::instance().close();
        ASSERT_EQ(target::claimed_interfaces(), names());
    }
};

/// Lines that several programs write at the same time: a line and its end are written apart, and another
/// program's line may come between.
names log_of(const std::string& process)
{
    const std::regex header(R"(\[\d\d:\d\d:\d\d\.\d+\]\[(\d+)\]\(\d+\)\[([A-Z]+)\])");
    const std::string all = support::raw_log();
    names lines;
    for (std::sregex_iterator each(all.begin(), all.end(), header), end; each != end;) {
        const std::smatch head = *each++;
        const std::string::const_iterator stop = each == end ? all.end() : (*each)[0].first;
        std::string message(head[0].second, stop);
        message.erase(message.find_last_not_of('\n') + 1);
        if (head[1] == process)
            lines.push_back(head[2].str() + " " + message);
    }
    return support::with_whole_transfers(lines);
}

/// A program and its front-end, one of several at the same time.
class parallel_session {
public:
    parallel_session(const std::string& udi, const std::string& serial) : m_program(target::program_launch())
    {
        m_log += expected::kAnnounced;
        m_program.connect(target::kStepLimit);
        expect_ok(m_program.open(udi, target::kStepLimit));
        m_log += expected::request(udi.size());
        m_log += expected::open_handled({udi, serial});
        m_log += expected::reply();
    }

    /// Whether every byte of the scanner's pattern comes as it must.
    bool receive_pattern(std::uint32_t length)
    {
        const bytes request =
            virtual_scanner::encode_with_payload({command_code::read_pattern, 1, length, 0}, {});
        expect_ok(m_program.send(request, target::kStepLimit));
        m_log += expected::request(request.size());
        m_log += expected::reply();
        receive(virtual_scanner::kBlockSize);
        return receive(length) == virtual_scanner::pattern(length);
    }

    void close()
    {
        const std::string process = std::to_string(m_program.process().pid());
        m_program.close(target::kStepLimit);
        EXPECT_EQ(m_program.finish(target::kStepLimit), tarvik::exit_status::exited(0));
        m_log += expected::request();
        m_log += expected::kClosed;
        m_log += expected::kLeft;
        EXPECT_EQ(support::text(log_of(process)), m_log.text());
    }

private:
    static void expect_ok(const tarvik::reply& reply) { EXPECT_EQ(reply.kind, tarvik::reply::verdict::ok); }

    bytes receive(std::uint32_t count)
    {
        const tarvik::reply reply = m_program.recv(count, target::kStepLimit);
        expect_ok(reply);
        m_log += expected::request();
        m_log += expected::reply(count);
        return reply.payload;
    }

    tarvik::front_end m_program;
    support::lines m_log;
};

} // namespace

TEST_F(endurance, two_programs_work_with_two_scanners_at_the_same_time)
{
    constexpr int kRounds = 4;
    plug_in("twins");
    parallel_session left("usb:1a2b:3c4d:LEFT", "LEFT");
    parallel_session right("usb:1a2b:3c4d:RIGHT", "RIGHT");
    EXPECT_EQ(target::claimed_interfaces().size(), 2U);
    const auto receive_all = [](parallel_session& from) {
        for (int round = 0; round < kRounds; ++round)
            if (!from.receive_pattern(target::kMebibyte))
                return false;
        return true;
    };
    auto lefts = std::async(std::launch::async, receive_all, std::ref(left));
    auto rights = std::async(std::launch::async, receive_all, std::ref(right));
    EXPECT_TRUE(lefts.get());
    EXPECT_TRUE(rights.get());
    left.close();
    right.close();
    EXPECT_EQ(target::claimed_interfaces(), names());
}

TEST_F(endurance, programs_one_after_the_other_are_all_alike_and_leave_no_claim)
{
    constexpr int kPrograms = 5;
    plug_in("plain");
    std::vector<std::size_t> descriptors;
    for (int cycle = 0; cycle < kPrograms; ++cycle) {
        start();
        request_open(kByIds);
        end_opening({kByIds});
        wait_until_idle(); // for while it writes a line, the log is open too
        descriptors.push_back(support::open_descriptors(program().process().pid()));
        request_close();
        ASSERT_EQ(wait_for_exit(), tarvik::exit_status::exited(0)) << "cycle " << cycle;
        ASSERT_EQ(target::claimed_interfaces(), names()) << "cycle " << cycle;
        log() += expected::kLeft;
    }
    EXPECT_EQ(std::count(descriptors.begin(), descriptors.end(), descriptors.front()), kPrograms);
    EXPECT_EQ(support::text(support::log_dialogue()), log().text());
}

TEST_F(endurance, two_hundred_sessions_in_one_process_leave_no_descriptor_memory_or_claim)
{
    plug_in("plain");
    const usb_transceiver another; // keeps libusb up, which takes ten times as long as the rest of a session
    expect_nothing_left_of_sessions(200);
}

TEST_F(endurance, sessions_in_one_process_that_each_start_libusb_leave_no_descriptor_memory_or_claim)
{
    plug_in("plain");
    expect_nothing_left_of_sessions(20);
}

TEST_F(endurance, two_hundred_mebibytes_are_received_with_every_byte_right)
{
    constexpr std::uint32_t kPiece = 8 * target::kMebibyte; // what the scanner is asked for at once
    constexpr int kPieces = 25;
    constexpr std::uint32_t kRequest = target::kMebibyte;
    const bytes expected = virtual_scanner::pattern(kPiece);
    plug_in("plain");
    open(kByIds);
    for (int piece = 0; piece < kPieces; ++piece) {
        command(command_code::read_pattern, kPiece);
        ASSERT_EQ(answer_block(command_code::read_pattern), kPiece);
        for (std::uint32_t received = 0; received < kPiece; received += kRequest) {
            const bytes part = receive(kRequest);
            ASSERT_TRUE(std::equal(part.begin(), part.end(), expected.data() + received))
                << "behind byte " << received << " of piece " << piece;
        }
    }
    close();
}
