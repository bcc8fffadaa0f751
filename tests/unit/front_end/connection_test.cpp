#include "front_end/src/connection.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>

#include <future>

#include "front_end/src/front_end_error.h"
#include "support/caught_error.h"
#include "support/raw_connection.h"
#include "support/scripted_peer.h"

using namespace std::chrono_literals;
using support::from_hex;
using support::pattern;
using support::raw_connection;
using tarvik::bytes;
using tarvik::failure;

namespace {

template <typename Action>
tarvik::front_end_error error_of(Action action)
{
    return support::caught<tarvik::front_end_error>(action);
}

/// Until the peer's reset has arrived.
void wait_for_reset(const raw_connection& wire)
{
    ASSERT_TRUE(tarvik::wait_until_ready(wire.descriptor(), POLLRDHUP, tarvik::deadline(support::kPatience)));
}

} // namespace

TEST(connection, connecting_to_a_port_without_listener_or_to_an_invalid_one_fails)
{
    const bound_socket silent;
    const auto refusal = error_of([&] { raw_connection wire(silent.port()); });
    EXPECT_EQ(refusal.what(), "connect to port " + std::to_string(silent.port()) +
                                  ": expected a listener on 127.0.0.1, got Connection refused");
    const auto invalid = error_of([] { raw_connection wire(65536); });
    EXPECT_STREQ(invalid.what(), "connect to port 65536: expected a port from 1 to 65535, got 65536");
}

TEST(connection, connecting_gives_up_when_nobody_takes_the_connection)
{
    const bound_socket busy;
    listen(busy.descriptor(), 0);
    const raw_connection in_the_queue(busy.port());
    const auto error = error_of([&] { raw_connection wire(busy.port(), 100ms); });
    EXPECT_EQ(error.came(), "no answer within 100 ms");
}

TEST(connection, written_bytes_reach_the_peer_even_more_than_the_kernel_buffers)
{
    const bytes much = pattern(20'000'000);
    scripted_peer peer({expects(from_hex("00 01")), expects(much)});
    raw_connection wire(peer.port());
    wire.write(from_hex("00 01"));
    wire.write(much);
}

TEST(connection, write_gives_up_when_the_peer_does_not_read)
{
    std::promise<void> given_up;
    scripted_peer peer({waits_for(given_up.get_future().share()), closes()});
    raw_connection wire(peer.port());
    const auto error = error_of([&] { wire.write(bytes(100'000'000), 100ms); });
    given_up.set_value();
    EXPECT_EQ(error.cause(), failure::timed_out);
}

TEST(connection, write_to_a_peer_that_reset_the_connection_is_reported)
{
    scripted_peer peer({expects(from_hex("01")), resets()});
    raw_connection wire(peer.port());
    wire.write(from_hex("01"));
    wait_for_reset(wire);
    const auto error = error_of([&] { wire.write("x"); });
    EXPECT_EQ(error.came(), "Connection reset by peer after 0 bytes");
}

TEST(connection, write_to_a_broken_connection_raises_no_signal)
{
    scripted_peer peer({});
    raw_connection wire(peer.port());
    wire.half_close();
    const auto error = error_of([&] { wire.write("x"); });
    EXPECT_EQ(error.came(), "Broken pipe after 0 bytes");
}

TEST(connection, read_takes_exactly_the_size_and_joins_what_comes_in_parts)
{
    scripted_peer peer({answers(from_hex("01 02")), expects(from_hex("aa")), answers(from_hex("03 04 05"))});
    raw_connection wire(peer.port());
    EXPECT_EQ(wire.read(1), from_hex("01"));
    wire.write(from_hex("aa"));
    EXPECT_EQ(wire.read(3), from_hex("02 03 04"));
}

TEST(connection, read_tells_at_which_byte_the_stream_ended)
{
    scripted_peer peer({answers(from_hex("01 02 03")), closes()});
    raw_connection wire(peer.port());
    const auto error = error_of([&] { wire.read(5); });
    EXPECT_STREQ(error.what(), "read: expected 5 bytes, got the end of the stream after 3 bytes");
}

TEST(connection, read_tells_how_far_it_came_when_time_is_up)
{
    scripted_peer peer({answers(from_hex("01"))});
    raw_connection wire(peer.port());
    const auto error = error_of([&] { wire.read(5, 100ms); });
    EXPECT_EQ(error.came(), "1 byte and nothing more within 100 ms");
}

TEST(connection, read_tells_that_the_peer_reset_the_connection)
{
    scripted_peer peer({expects(from_hex("01")), resets()});
    raw_connection wire(peer.port());
    wire.write(from_hex("01"));
    const auto error = error_of([&] { wire.read(1); });
    EXPECT_EQ(error.came(), "Connection reset by peer after 0 bytes");
}

TEST(connection, read_to_end_returns_everything)
{
    const bytes much = pattern(300'000);
    scripted_peer peer({answers(much), closes()});
    raw_connection wire(peer.port());
    EXPECT_EQ(wire.read_to_end(), much);
}

TEST(connection, half_close_ends_this_side_and_leaves_the_other)
{
    scripted_peer peer({expects(from_hex("01")), expects_end(), answers(from_hex("02"))});
    raw_connection wire(peer.port());
    wire.write(from_hex("01"));
    wire.half_close();
    EXPECT_EQ(wire.read(1), from_hex("02"));
}

TEST(connection, reset_reaches_the_peer_as_one_and_close_as_the_end_of_the_stream)
{
    for (const bool is_reset : {false, true}) {
        scripted_peer peer({expects(from_hex("01")), is_reset ? expects_reset() : expects_end()});
        raw_connection wire(peer.port());
        wire.write(from_hex("01"));
        if (is_reset)
            wire.end_with_reset();
    }
}
