// The device goes away under an open session.
#include "target/scenarios/scanner_session.h"

using virtual_scanner::command_code;

namespace {

class unplug : public target::scanner_session {
protected:
    static constexpr const char* kByIds = "usb:1a2b:3c4d";

    /// The device comes back, and a new program works with it.
    void expect_the_next_session_to_work()
    {
        scanner().plug("plain");
        open(kByIds);
        EXPECT_EQ(identified_serial(), "SN0042");
        close();
    }
};

} // namespace

TEST_F(unplug, of_an_idle_scanner_fails_what_comes_after_and_the_session_closes)
{
    plug_in("plain");
    open(kByIds);
    EXPECT_EQ(identified_serial(), "SN0042");
    scanner().unplug("plain");
    send_to_nobody(encoded(command_code::identify));
    receive_from_nobody(virtual_scanner::kBlockSize);
    close();
    expect_the_next_session_to_work();
}

TEST_F(unplug, and_back_does_not_revive_the_session)
{
    plug_in("plain");
    open(kByIds);
    scanner().unplug("plain");
    scanner().plug("plain");
    send_to_nobody(encoded(command_code::identify));
    close();
}
