#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "front_end/src/bytes.h"
#include "tvkctl/src/terminal/console.h"

namespace tarvik::tvkctl {

/// A receive as it was asked for.
struct receive_order {
    std::uint64_t size;
    std::string file; ///< where it goes; empty: it is to be shown
};

/// How a step ended.
struct step_result {
    std::string answer;  ///< "ok", "ng" or "nak"; empty: there was none
    std::uint64_t moved; ///< bytes that were sent or have come
    std::chrono::nanoseconds time;
};

/// Is told what happens in a session, in order, and shows it: for each step begin(), then what moves, then
/// end().
class run_report {
public:
    run_report() = default;
    run_report(const run_report&) = delete;
    run_report& operator=(const run_report&) = delete;
    virtual ~run_report() = default;

    /// `step` as it was written; the first is "open UDI", the last "close".
    virtual void begin(const std::string& step) = 0;
    /// Bytes that go out now.
    virtual void sending(byte_view data) = 0;
    /// Bytes of `order.size` are asked for; they come through received().
    virtual void receiving(const receive_order& order) = 0;
    virtual void received(byte_view piece) = 0;
    virtual void end(const step_result& result) = 0;

    /// The session is over, whether it succeeded or failed.
    virtual void succeeded() = 0;
    virtual void failed(const std::string& reason) = 0;
};

/// For a person: hex dumps, with progress of long receives on a terminal, and with the time of each step if
/// `is_verbose`. The console must outlive it.
std::unique_ptr<run_report> text_report(console& io, bool is_verbose);

/// One JSON document at the end, however the session ends.
std::unique_ptr<run_report> json_report(console& io, const std::string& udi);

} // namespace tarvik::tvkctl
