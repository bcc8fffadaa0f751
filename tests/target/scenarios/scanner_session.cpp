#include "target/scenarios/scanner_session.h"

#include <sys/syscall.h>

#include <algorithm>
#include <filesystem>
#include <utility>

#include "support/dialogue.h"
#include "support/log_reader.h"
#include "support/log_transfers.h"
#include "support/proc_files.h"
#include "support/wait_until.h"
#include "target/scenarios/plugin_folder.h"

namespace target {

using virtual_scanner::bytes;
using virtual_scanner::command_code;

namespace {

namespace fs = std::filesystem;

constexpr tarvik::frame_header kOpenRequest{0, static_cast<std::uint32_t>(tarvik::request_code::open), 0, 0,
                                            0};
constexpr const char* kNoDevice = "LIBUSB_ERROR_NO_DEVICE";
constexpr const char* kBrokenTransfer = "LIBUSB_ERROR_IO";
constexpr std::uint16_t kTag = 0x7A67; // any; given back in each answer

std::vector<std::string> log_so_far()
{
    return support::with_whole_transfers(support::log_dialogue());
}

} // namespace

tarvik::launch program_launch()
{
    tarvik::launch how;
    how.path = kProgram;
    return how;
}

std::vector<std::string> claimed_interfaces()
{
    std::vector<std::string> claimed;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/bus/usb/drivers/usbfs"))
        if (fs::exists(entry.path() / "bInterfaceNumber"))
            claimed.push_back(entry.path().filename());
    return claimed;
}

scanner_session::scanner_session()
{
    support::make_log_directory();
    plugin_folder::restore();
}

void scanner_session::TearDown()
{
    EXPECT_EQ(claimed_interfaces(), std::vector<std::string>()) << "the scanner is still taken";
}

void scanner_session::open(const planned_open& what)
{
    begin_to_open(what.udi);
    end_opening(what);
}

void scanner_session::open_in_vain(const planned_open& what)
{
    open(what);
    end_program();
}

void scanner_session::begin_to_open(const std::string& udi)
{
    start();
    request_open(udi);
}

void scanner_session::start(tarvik::launch how)
{
    how.environment.insert(m_environment.begin(), m_environment.end());
    m_program.emplace(how);
    m_log += expected::kAnnounced;
}

void scanner_session::request_open(const std::string& udi)
{
    m_program->connect();
    m_program->put(kOpenRequest, udi);
    m_log += expected::request(udi.size());
}

void scanner_session::end_opening(const planned_open& what)
{
    const tarvik::reply reply = m_program->take_reply();
    EXPECT_EQ(reply.kind, what.succeeds() ? tarvik::reply::verdict::ok : tarvik::reply::verdict::ng);
    m_log += expected::open_handled(what);
    m_log += expected::reply();
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
    request_close();
    end_program();
}

void scanner_session::request_close()
{
    m_program->put(tarvik::request_code::close);
    m_log += expected::request();
    m_log += expected::kClosed;
}

// Hanging up first would hide a program that goes on, and overtake a signal that is on its way to it.
tarvik::exit_status scanner_session::wait_for_exit()
{
    return m_program->process().wait_for_exit(kStepLimit);
}

void scanner_session::end_program()
{
    m_log += expected::kLeft;
    end_program(tarvik::exit_status::exited(0));
}

void scanner_session::end_program(const tarvik::exit_status& expected)
{
    EXPECT_EQ(wait_for_exit(), expected);
    EXPECT_EQ(support::text(log_so_far()), m_log.text());
}

void scanner_session::send(const bytes& data)
{
    EXPECT_EQ(m_program->ask(tarvik::request_code::send, 0, data).kind, tarvik::reply::verdict::ok);
    m_log += expected::request(data.size());
    m_log += expected::reply();
}

bytes scanner_session::receive(std::uint32_t count)
{
    const tarvik::reply reply = m_program->ask(tarvik::request_code::recv, count);
    EXPECT_EQ(reply.kind, tarvik::reply::verdict::ok);
    EXPECT_EQ(reply.payload.size(), count);
    m_log += expected::request();
    m_log += expected::reply(count);
    return reply.payload;
}

void scanner_session::send_into_a_stall(const bytes& data)
{
    m_log += expected::request(data.size());
    m_log += expected::usb_stalled("write", data.size());
    expect_refusal(m_program->ask(tarvik::request_code::send, 0, data));
}

void scanner_session::receive_from_a_stall(std::uint32_t count)
{
    m_log += expected::request();
    m_log += expected::usb_stalled("read", count);
    expect_refusal(m_program->ask(tarvik::request_code::recv, count));
}

void scanner_session::send_to_nobody(const bytes& data)
{
    m_log += expected::request(data.size());
    m_log += expected::usb_failed("write", 0, data.size(), kNoDevice);
    expect_refusal(m_program->ask(tarvik::request_code::send, 0, data));
}

void scanner_session::receive_from_nobody(std::uint32_t count)
{
    m_log += expected::request();
    m_log += expected::usb_failed("read", 0, count, kNoDevice);
    expect_refusal(m_program->ask(tarvik::request_code::recv, count));
}

void scanner_session::send_to_one_that_leaves(const bytes& data, std::uint32_t moved)
{
    const tarvik::reply reply = m_program->ask(tarvik::request_code::send, 0, data);
    m_log += expected::request(data.size());
    expect_parting("write", data.size(), moved);
    expect_refusal(reply);
}

void scanner_session::receive_from_one_that_leaves(std::uint32_t count, std::uint32_t moved)
{
    const tarvik::reply reply = m_program->ask(tarvik::request_code::recv, count);
    m_log += expected::request();
    expect_parting("read", count, moved);
    expect_refusal(reply);
}

void scanner_session::expect_refusal(const tarvik::reply& reply)
{
    EXPECT_EQ(reply.kind, tarvik::reply::verdict::ng);
    m_log += expected::reply();
}

/// The transfer in hand and the next one end with one error until the kernel's hub driver has seen that the
/// device is gone, and with the other from then on.
void scanner_session::expect_parting(const std::string& direction, std::size_t length, std::size_t moved)
{
    const std::vector<std::string> log = support::log_dialogue();
    const std::string broken = "INFO usb " + direction + " : " + kBrokenTransfer;
    const auto unseen = std::count(log.begin(), log.end(), broken);
    m_log += expected::usb_failed(direction, moved, length, unseen >= 1 ? kBrokenTransfer : kNoDevice);
    m_log += expected::usb_failed(direction, 0, length - moved, unseen >= 2 ? kBrokenTransfer : kNoDevice);
}

void scanner_session::begin_send(const bytes& data)
{
    begin(tarvik::request_code::send, 0, data);
    wait_until_in_a_transfer();
}

void scanner_session::end_send()
{
    EXPECT_EQ(m_program->take_reply().kind, tarvik::reply::verdict::ok);
    m_log += expected::reply();
}

void scanner_session::begin_receive(std::uint32_t count)
{
    begin(tarvik::request_code::recv, count, {});
    wait_until_in_a_transfer();
}

bytes scanner_session::end_receive(std::uint32_t count)
{
    const tarvik::reply reply = m_program->take_reply();
    EXPECT_EQ(reply.kind, tarvik::reply::verdict::ok);
    EXPECT_EQ(reply.payload.size(), count);
    m_log += expected::reply(count);
    return reply.payload;
}

void scanner_session::begin(tarvik::request_code code, std::uint32_t value, tarvik::byte_view payload)
{
    m_program->put(code, value, payload);
    m_log += expected::request(payload.size);
}

void scanner_session::wait_until_in_a_transfer()
{
    wait_until_in(SYS_poll, m_log); // where libusb waits
}

void scanner_session::wait_until_idle()
{
    support::lines so_far = m_log;
    so_far += expected::reading(expected::kHeaderSize);
    wait_until_in(SYS_read, so_far);
}

void scanner_session::wait_until_in(long system_call, const support::lines& so_far)
{
    const pid_t pid = m_program->process().pid();
    EXPECT_TRUE(support::wait_until(
        kStepLimit, [&] { return log_so_far() == so_far && support::is_waiting_in(pid, system_call); }))
        << "the program did not come to wait in system call " << system_call;
}

void scanner_session::command(command_code code, std::uint32_t argument, const bytes& payload)
{
    send(encoded(code, argument, payload));
}

void scanner_session::send_past_a_stall(const bytes& data, const std::string& direction, std::size_t length)
{
    EXPECT_EQ(m_program->ask(tarvik::request_code::send, 0, data).kind, tarvik::reply::verdict::ok);
    m_log += expected::request(data.size());
    m_log += expected::usb_stalled(direction, length);
    m_log += expected::reply();
}

void scanner_session::announce(command_code code, std::uint32_t payload_length)
{
    const virtual_scanner::block head = virtual_scanner::encode({code, kTag, 0, payload_length});
    send({head.begin(), head.end()});
}

bytes scanner_session::answer_to(command_code code)
{
    const std::uint32_t length = answer_block(code);
    return length == 0 ? bytes() : receive(length);
}

std::uint32_t scanner_session::answer_block(command_code code)
{
    const virtual_scanner::block block = virtual_scanner::first_block(receive(virtual_scanner::kBlockSize));
    virtual_scanner::answer answer{};
    EXPECT_TRUE(decode(block, answer)) << "not an answer block";
    EXPECT_EQ(answer.code, code);
    EXPECT_EQ(answer.tag, kTag);
    EXPECT_EQ(answer.status, virtual_scanner::answer_status::ok);
    return answer.data_length;
}

std::string scanner_session::identified_serial()
{
    constexpr std::size_t kSerialOffset = 48;
    constexpr std::size_t kSerialWidth = 16;
    command(command_code::identify);
    const bytes identity = answer_to(command_code::identify);
    if (identity.size() != kSerialOffset + kSerialWidth)
        return "no identity";
    return virtual_scanner::text_at(identity, kSerialOffset, kSerialWidth);
}

void scanner_session::arm(virtual_scanner::fault_kind fault, std::optional<std::uint32_t> amount)
{
    command(command_code::fault, static_cast<std::uint32_t>(fault),
            amount ? virtual_scanner::little_endian(*amount) : bytes());
    answer_to(command_code::fault);
}

virtual_scanner::scanner_status scanner_session::status()
{
    command(command_code::status);
    return virtual_scanner::decode_status(answer_to(command_code::status));
}

void scanner_session::expect_pattern(std::uint32_t length)
{
    command(command_code::read_pattern, length);
    EXPECT_TRUE(answer_to(command_code::read_pattern) == virtual_scanner::pattern(length))
        << "not the pattern";
}

bytes scanner_session::encoded(command_code code, std::uint32_t argument, const bytes& payload)
{
    return virtual_scanner::encode_with_payload({code, kTag, argument, 0}, payload);
}

} // namespace target
