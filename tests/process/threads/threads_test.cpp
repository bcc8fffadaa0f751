// A plugin that transfers from a thread of its own, as the contract with plugins permits. The thread
// sanitizer watches program, bus and plugin in the build that is made for it.

#include "process/tvkintif/program_test.h"
#include "support/wait_until.h"

namespace process_test {

namespace {

class plugin_with_thread : public program_test, public testing::WithParamInterface<int> {};

constexpr int kLogIsOff = 5;

INSTANTIATE_TEST_SUITE_P(at_level, plugin_with_thread, testing::Values(0, 1, kLogIsOff));

} // namespace

TEST_P(plugin_with_thread, transfers_while_the_program_logs_and_until_it_closes)
{
    with_environment("TSAN_OPTIONS", "suppressions=" SOURCE_FOLDER "/tests/process/threads/threads.supp");
    with_log_level(GetParam());
    with_plugin("plugin_with_thread");
    with_bus(
        "device scanner 1a2b:3c4d\nfail bulk_transfer LIBUSB_ERROR_TIMEOUT\n"); // each of which is logged
    start_connected();
    open();
    EXPECT_TRUE(support::wait_until(kPatience, [this] {
        expect_answer(query_request(1), ok_reply({0, 0, 0, 0}));
        expect_answer(recv_request(5), ng_reply());
        return usb_lines_about("bulk_transfer scanner 0x81 1 ").size() > 200;
    }));
    close();
    EXPECT_EQ(program().wait_for_exit(kPatience), tarvik::exit_status::exited(0));
    expect_usb_about("release_interface", {"release_interface scanner 0 -> 0"});
}

} // namespace process_test
