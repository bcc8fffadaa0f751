#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Failures of libusb, of the memory and of the system, brought about in a process that runs the program.
///
/// The program's own objects, main() included, are linked into the test, which forks a process for each run:
/// that takes a fraction of a start. Pauses do not last: they are added up, and when the sum shows that the
/// program would go on for ever, it gets a SIGTERM.
namespace faults {

#ifdef __SANITIZE_ADDRESS__
inline constexpr bool kIsSanitized = true;
#else
inline constexpr bool kIsSanitized = false;
#endif

enum class target { nothing, libusb, allocation, system_call };

/// Milliseconds of pauses after which a program gets its SIGTERM: nothing new will come.
inline constexpr std::uint64_t kLongEnough = 60'000;

/// Which call fails. Calls are counted from 1, each kind by itself; system calls by number, because how often
/// the heap grows varies.
struct injection {
    target what = target::nothing;
    int nth = 0;
    int result = 0;           ///< libusb's, or the number in errno
    bool is_for_ever = false; ///< and all that follow it
    long number = 0;          ///< of the system calls of which one fails
};

/// A kind of system call, and what it can fail with on a machine in trouble.
struct failing_call {
    long number;
    const char* name;
    std::vector<int> errors;
};
const std::vector<failing_call>& failing_calls();

/// What a device keeps when a program ends.
struct device_state {
    int active_configuration = 0;
    std::uint32_t kernel_drivers = 0; ///< a bit for each interface
    std::uint32_t halted = 0;         ///< a bit for each endpoint, those that bring bytes in the upper half

    bool operator<(const device_state& other) const;
};
inline constexpr std::size_t kMostDevices = 2;
using bus_state = std::array<device_state, kMostDevices>;

/// One system call that was made.
struct made_call {
    long number;
    long descriptor; ///< its first argument
};

inline constexpr std::size_t kMostSystemCalls = 20'000; ///< the sum of a run that loops without a pause

/// What the process tells, in memory that it shares with the test.
struct report {
    int port = 0;                   ///< once something listens on it
    int injected = 0;               ///< failures brought about
    int allocations = 0;            ///< asked for
    long blocks_left = 0;           ///< allocated and not freed
    std::uint64_t paused = 0;       ///< milliseconds of all pauses
    std::size_t system_calls = 0;   ///< how many of `made`
    bool has_concluded = false;     ///< went through all of its end
    bus_state devices = {};         ///< at the end
    std::array<char, 65536> text{}; ///< the dialogue, and "LEFT BEHIND: ..." for what was not given back
    std::array<made_call, kMostSystemCalls> made; ///< not cleared between runs
};

/// Why no failures can be brought about on this machine; empty when they can.
std::string why_not();

/// Runs the program and ends with it; never returns. `listening` is written to whenever a peer can connect.
/// With `is_watched`, system calls are noted.
[[noreturn]] void run_program(const std::string& bus_script, const bus_state* devices_before,
                              const injection& failure, bool is_watched, int listening, report& told);

} // namespace faults
