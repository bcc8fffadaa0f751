#include "tvkintif/src/failure_pause.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/dialogue.h"

using std::chrono::milliseconds;

namespace {

using lines = std::vector<std::string>;

class failure_pause_test : public testing::Test {
protected:
    void SetUp() override { support::take_dialogue(); }

    /// The next failure, this long after the one before and its pause.
    lines pauses_after(milliseconds time)
    {
        m_now += time;
        m_pause.failed(m_now);
        const lines made = support::take_dialogue();
        for (const std::string& pause : made)
            m_now += std::chrono::microseconds(std::stol(pause.substr(pause.find(' '))));
        return made;
    }

    failure_pause m_pause{milliseconds(100)};
    failure_pause::clock::time_point m_now = failure_pause::clock::now();
};

} // namespace

TEST_F(failure_pause_test, first_failure_passes_at_once)
{
    EXPECT_EQ(pauses_after(milliseconds(0)), lines());
}

TEST_F(failure_pause_test, pauses_double_up_to_a_second)
{
    pauses_after(milliseconds(0));
    for (const char* pause : {"100000", "200000", "400000", "800000", "1000000", "1000000"})
        EXPECT_EQ(pauses_after(milliseconds(0)), lines{std::string("usleep ") + pause});
}

TEST_F(failure_pause_test, failure_that_took_more_than_a_second_begins_anew)
{
    pauses_after(milliseconds(0));
    pauses_after(milliseconds(1000));
    EXPECT_EQ(pauses_after(milliseconds(1000)), lines{"usleep 200000"});
    EXPECT_EQ(pauses_after(milliseconds(1001)), lines());
    EXPECT_EQ(pauses_after(milliseconds(0)), lines{"usleep 100000"});
}

TEST_F(failure_pause_test, success_begins_anew)
{
    pauses_after(milliseconds(0));
    pauses_after(milliseconds(0));
    m_pause.succeeded();
    EXPECT_EQ(pauses_after(milliseconds(0)), lines());
    EXPECT_EQ(pauses_after(milliseconds(0)), lines{"usleep 100000"});
}
