// Replies, as a front-end reads them: any bytes come back, and what is made of them is what the protocol
// says.

#include "fuzz/socket_pair.h"

#include "front_end/src/framed_connection.h"
#include "front_end/src/front_end_error.h"

using tarvik::failure;

namespace {

fuzz::socket_pair* the_wire = nullptr;

/// One reading of one reply: as it is, or as it should be.
struct outcome {
    std::string what; ///< verdict, or the number of a failure
    std::string payload;
};

std::string name_of(failure cause)
{
    return "failure " + std::to_string(static_cast<int>(cause));
}

/// Takes a reply from the front of `wire`.
outcome expected(std::string_view& wire, std::uint32_t ok_size)
{
    if (wire.size() < tarvik::kHeaderSize)
        return {name_of(failure::end_of_stream), {}};
    const std::uint32_t error = fuzz::number_at(wire, 8);
    const std::uint32_t size = fuzz::number_at(wire, 12);
    const bool is_reply = fuzz::number_at(wire, 4) == 0 && fuzz::number_at(wire, 16) == 0 &&
                          ((error == 0 && size == ok_size) || (error == 0xFFFFFFFF && size <= 1));
    if (fuzz::number_at(wire, 0) != 1)
        return {name_of(failure::wrong_id), {}};
    if (!is_reply)
        return {name_of(failure::unexpected_reply), {}};
    wire.remove_prefix(tarvik::kHeaderSize);
    const std::string payload(wire.substr(0, size));
    wire.remove_prefix(payload.size());
    if (payload.size() < size)
        return {name_of(failure::end_of_stream), error == 0 ? payload : ""};
    if (error == 0)
        return {"ok", payload};
    if (size == 1 && payload != "\x15")
        return {name_of(failure::unexpected_reply), {}};
    return {size == 1 ? "nak" : "ng", {}};
}

outcome read(tarvik::framed_connection& connection, std::uint32_t ok_size, const tarvik::deadline& until)
{
    outcome came;
    const auto take = [&](tarvik::byte_view piece) { came.payload.append(piece.begin(), piece.end()); };
    try {
        came.what = name_of(connection.stream_reply(ok_size, take, "step", until));
    } catch (const tarvik::front_end_error& error) {
        came.what = name_of(error.cause());
    }
    return came;
}

} // namespace

// In place of the system's calls: a connection that is there already.
extern "C" {

int __wrap_socket(int, int, int)
{
    fcntl(the_wire->near_end, F_SETFL, O_NONBLOCK);
    return the_wire->near_end;
}

int __wrap_connect(int, const sockaddr*, socklen_t)
{
    return 0;
}
}

void fuzz_one(std::string_view input)
{
    fuzz::decisions decide(input);
    const std::uint32_t ok_size = decide.yes() ? decide.byte() : decide.byte() * 65536U;
    const std::string request = decide.short_text();
    std::string_view replies = decide.rest();

    fuzz::socket_pair wire;
    the_wire = &wire;
    wire.say(replies);
    tarvik::framed_connection connection(1, tarvik::milliseconds(600'000));
    const tarvik::deadline until(tarvik::milliseconds(600'000));
    connection.put_request({1, 6, 0, 0, ok_size}, tarvik::byte_view(request), "step", until);
    wire.hear();
    fuzz::expect_equal(wire.heard,
                       fuzz::big_endian(1) + fuzz::big_endian(6) + fuzz::big_endian(0) +
                           fuzz::big_endian(static_cast<std::uint32_t>(request.size())) +
                           fuzz::big_endian(ok_size) + request,
                       "the request");
    for (bool is_good = true; is_good;) {
        const outcome right = expected(replies, ok_size);
        const outcome came = read(connection, ok_size, until);
        fuzz::expect_equal(came.what, right.what, "the verdict");
        fuzz::expect_equal(came.payload, right.payload, "the payload");
        is_good = came.what.compare(0, 7, "failure") != 0;
    }
}
