#pragma once

#include <optional>
#include <string>

#include "common/process/deadline.h"
#include "common/process/process_handle.h"
#include "common/process/unique_fd.h"

namespace target {

/// A virtual scanner at work: plugged in on construction, off the bus after destruction. Owns the process.
///
/// Failures are std::runtime_error with what the process itself said about it.
class scanner_process {
public:
    /// Starts the devices of a file in the machine's folder of device files ("plain" for plain.device), or
    /// elsewhere ("/run/model" for /run/model.device), and returns when the host has configured those that
    /// start plugged in.
    explicit scanner_process(const std::string& device_file);
    scanner_process(const scanner_process&) = delete;
    scanner_process& operator=(const scanner_process&) = delete;
    ~scanner_process();

    /// Returns when the host has configured the device, or when it is off the bus.
    void plug(const std::string& device) { order("plug " + device); }
    void unplug(const std::string& device) { order("unplug " + device); }
    /// Like unplug, and it can never be plugged in again.
    void vanish(const std::string& device) { order("vanish " + device); }
    /// Has a fault ("KIND" or "KIND AMOUNT") strike with the next command to a device at rest.
    void arm(const std::string& device, const std::string& fault) { order("fault " + device + " " + fault); }
    /// Ends a fault that lasts.
    void clear(const std::string& device) { order("clear " + device); }

    /// The devices stand still until release(): they stay on the bus, and transfers that begin with them
    /// wait. To be called between transfers: one under way may have been served in part.
    void hold();
    void release();

    /// What the devices saw so far, one line for each command and fault.
    static std::string diary();

private:
    void start(const std::string& device_file);
    void order(const std::string& what);
    std::string next_answer();
    void expect_answer(const std::string& expected, const std::string& step);

    tarvik::unique_fd m_orders;
    tarvik::unique_fd m_answers;
    std::optional<tarvik::process_handle> m_process; ///< none: not started
};

} // namespace target
