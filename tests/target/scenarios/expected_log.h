#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace target {

constexpr const char* kDefaultPlugin = "libryo-mora-hk-t210.so";

/// What one attempt to reach the device comes to.
enum class attempt { reaches_it, finds_no_device, finds_no_interface };

/// What the search for a serial number comes to.
enum class serial_search { finds_it, misses_it, finds_one_that_may_not_be_opened };

/// An open request and how it should go. The last attempt decides; a device that is never reached takes five.
struct opening {
    std::string udi;
    std::string serial = {}; ///< the address's field after the ids; empty: it has none
    serial_search search = serial_search::finds_it;
    std::string plugin = kDefaultPlugin;
    std::vector<attempt> attempts = {attempt::reaches_it};

    bool succeeds() const { return attempts.back() == attempt::reaches_it; }
};

constexpr std::size_t kMostAttempts = 5;

/// The log that a program should leave, put together step by step in the order of the session. Lines are in
/// the form in which support::log_dialogue() gives the real ones; all of them have the level INFO.
class expected_log {
public:
    /// The program has started.
    void start();
    /// A request with this many payload bytes has come in.
    void request(std::size_t payload);
    /// A reply with this many payload bytes has gone out.
    void reply(std::size_t payload);
    /// The handling of an open request, up to its reply; and the first two parts of it.
    void open(const opening& what);
    void load_plugin(const opening& what);
    void reach_device(const opening& what);
    /// A transfer of `length` bytes that the device stalled; `direction` is "read" or "write".
    void stall(const std::string& direction, std::size_t length);
    /// One that moved fewer bytes; and one that did, `moved` of them, and ended with `error`.
    void short_transfer(const std::string& direction, std::size_t moved, std::size_t length);
    void cut(const std::string& direction, std::size_t length, std::size_t moved, const std::string& error);
    /// A call on the connection that failed.
    void failed_read(std::size_t length, const std::string& reason);
    void failed_write(std::size_t length, const std::string& reason);
    /// The program waits for a request, and the end of the connection that it then meets.
    void waiting();
    void hung_up();
    /// The handling of a close request.
    void close();
    /// The end of the program.
    void end();
    /// Any other line, without its level.
    void line(const std::string& text);

    const std::vector<std::string>& lines() const { return m_lines; }

private:
    void search(const opening& what);
    void outcome(attempt what);
    void transfer(const std::string& call, const std::string& result, std::size_t length);

    std::vector<std::string> m_lines;
};

} // namespace target
