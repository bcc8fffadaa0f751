// The ordinary session under valgrind, which looks at the program as it ships, in optimised code.

#include "process/tvkintif/program_test.h"

namespace process_test {

namespace {

struct tool {
    std::string name;
    std::vector<std::string> arguments;
};

class under_valgrind : public program_test, public testing::WithParamInterface<std::tuple<tool, bool>> {
protected:
    void SetUp() override
    {
        const std::string valgrind = VALGRIND_PATH;
        if (valgrind.empty())
            GTEST_SKIP() << "valgrind is not installed; run scripts/setup";
        program_test::SetUp();
        std::vector<std::string> command = {valgrind, "--quiet", "--error-exitcode=99"};
        const auto& arguments = std::get<tool>(GetParam()).arguments;
        command.insert(command.end(), arguments.begin(), arguments.end());
        with_runner(command);
        if (!std::get<bool>(GetParam()))
            with_no_log_directory();
    }

    /// Of every kind of request one, and the end. Valgrind writes what it finds to standard error.
    void expect_session_without_finding(const bytes& sent, const bytes& received)
    {
        start_connected();
        open();
        expect_answer(send_request(from_hex("1b 40 00")), sent);
        expect_answer(recv_request(100'000), received);
        expect_answer(query_request(1), ok_reply({0, 0, 0, 0}));
        expect_answer(query_request(3), ng_reply());
        expect_answer(frame(2, 8, 1), nak_reply(2));
        close_and_expect_end();
    }
};

// What is still reachable at the end is the fake bus's own.
const tool kMemcheck = {"memcheck",
                        {"--tool=memcheck", "--leak-check=full",
                         "--show-leak-kinds=definite,indirect,possible",
                         "--errors-for-leak-kinds=definite,indirect,possible"}};
const tool kHelgrind = {"helgrind", {"--tool=helgrind"}};

INSTANTIATE_TEST_SUITE_P(, under_valgrind,
                         testing::Combine(testing::Values(kMemcheck, kHelgrind), testing::Bool()),
                         [](const auto& test) {
                             return std::get<tool>(test.param).name +
                                    (std::get<bool>(test.param) ? "_with_log" : "_without_log");
                         });

} // namespace

TEST_P(under_valgrind, session_has_no_finding)
{
    expect_session_without_finding(ok_reply(), ok_reply(device_bytes(100'000)));
}

TEST_P(under_valgrind, session_with_a_thread_of_the_plugin_has_no_finding)
{
    with_plugin("plugin_with_thread");
    with_bus(
        "device scanner 1a2b:3c4d\nfail bulk_transfer LIBUSB_ERROR_TIMEOUT\n"); // each of which is logged
    expect_session_without_finding(ng_reply(), ng_reply());
}

} // namespace process_test
