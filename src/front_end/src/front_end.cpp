#include "front_end/src/front_end.h"

#include <signal.h>

#include <algorithm>
#include <stdexcept>
#include <system_error>

#include "front_end/src/port_line.h"

namespace tarvik {

namespace {

/// How long a process that is told to end may take before it is killed.
constexpr milliseconds kGrace{1000};
/// A process that dies breaks its connection a moment before its exit status is known.
constexpr milliseconds kExitNotice{500};
constexpr std::uint32_t kQueryAnswerSize = 4; ///< bytes

frame_header header_of(request_code code, std::uint32_t value = 0)
{
    frame_header header;
    header.id = kConnectionId;
    header.code = static_cast<std::uint32_t>(code);
    header.value = value;
    return header;
}

bool is_broken_connection(failure cause)
{
    return cause == failure::end_of_stream || cause == failure::connection_lost ||
           cause == failure::connection_refused;
}

/// Runs a step with the process, whose errors are the front-end's to explain.
template <typename Step>
auto with_front_end_errors(Step step)
{
    try {
        return step();
    } catch (const process_error& error) {
        throw front_end_error(error);
    }
}

} // namespace

front_end::front_end(const launch& how, milliseconds timeout)
    : m_process(with_front_end_errors([&] { return std::make_unique<child_process>(how); })),
      m_port(read_port_line(*m_process, timeout))
{
}

front_end::front_end(int port) : m_port(port) {}

front_end::~front_end()
{
    disconnect();
    if (!m_process)
        return;
    try {
        if (m_process->signal(SIGTERM))
            m_process->try_wait_for_exit(kGrace);
    } catch (const std::system_error&) {
        // The process's own destructor kills it.
    }
}

/// Runs a step. When the connection breaks in it because the process has ended, the error says how it did.
template <typename Step>
auto front_end::with_exit_status(Step step)
{
    try {
        return step();
    } catch (const front_end_error& error) {
        if (!m_process || !is_broken_connection(error.cause()))
            throw;
        const auto status = m_process->try_wait_for_exit(kExitNotice);
        if (!status)
            throw;
        throw front_end_error(error.cause(), error.step(), error.expected(),
                              error.came() + "; the program ended with " + status->text());
    }
}

void front_end::connect(milliseconds timeout)
{
    with_exit_status([&] { m_frames = std::make_unique<framed_connection>(m_port, timeout); });
}

reply front_end::open(const std::string& udi, milliseconds timeout)
{
    return exchange(header_of(request_code::open), udi, 0, "open " + in_quotes(udi), timeout);
}

reply front_end::send(byte_view data, milliseconds timeout)
{
    const std::string step = "send " + std::to_string(data.size) + " bytes";
    return exchange(header_of(request_code::send), data, 0, step, timeout);
}

reply front_end::recv(std::uint32_t count, milliseconds timeout)
{
    const std::string step = "recv " + std::to_string(count) + " bytes";
    return exchange(header_of(request_code::recv, count), {}, count, step, timeout);
}

front_end::received front_end::recv(std::uint64_t total, std::uint32_t per_request, const byte_sink& take,
                                    milliseconds timeout)
{
    if (per_request == 0)
        throw std::invalid_argument("recv: a request must ask for at least one byte");
    received result = {0, reply::verdict::ok};
    while (result.count < total && result.last == reply::verdict::ok) {
        const auto count =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(per_request, total - result.count));
        result.last = recv_part(count, result.count, take, timeout);
        if (result.last == reply::verdict::ok)
            result.count += count;
    }
    return result;
}

reply front_end::query(std::uint32_t selector, milliseconds timeout)
{
    const std::string step = "query " + std::to_string(selector);
    return exchange(header_of(request_code::query, selector), {}, kQueryAnswerSize, step, timeout);
}

void front_end::close(milliseconds timeout)
{
    with_exit_status(
        [&] { frames().put_request(header_of(request_code::close), {}, "close", deadline(timeout)); });
}

std::optional<exit_status> front_end::finish(milliseconds timeout)
{
    disconnect();
    if (!m_process)
        return std::nullopt;
    return with_front_end_errors([&] { return m_process->wait_for_exit(timeout); });
}

child_process& front_end::process()
{
    if (!m_process)
        throw std::logic_error("front_end: an attached process belongs to whoever started it");
    return *m_process;
}

reply front_end::exchange(const frame_header& header, byte_view payload, std::uint32_t ok_size,
                          const std::string& step, milliseconds timeout)
{
    const deadline until(timeout);
    return with_exit_status([&] {
        frames().put_request(header, payload, step, until);
        return frames().take_reply(ok_size, step, until);
    });
}

reply::verdict front_end::recv_part(std::uint32_t count, std::uint64_t offset, const byte_sink& take,
                                    milliseconds timeout)
{
    const std::string step = "recv " + std::to_string(count) + " bytes at offset " + std::to_string(offset);
    const deadline until(timeout);
    return with_exit_status([&] {
        frames().put_request(header_of(request_code::recv, count), {}, step, until);
        return frames().stream_reply(count, take, step, until);
    });
}

framed_connection& front_end::frames()
{
    if (!m_frames)
        throw std::logic_error("front_end: not connected; connect() comes first");
    return *m_frames;
}

} // namespace tarvik
