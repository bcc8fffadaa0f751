#include "support/raw_connection.h"

#include <sys/socket.h>

#include <cerrno>
#include <system_error>

#include "common/text/text.h"
#include "front_end/src/front_end_error.h"

using tarvik::bytes;
using tarvik::deadline;

namespace support {

void raw_connection::write(tarvik::byte_view data, tarvik::milliseconds timeout)
{
    tarvik::transfer what = {"write", "to write " + tarvik::count_of(data.size, "byte"), deadline(timeout)};
    m_wire.write(data, {}, what);
}

bytes raw_connection::read(std::size_t size, tarvik::milliseconds timeout)
{
    tarvik::transfer what = {"read", tarvik::count_of(size, "byte"), deadline(timeout)};
    bytes data(size);
    m_wire.read(data.data(), size, what);
    return data;
}

bytes raw_connection::read_to_end(tarvik::milliseconds timeout)
{
    tarvik::transfer what = {"read", "the end of the stream", deadline(timeout)};
    bytes data;
    try {
        for (unsigned char byte = 0;; data.push_back(byte))
            m_wire.read(&byte, 1, what);
    } catch (const tarvik::front_end_error& error) {
        if (error.cause() != tarvik::failure::end_of_stream)
            throw;
    }
    return data;
}

void raw_connection::half_close()
{
    if (shutdown(descriptor(), SHUT_WR) != 0)
        throw std::system_error(errno, std::generic_category(), "shutdown");
}

void raw_connection::end_with_reset()
{
    const linger at_once = {1, 0};
    setsockopt(descriptor(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

} // namespace support
