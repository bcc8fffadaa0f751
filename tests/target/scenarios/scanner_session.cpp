#include "target/scenarios/scanner_session.h"

#include <algorithm>
#include <iostream>

#include "support/dialogue.h"
#include "support/log_reader.h"
#include "support/wait_until.h"
#include "target/scenarios/plugin_folder.h"

namespace target {

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

constexpr const char* kProgram = "/usr/bin/tvkintif";
/// Shorter than the limit of a scenario, so that the logs of one that hangs are seen.
constexpr tvkctl::milliseconds kStepLimit{30'000};
constexpr tvkctl::frame_header kOpenRequest{0, static_cast<std::uint32_t>(tvkctl::request_code::open), 0, 0,
                                            0};
constexpr const char* kNoDevice = "LIBUSB_ERROR_NO_DEVICE";
constexpr const char* kBrokenTransfer = "LIBUSB_ERROR_IO";
constexpr std::uint16_t kTag = 0x7A67; // any; given back in each answer

} // namespace

scanner_session::scanner_session()
{
    support::make_log_directory();
    plugin_folder::restore();
}

void scanner_session::TearDown()
{
    if (HasFailure())
        std::cout << "---- the program's log\n"
                  << support::raw_log() << "---- what the scanner saw\n"
                  << scanner_process::diary();
}

void scanner_session::open(const opening& what)
{
    begin_to_open(what.udi);
    end_opening(what);
}

void scanner_session::open_in_vain(const opening& what)
{
    open(what);
    end_program();
}

void scanner_session::begin_to_open(const std::string& udi)
{
    tvkctl::launch how;
    how.path = kProgram;
    how.environment = m_environment;
    m_program.emplace(how);
    m_program->connect(kStepLimit);
    m_log.start();
    m_program->send_request(kOpenRequest, udi, kStepLimit);
    m_log.request(udi.size());
}

void scanner_session::end_opening(const opening& what)
{
    const tvkctl::reply reply = m_program->read_reply(tvkctl::kConnectionId, kStepLimit);
    EXPECT_EQ(reply.kind, what.succeeds() ? tvkctl::reply::verdict::ok : tvkctl::reply::verdict::ng);
    m_log.open(what);
    m_log.reply(0);
}

void scanner_session::wait_for_failed_attempts(int count)
{
    const auto failed_attempts = [] {
        const std::vector<std::string> log = support::log_dialogue();
        return std::count(log.begin(), log.end(), "INFO connection open isSuccess = 0");
    };
    ASSERT_TRUE(support::wait_until(kStepLimit, [&] { return failed_attempts() >= count; }))
        << failed_attempts() << " attempts have failed";
}

void scanner_session::close()
{
    m_program->close(kStepLimit);
    m_log.request(0);
    m_log.close();
    end_program();
}

void scanner_session::end_program()
{
    EXPECT_EQ(m_program->finish(kStepLimit), tvkctl::exit_status::exited(0));
    m_log.end();
    EXPECT_EQ(support::text(support::log_dialogue()), support::text(m_log.lines()));
}

void scanner_session::send(const bytes& data)
{
    EXPECT_EQ(m_program->send(data, kStepLimit).kind, tvkctl::reply::verdict::ok);
    m_log.request(data.size());
    m_log.reply(0);
}

bytes scanner_session::receive(std::uint32_t count)
{
    const tvkctl::reply reply = m_program->recv(count, kStepLimit);
    EXPECT_EQ(reply.kind, tvkctl::reply::verdict::ok);
    EXPECT_EQ(reply.payload.size(), count);
    m_log.request(0);
    m_log.reply(count);
    return reply.payload;
}

void scanner_session::send_into_a_stall(const bytes& data)
{
    m_log.request(data.size());
    m_log.stall("write", data.size());
    expect_refusal(m_program->send(data, kStepLimit));
}

void scanner_session::receive_from_a_stall(std::uint32_t count)
{
    m_log.request(0);
    m_log.stall("read", count);
    expect_refusal(m_program->recv(count, kStepLimit));
}

void scanner_session::send_to_nobody(const bytes& data)
{
    m_log.request(data.size());
    m_log.cut("write", data.size(), 0, kNoDevice);
    expect_refusal(m_program->send(data, kStepLimit));
}

void scanner_session::receive_from_nobody(std::uint32_t count)
{
    m_log.request(0);
    m_log.cut("read", count, 0, kNoDevice);
    expect_refusal(m_program->recv(count, kStepLimit));
}

void scanner_session::send_to_one_that_leaves(const bytes& data, std::uint32_t moved)
{
    const tvkctl::reply reply = m_program->send(data, kStepLimit);
    m_log.request(data.size());
    expect_parting("write", data.size(), moved);
    expect_refusal(reply);
}

void scanner_session::receive_from_one_that_leaves(std::uint32_t count, std::uint32_t moved)
{
    const tvkctl::reply reply = m_program->recv(count, kStepLimit);
    m_log.request(0);
    expect_parting("read", count, moved);
    expect_refusal(reply);
}

void scanner_session::expect_refusal(const tvkctl::reply& reply)
{
    EXPECT_EQ(reply.kind, tvkctl::reply::verdict::ng);
    m_log.reply(0);
}

/// The transfer in hand ends with one error or the other, depending on who sees first that the device is
/// gone: the host controller or the kernel's hub driver.
void scanner_session::expect_parting(const std::string& direction, std::size_t length, std::size_t moved)
{
    const std::vector<std::string> log = support::log_dialogue();
    const std::string broken = "INFO usb " + direction + " : " + kBrokenTransfer;
    const bool is_broken = std::find(log.begin(), log.end(), broken) != log.end();
    m_log.cut(direction, length, moved, is_broken ? kBrokenTransfer : kNoDevice);
    m_log.cut(direction, length - moved, 0, kNoDevice);
}

void scanner_session::command(command_code code, std::uint32_t argument, const bytes& payload)
{
    send(encoded(code, argument, payload));
}

void scanner_session::send_past_a_stall(const bytes& data, const std::string& direction, std::size_t length)
{
    EXPECT_EQ(m_program->send(data, kStepLimit).kind, tvkctl::reply::verdict::ok);
    m_log.request(data.size());
    m_log.stall(direction, length);
    m_log.reply(0);
}

std::uint32_t scanner_session::announced_by_answer_to(command_code code)
{
    const bytes received = receive(virtual_scanner::kBlockSize);
    virtual_scanner::block block{};
    std::copy_n(received.begin(), std::min(received.size(), block.size()), block.begin());
    virtual_scanner::answer answer{};
    EXPECT_TRUE(decode(block, answer)) << "not an answer block";
    EXPECT_EQ(answer.code, code);
    EXPECT_EQ(answer.tag, kTag);
    EXPECT_EQ(answer.status, virtual_scanner::answer_status::ok);
    return answer.data_length;
}

bytes scanner_session::answer_to(command_code code)
{
    const std::uint32_t length = announced_by_answer_to(code);
    return length == 0 ? bytes() : receive(length);
}

std::string scanner_session::identified_serial()
{
    constexpr std::ptrdiff_t kSerialOffset = 48;
    command(command_code::identify);
    const bytes identity = answer_to(command_code::identify);
    if (identity.size() <= kSerialOffset)
        return "no identity";
    const auto first = identity.begin() + kSerialOffset;
    return {first, std::find(first, identity.end(), 0)};
}

void scanner_session::arm(virtual_scanner::fault_kind fault, std::optional<std::uint32_t> amount)
{
    command(command_code::fault, static_cast<std::uint32_t>(fault),
            amount ? virtual_scanner::little_endian(*amount) : bytes());
    answer_to(command_code::fault);
}

bytes scanner_session::encoded(command_code code, std::uint32_t argument, const bytes& payload)
{
    return virtual_scanner::encode_with_payload({code, kTag, argument, 0}, payload);
}

} // namespace target
