#include "front_end/src/port_line.h"

#include <charconv>
#include <string>
#include <system_error>

#include "common/process/child_process.h"
#include "front_end/src/bytes.h"
#include "front_end/src/connection.h"
#include "front_end/src/front_end_error.h"

namespace tarvik {

namespace {

constexpr std::size_t kLongestLine = 32; ///< more than any port takes; an error quotes this much

/// The number that `text` is as a whole; -1 when it is none from 1 to kLargestPort.
int port_of(const std::string& text)
{
    int number = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    const bool is_port =
        parsed.ec == std::errc() && parsed.ptr == end && number >= 1 && number <= kLargestPort;
    return is_port ? number : -1;
}

/// The reading of one port line: knows its deadline, and can say what came instead.
class port_line_reader {
public:
    port_line_reader(child_process& process, milliseconds timeout) : m_process(process), m_until(timeout) {}

    int read()
    {
        const auto line = m_process.first_line(kLongestLine, m_until.left());
        if (line.end == child_process::line_end::time_up)
            fail(failure::timed_out, what_came(line.text, "nothing") + " within " +
                                         std::to_string(m_until.timeout().count()) + " ms");
        if (line.end == child_process::line_end::too_long)
            fail(failure::bad_port_line, in_quotes(line.text) + " and more");
        if (line.end == child_process::line_end::end_of_output)
            fail(failure::exited_early, what_came(line.text, "no line") + " and then " + ending());
        if (line.text == "-1")
            fail(failure::start_refused, "-1 and then " + ending());
        const int port = port_of(line.text);
        if (port < 0)
            fail(failure::bad_port_line, in_quotes(line.text));
        return port;
    }

private:
    static std::string what_came(const std::string& text, const char* if_empty)
    {
        return text.empty() ? if_empty : in_quotes(text);
    }

    [[noreturn]] void fail(failure cause, const std::string& came)
    {
        const std::string errors = m_process.standard_error();
        throw front_end_error(cause, "read the port line of " + m_process.path(),
                              "a port from 1 to " + std::to_string(kLargestPort),
                              came + (errors.empty() ? "" : "; its standard error: " + in_quotes(errors)));
    }

    /// How the process ended; waits for it, since its output ends a moment before.
    std::string ending()
    {
        const auto status = m_process.try_wait_for_exit(m_until.left());
        return status ? status->text() : "the end of its output while it runs on";
    }

    child_process& m_process;
    deadline m_until;
};

} // namespace

int read_port_line(child_process& process, milliseconds timeout)
{
    return port_line_reader(process, timeout).read();
}

} // namespace tarvik
