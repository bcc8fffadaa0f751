// What a program prints when it starts: it is a port, or the reason why it is none is right. The program is
// cat.

#include "front_end/src/port_line.h"

#include <algorithm>

#include "common/process/child_process.h"
#include "front_end/src/front_end_error.h"
#include "fuzz/harness.h"

using tarvik::failure;

namespace {

constexpr std::size_t kLongestLine = 32;

struct outcome {
    int port;
    failure cause; ///< when the port is 0
};

outcome expected(std::string_view output)
{
    const std::size_t length = output.find('\n');
    if (length == std::string_view::npos && output.size() <= kLongestLine)
        return {0, failure::exited_early};
    const std::string_view line = output.substr(0, length);
    if (line == "-1")
        return {0, failure::start_refused};
    int port = 0;
    bool is_port = !line.empty() && line.size() <= kLongestLine;
    for (const char c : line) {
        is_port = is_port && c >= '0' && c <= '9';
        port = std::min(port * 10 + (is_port ? c - '0' : 0), 70'000);
    }
    return is_port && port > 0 && port <= 65535 ? outcome{port, {}} : outcome{0, failure::bad_port_line};
}

} // namespace

void fuzz_one(std::string_view input)
{
    static const fuzz::scratch_folder folder;
    const outcome right = expected(input);
    tarvik::child_process process({"/bin/cat", {folder.file("output", input)}});
    try {
        const int port = tarvik::read_port_line(process, tarvik::milliseconds(600'000));
        fuzz::expect(port != 0 && port == right.port, "the port is " + std::to_string(right.port));
    } catch (const tarvik::front_end_error& error) {
        fuzz::expect(right.port == 0 && error.cause() == right.cause,
                     std::string("the reason is right: ") + error.what());
    }
}
