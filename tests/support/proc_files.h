#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What the kernel tells about a process and its sockets.
namespace support {

/// A set of signals as /proc/PID/status shows it.
std::uint64_t signal_set(std::initializer_list<int> signals);
/// The set in one line of /proc/PID/status: "SigBlk", "SigIgn", "SigCgt", "ShdPnd".
std::uint64_t signals_in(pid_t process, const std::string& line);

/// How many descriptors the process has open.
std::size_t open_descriptors(pid_t process);
/// How much memory the process occupies, in KiB.
std::size_t resident_memory(pid_t process);
/// How much processor time the process has taken, in clock ticks.
long processor_ticks(pid_t process);

/// Whether a signal has stopped the process.
bool is_stopped(pid_t process);

/// Whether the process sleeps in this system call (SYS_read, ...).
bool is_waiting_in(pid_t process, long system_call);
/// Whether the process sleeps in a read of up to this many bytes.
bool is_waiting_to_read(pid_t process, std::size_t size);

/// The port on which the process listens; -1 when there is none.
int listening_port(pid_t process);

/// An IPv4 socket with this local port, as "ADDRESS STATE" ("127.0.0.1 LISTEN").
std::vector<std::string> sockets_on(int port);
/// Whether an IPv6 socket has this local port.
bool has_ipv6_socket_on(int port);

} // namespace support
