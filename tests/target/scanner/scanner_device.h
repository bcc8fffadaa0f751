#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "target/scanner/command_set.h"
#include "target/scanner/device_file.h"
#include "target/scanner/function_fs.h"
#include "target/scanner/gadget.h"
#include "target/scanner/test_chart.h"

namespace virtual_scanner {

/// Serves the command set of COMMANDS.md on one function, one command after the other, on the thread that
/// calls serve(). Other threads may give orders; those return when the serving thread has heard them, and
/// fail with a std::runtime_error when they make no sense or it does not listen in time.
class scanner_device {
public:
    /// Borrows all three for its life.
    scanner_device(const device_description& description, function_fs& link, gadget& bus);
    scanner_device(const scanner_device&) = delete;
    scanner_device& operator=(const scanner_device&) = delete;

    /// Serves until an error that plugging in again cannot repair, which it throws.
    [[noreturn]] void serve();

    /// An order: a fault that strikes with the next command that has not begun.
    void arm(const fault& what);
    /// An order: the end of a fault that lasts until it is cleared; whether there was one.
    bool clear();

private:
    /// What one plugging-in has seen.
    struct session {
        scanner_status status{};
        std::multimap<std::uint32_t, fault> faults; ///< by the command they strike with, counted from 1
    };
    class open_to_orders;
    class staying;

    [[noreturn]] void serve_one_link();
    void wait_with_open_ears(const std::function<void()>& wait);
    void serve_one_command();
    void await_command();
    bool take_command(command& what);
    bool breaks_off(const command& what);
    void carry_out(const command& what);
    bytes take_payload(const command& what);
    void take_at_least(std::size_t length);
    void take_part_of_payload(const command& what, const fault& how_much);

    bytes data_for(const command& what, const bytes& payload, answer_status& status);
    bytes identification() const;
    static bytes size_of_sheet(const command& what, answer_status& status);
    bytes lines_of_sheet(const command& what, const bytes& payload, answer_status& status);
    const test_chart& chart_at(std::uint32_t dots_per_inch);
    static std::optional<fault> fault_in(const command& what, const bytes& payload);

    void give_answer(const answer& head, const bytes& data);
    void give_whole_packets(const answer& head, const bytes& data, std::size_t most);
    void give_short(const answer& head, const bytes& data, const fault& how_much);
    void give(const answer& head, const bytes& data, std::size_t count);
    void strike_after_answer();

    std::optional<fault> strikes(fault_kind kind);
    void stall_until_cleared(void (function_fs::*stall)(), void (function_fs::*end)());
    void stay_until_cleared(const std::function<void()>& again_and_again,
                            const std::function<void()>& at_the_end);
    [[noreturn]] void leave_the_bus(void (gadget::*leave)());
    void note(const std::string& text) const;

    const device_description& m_description;
    function_fs& m_link;
    gadget& m_bus;
    session m_session;
    bytes m_taken;                     ///< came from the host, not yet understood
    std::optional<test_chart> m_chart; ///< at the resolution that was last asked for

    std::mutex m_ordersMutex; ///< guards all below
    std::condition_variable m_ordersChange;
    pthread_t m_server{};
    bool m_isOpenToOrders = false;
    bool m_stays = false; ///< in a fault that lasts until it is cleared
    bool m_isToGoOn = false;
    std::vector<fault> m_ordered; ///< not yet heard
};

} // namespace virtual_scanner
