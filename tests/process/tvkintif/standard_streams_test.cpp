#include <unistd.h>

#include <string>

#include "process/tvkintif/program_test.h"

using namespace process_test; // what a test says is a language of its own

namespace {

/// Which streams the parent has closed, as a sum of 1 (input), 2 (output) and 4 (errors).
class closed_streams : public program_test, public testing::WithParamInterface<int> {
protected:
    static bool is_closed(int stream) { return (GetParam() >> stream & 1) != 0; }
};

std::string names_of(int streams)
{
    std::string names;
    for (const char* name : {"input", "output", "errors"}) {
        if ((streams & 1) != 0)
            names += (names.empty() ? "" : "_") + std::string(name);
        streams >>= 1;
    }
    return names.empty() ? "none" : names;
}

std::string printed(const std::string& text)
{
    std::string all;
    for (int call = 0; call < 4; ++call) // start, send, receive, stop
        all += text;
    return all;
}

} // namespace

TEST_P(closed_streams, take_nothing_from_the_session)
{
    with_plugin("plugin_printing");
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (is_closed(stream))
            with_mishap("close stream " + std::to_string(stream));
    if (is_closed(STDOUT_FILENO))
        start_without_port_line();
    else
        start();
    connect();
    open();
    expect_answer(send_request(from_hex("01")), ok_reply());
    expect_answer(recv_request(3), ok_reply(bytes_of("xxx")));
    close();
    ending expected;
    expected.output = is_closed(STDOUT_FILENO) ? "" : std::to_string(port()) + "\n" + printed("out\n");
    expected.errors = is_closed(STDERR_FILENO) ? "" : printed("err\n");
    expect_end(expected);
}

INSTANTIATE_TEST_SUITE_P(standard_streams, closed_streams, testing::Range(0, 8),
                         [](const auto& test) { return names_of(test.param); });
