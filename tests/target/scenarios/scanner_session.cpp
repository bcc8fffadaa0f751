#include "target/scenarios/scanner_session.h"

#include <algorithm>
#include <iostream>

#include "support/dialogue.h"
#include "support/log_reader.h"

namespace target {

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

constexpr const char* kProgram = "/usr/bin/tvkintif";
/// Shorter than the limit of a scenario, so that the logs of one that hangs are seen.
constexpr tvkctl::milliseconds kStepLimit{30'000};
constexpr std::uint16_t kTag = 0x7A67; // any; given back in each answer

} // namespace

scanner_session::scanner_session()
{
    support::make_log_directory();
}

void scanner_session::TearDown()
{
    if (HasFailure())
        std::cout << "---- the program's log\n"
                  << support::raw_log() << "---- what the scanner saw\n"
                  << scanner_process::diary();
}

void scanner_session::open(const std::string& udi, const std::string& serial)
{
    tvkctl::launch how;
    how.path = kProgram;
    m_program.emplace(how);
    m_program->connect(kStepLimit);
    m_log.start();
    const tvkctl::reply reply = m_program->open(udi, kStepLimit);
    EXPECT_EQ(reply.kind, tvkctl::reply::verdict::ok);
    EXPECT_EQ(reply.id, 1U);
    m_log.request(udi.size());
    m_log.open(udi, serial);
    m_log.reply(0);
}

void scanner_session::close()
{
    m_program->close(kStepLimit);
    EXPECT_EQ(m_program->finish(kStepLimit), tvkctl::exit_status::exited(0));
    m_log.request(0);
    m_log.close();
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
    EXPECT_EQ(m_program->send(data, kStepLimit).kind, tvkctl::reply::verdict::ng);
    m_log.request(data.size());
    m_log.stall("write", data.size());
    m_log.reply(0);
}

void scanner_session::receive_from_a_stall(std::uint32_t count)
{
    EXPECT_EQ(m_program->recv(count, kStepLimit).kind, tvkctl::reply::verdict::ng);
    m_log.request(0);
    m_log.stall("read", count);
    m_log.reply(0);
}

void scanner_session::command(command_code code, std::uint32_t argument, const bytes& payload)
{
    send(encoded(code, argument, payload));
}

bytes scanner_session::answer_to(command_code code)
{
    const bytes received = receive(virtual_scanner::kBlockSize);
    virtual_scanner::block block{};
    std::copy_n(received.begin(), std::min(received.size(), block.size()), block.begin());
    virtual_scanner::answer answer{};
    EXPECT_TRUE(decode(block, answer)) << "not an answer block";
    EXPECT_EQ(answer.code, code);
    EXPECT_EQ(answer.tag, kTag);
    EXPECT_EQ(answer.status, virtual_scanner::answer_status::ok);
    return answer.data_length == 0 ? bytes() : receive(answer.data_length);
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
