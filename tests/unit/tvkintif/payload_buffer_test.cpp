#include "tvkintif/src/payload_buffer.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <new>
#include <string>

#include "support/proc_files.h"
#include "unit/tvkintif/allocation_seam.h"

namespace {

constexpr std::size_t kGibibyte = std::size_t{1} << 30U;

std::string shown(payload_buffer& buffer)
{
    const unsigned char* bytes = buffer.data();
    return {bytes, bytes + buffer.size()};
}

void store(payload_buffer& buffer, const std::string& text)
{
    std::memcpy(buffer.storage(), text.data(), text.size());
    buffer.store(text.size());
}

std::string zeros(std::size_t count)
{
    return std::string(count, '\0');
}

} // namespace

TEST(payload_buffer_test, begins_with_zeros)
{
    payload_buffer buffer(4);
    EXPECT_EQ(shown(buffer), zeros(4));
}

TEST(payload_buffer_test, shows_zeros_behind_what_was_stored)
{
    payload_buffer buffer(6);
    store(buffer, "abc");
    EXPECT_EQ(shown(buffer), "abc" + zeros(3));
}

TEST(payload_buffer_test, shows_nothing_of_a_longer_payload_before)
{
    payload_buffer buffer(6);
    store(buffer, "abcdef");
    buffer.resize(6);
    store(buffer, "xy");
    EXPECT_EQ(shown(buffer), "xy" + zeros(4));
}

TEST(payload_buffer_test, keeps_its_size_and_shows_zeros_when_it_is_cleared)
{
    payload_buffer buffer(3);
    store(buffer, "abc");
    buffer.clear();
    EXPECT_EQ(shown(buffer), zeros(3));
}

TEST(payload_buffer_test, clears_what_was_written_into_its_bytes)
{
    payload_buffer buffer(3);
    std::memcpy(buffer.data(), "abc", 3);
    EXPECT_EQ(shown(buffer), "abc");
    buffer.clear();
    EXPECT_EQ(shown(buffer), zeros(3));
}

TEST(payload_buffer_test, clears_what_was_written_behind_what_was_stored)
{
    payload_buffer buffer(4);
    store(buffer, "a");
    std::memcpy(buffer.data() + 1, "bcd", 3);
    buffer.resize(4);
    EXPECT_EQ(shown(buffer), zeros(4));
}

TEST(payload_buffer_test, shows_zeros_when_it_grows_again_into_what_it_kept)
{
    payload_buffer buffer(4);
    store(buffer, "abcd");
    buffer.resize(2);
    EXPECT_EQ(shown(buffer), zeros(2));
    buffer.resize(4);
    EXPECT_EQ(shown(buffer), zeros(4));
}

TEST(payload_buffer_test, shows_zeros_when_it_grows_beyond_what_it_kept)
{
    payload_buffer buffer(2);
    store(buffer, "ab");
    buffer.resize(5);
    EXPECT_EQ(shown(buffer), zeros(5));
}

TEST(payload_buffer_test, may_be_empty)
{
    payload_buffer buffer(3);
    buffer.resize(0);
    EXPECT_EQ(buffer.size(), 0U);
    EXPECT_EQ(shown(buffer), "");
}

TEST(payload_buffer_test, throws_when_there_is_no_such_memory_and_serves_on)
{
    payload_buffer buffer(3);
    {
        const unit::allocation_limit limit(0x100000);
        EXPECT_THROW(buffer.resize(0x100001), std::bad_alloc);
    }
    EXPECT_EQ(buffer.size(), 0U);
    buffer.resize(2);
    EXPECT_EQ(shown(buffer), zeros(2));
}

TEST(payload_buffer_test, takes_no_memory_for_bytes_that_never_came)
{
    const std::size_t before = support::resident_memory(getpid());
    payload_buffer buffer(kGibibyte);
    store(buffer, "abc");
    buffer.clear();
    buffer.resize(kGibibyte - 1);
    EXPECT_LT(support::resident_memory(getpid()), before + 64 * 1024);
}
