#pragma once

#include "front_end/src/bytes.h"
#include "front_end/src/connection.h"
#include "support/wait_until.h"

namespace support {

/// A connection to the program for tests that send what no front-end sends: part of a frame, several at
/// once, nonsense, or its end in the middle. Fails as the connection of the front-end library does, with
/// front_end_error.
class raw_connection {
public:
    explicit raw_connection(int port, tarvik::milliseconds timeout = kPatience) : m_wire(port, timeout) {}

    /// Writes all of it.
    void write(tarvik::byte_view data, tarvik::milliseconds timeout = kPatience);
    /// Reads exactly `size` bytes.
    tarvik::bytes read(std::size_t size, tarvik::milliseconds timeout = kPatience);
    /// Reads until the peer closes.
    tarvik::bytes read_to_end(tarvik::milliseconds timeout = kPatience);

    /// Ends this side's stream; the peer's can still be read.
    void half_close();
    /// From now on the end of the connection is a reset, by which the peer may lose what it has not read.
    void end_with_reset();

    int descriptor() const { return m_wire.descriptor(); }

private:
    tarvik::connection m_wire;
};

} // namespace support
