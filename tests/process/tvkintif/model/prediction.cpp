#include "process/tvkintif/model/prediction.h"

#include <algorithm>
#include <map>
#include <optional>
#include <sstream>

#include "fake_usb/bus.h"
#include "fake_usb/script.h"
#include "process/tvkintif/model/scanner_model.h"
#include "support/dialogue.h"

namespace session_model {

namespace {

constexpr std::size_t kHeaderSize = 20;
constexpr std::size_t kFirstBuffer = 1024;
constexpr std::uint32_t kOpen = 4;
constexpr std::uint32_t kClose = 5;
constexpr std::uint32_t kConnectionId = 1;
constexpr std::uint32_t kMostMemory = 16 * 1024 * 1024;
constexpr const char* kLogLine = "log ";

struct request {
    std::uint32_t id;
    std::uint32_t code;
    std::uint32_t size;
    std::uint32_t value;
};

std::uint32_t field(const bytes& header, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = offset; i < offset + 4; ++i)
        number = number << 8U | header[i];
    return number;
}

request parse(const bytes& header)
{
    return {field(header, 0), field(header, 4), field(header, 12), field(header, 16)};
}

const plugin_kind* plugin_named(const std::string& target)
{
    for (const plugin_kind& kind : known_plugins())
        if (kind.target == target)
            return &kind;
    return nullptr;
}

/// What the program logs of a call on the connection; counts are printed as they fit the format.
void log_call(const char* call, const char* result, std::size_t moved, std::size_t before, std::size_t size)
{
    log(call + std::to_string(static_cast<int>(size - before)));
    log(result + std::to_string(moved));
    log("transferred " + std::to_string(moved) + " bytes, total " + std::to_string(before + moved) + "/" +
        std::to_string(size));
}

/// The program, as the front-end knows it.
class program {
public:
    program(const session& what, prediction& result)
        : m_stream(what.stream()), m_end(what.end), m_result(result),
          m_scanner(plugin_named(what.plugin), what.plugin_file)
    {
    }

    void run()
    {
        log("port = 0");
        while (!m_isDone && !m_result.is_up_to_the_machine)
            serve_one();
        m_result.taken = m_position;
        log("Leave do_cleanup 1");
        m_scanner.close();
        log("End Run");
        log("--- Leave int interface ---");
    }

private:
    enum class outcome { complete, failed, ended };
    using handler = void (program::*)(const request&);
    static const std::map<std::uint32_t, handler> kHandlers;

    void serve_one()
    {
        bytes header;
        outcome read = read_exactly(kHeaderSize, header);
        if (read == outcome::complete)
            read = read_payload(parse(header));
        if (read == outcome::complete)
            answer(parse(header));
        if (read == outcome::ended) {
            m_isDone = true;
            log("do_cleanup 1");
        }
        std::fill(m_buffer.begin(), m_buffer.end(), 0);
    }

    outcome read_payload(const request& what)
    {
        if (what.size == 0)
            return outcome::complete;
        bytes payload;
        const outcome read = read_exactly(what.size, payload);
        m_buffer = payload; // one that broke off is the last
        return read;
    }

    outcome read_exactly(std::size_t size, bytes& into)
    {
        const std::size_t there = std::min(size, m_stream.size() - m_position);
        const auto begin = m_stream.begin() + static_cast<std::ptrdiff_t>(m_position);
        into.assign(begin, begin + static_cast<std::ptrdiff_t>(there));
        m_position += there;
        if (there > 0)
            log_call("ipc connection read get called = ", "ipc connection read get bail rv = ", there, 0,
                     size);
        if (there == size)
            return outcome::complete;
        if (m_result.awaited == 0)
            m_result.awaited = size - there;
        if (m_end == departure::resets) { // the read that waits fails; the next one meets the end
            m_end = departure::hangs_up;
            log("ipc connection read get called = " + std::to_string(static_cast<int>(size - there)));
            log("read failed: Connection reset by peer");
            log("ipc connection read get bail rv = -1");
            return outcome::failed;
        }
        log_call("ipc connection read get called = ", "ipc connection read get bail rv = ", 0, there, size);
        return outcome::ended;
    }

    void answer(const request& what)
    {
        if (what.code != kOpen && what.id != kConnectionId) {
            m_isDone = what.code == kClose;
            return reply(process_test::nak_reply(what.id));
        }
        const auto known = kHandlers.find(what.code);
        if (known == kHandlers.end())
            return reply(process_test::ng_reply(what.id));
        (this->*known->second)(what);
    }

    void reply(const bytes& data)
    {
        for (const std::size_t size : {kHeaderSize, data.size() - kHeaderSize})
            if (size > 0)
                log_call("ipc connection wrute get called = ", "ipc connection wrte  bail rv = ", size, 0,
                         size);
        m_result.replies.push_back({m_position, data});
    }

    void reply_if(bool is_ok, const bytes& payload = {})
    {
        reply(is_ok ? process_test::ok_reply(payload) : process_test::ng_reply());
    }

    void open(const request&)
    {
        const std::string udi(m_buffer.begin(), m_buffer.end());
        log("open " + udi);
        const bool is_open = m_scanner.open(udi);
        log(is_open ? "send ok" : "send ng");
        reply_if(is_open);
        m_isDone = !is_open;
    }

    void close(const request&)
    {
        log("enter close");
        m_scanner.close();
        log("leave close");
        m_isDone = true;
    }

    void send(const request&) { reply_if(m_scanner.send(m_buffer)); }

    void receive(const request& what)
    {
        m_result.is_up_to_the_machine = what.value > kMostMemory;
        if (m_result.is_up_to_the_machine)
            return;
        m_buffer.assign(what.value, 0);
        const std::optional<bytes> data = m_scanner.receive(what.value);
        reply_if(data.has_value(), data.value_or(bytes()));
    }

    void query(const request& what)
    {
        const bool is_known = what.value == 1 || what.value == 2;
        reply_if(is_known, is_known ? bytes(4) : bytes());
    }

    bytes m_stream;
    std::size_t m_position = 0;
    departure m_end;
    prediction& m_result;
    scanner_model m_scanner;
    bytes m_buffer = bytes(kFirstBuffer);
    bool m_isDone = false;
};

const std::map<std::uint32_t, program::handler> program::kHandlers = {
    {kOpen, &program::open}, {kClose, &program::close}, {6, &program::send},
    {7, &program::receive},  {8, &program::query},
};

bool is_logged(logging log, const std::string& line)
{
    return log != logging::off && (log != logging::errors || line.rfind("ERROR", 0) == 0);
}

/// A message that goes over several lines leaves all but the first without a header.
std::string as_read_from_file(std::string message)
{
    for (std::size_t at = message.find('\n'); at != std::string::npos; at = message.find('\n', at + 1))
        message.insert(at + 1, " ");
    return message;
}

void sort_out(const lines& dialogue, logging log, prediction& result)
{
    const std::string log_line = kLogLine;
    for (const std::string& line : dialogue) {
        const bool is_log = line.rfind(log_line, 0) == 0;
        const std::string text = is_log ? line.substr(log_line.size()) : line;
        if (is_log && is_logged(log, text))
            result.log.push_back(as_read_from_file(text));
        if (!is_log)
            result.bus.push_back(text);
        if (!is_log || is_logged(log, text))
            result.all.push_back(text);
    }
}

} // namespace

std::size_t prediction::due_after(std::size_t sent) const
{
    std::size_t size = 0;
    for (const reply& each : replies)
        size += each.due <= sent ? each.data.size() : 0;
    return size;
}

bytes prediction::all_replies() const
{
    bytes data;
    for (const reply& each : replies)
        data.insert(data.end(), each.data.begin(), each.data.end());
    return data;
}

prediction predict(const session& what)
{
    support::take_dialogue();
    fake_usb::bus bus;
    std::istringstream script(what.bus);
    fake_usb::load_script(script, "the bus", bus);
    prediction result;
    program(what, result).run();
    for (const std::string& thing : bus.leftovers())
        support::record("LEFT BEHIND: " + thing);
    sort_out(support::take_dialogue(), what.log, result);
    for (lines* each : {&result.bus, &result.all})
        if (!each->empty())
            each->push_back("end of process");
    return result;
}

} // namespace session_model
