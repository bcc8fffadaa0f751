#pragma once

#include <string>

namespace process_test {

/// A USB transfer that the fake bus holds until the test lets it go on: the program stands still at a known
/// place. The bus's script names it: "transfer scanner 81 hold " + path().
class held_transfer {
public:
    held_transfer();
    held_transfer(const held_transfer&) = delete;
    held_transfer& operator=(const held_transfer&) = delete;
    ~held_transfer();

    const std::string& path() const { return m_path; }
    /// Waits until the program is in the transfer; false when it does not get there in time.
    bool is_reached();
    /// Lets the transfer go on.
    void release();

private:
    std::string m_path;
    int m_descriptor = -1; ///< the FIFO's writing end while the transfer is held; -1: not held
};

} // namespace process_test
