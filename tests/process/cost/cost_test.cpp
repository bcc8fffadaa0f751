// What requests cost, counted: instructions in user space and system calls, the same on every run. A figure
// that has grown by more than a twentieth fails; one that has fallen is to be written down here.

#include <fstream>
#include <sstream>

#include "process/tvkintif/program_test.h"

namespace process_test {

namespace {

constexpr const char* kCounts = "counts"; ///< file, in the working directory

/// The number behind `word` in the file that a tool has written.
long number_behind(const std::string& word, const std::string& path)
{
    std::ifstream file(path);
    for (std::string each; file >> each;)
        if (long number = 0; each == word && file >> number)
            return number;
    ADD_FAILURE() << path << " has no number behind " << word;
    return -1;
}

long instructions(const std::string& path)
{
    return number_behind("totals:", path);
}

/// The fourth number of the line that strace ends its table with.
long system_calls(const std::string& path)
{
    std::ifstream file(path);
    std::string last;
    for (std::string line; std::getline(file, line);)
        last = line;
    std::istringstream columns(last);
    std::string share, seconds, each, calls;
    columns >> share >> seconds >> each >> calls;
    return std::stol(calls);
}

std::vector<std::string> callgrind(const std::string& counts)
{
    return {VALGRIND_PATH, "--quiet", "--tool=callgrind", "--callgrind-out-file=" + counts};
}

std::vector<std::string> strace(const std::string& counts)
{
    return {STRACE_PATH, "-f", "-c", "-o", counts};
}

bool runs(std::vector<std::string> command)
{
    tarvik::launch how;
    how.path = command.front();
    how.arguments.assign(command.begin() + 1, command.end());
    how.errors = tarvik::launch::standard_error::capture;
    return !how.path.empty() &&
           tarvik::child_process(how).wait_for_exit(kPatience) == tarvik::exit_status::exited(0);
}

/// At most a twentieth above the figure.
void expect_about(long figure, long expected)
{
    const long most = expected + expected / 20;
    std::cout << "[          ] " << figure << ", at most " << most << '\n';
    EXPECT_LE(figure, most);
}

struct costs {
    const char* name;
    bytes request;
    bytes reply;
    bool is_logged;
    long instructions;
    long system_calls;
};

class cost : public program_test, public testing::WithParamInterface<costs> {
protected:
    /// Of one request more: what the start, the first request and the end take is no part of it.
    template <typename Count>
    long of_one_request(const std::vector<std::string>& tool, Count count)
    {
        constexpr int kFew = 10;
        constexpr int kMany = 60;
        const long few = of_session(tool, kFew, count);
        return (of_session(tool, kMany, count) - few) / (kMany - kFew);
    }

private:
    template <typename Count>
    long of_session(const std::vector<std::string>& tool, int requests, Count count)
    {
        with_runner(tool);
        // The C library's plainest functions, so that the figures are the same on every processor.
        with_environment("GLIBC_TUNABLES",
                         "glibc.cpu.hwcaps=-AVX512F,-AVX2,-AVX,-ERMS,-FSRM,-SSSE3,-SSE4_1,-SSE4_2");
        with_plugin("plugin_filling");
        if (!GetParam().is_logged)
            with_no_log_directory();
        start_connected();
        open();
        for (int i = 0; i < requests && !HasFailure(); ++i)
            expect_answer(GetParam().request, GetParam().reply);
        close();
        EXPECT_EQ(program().wait_for_exit(kPatience), tarvik::exit_status::exited(0));
        return count(kScratchDirectory + "/" + kCounts);
    }
};

bytes filled(std::size_t size)
{
    return bytes(size, 7);
}

INSTANTIATE_TEST_SUITE_P(
    , cost,
    testing::Values(
        costs{"receive_of_512_bytes", recv_request(512), ok_reply(filled(512)), false, 1'817, 9},
        costs{"receive_of_64_KiB", recv_request(65'536), ok_reply(filled(65'536)), false, 16'040, 9},
        costs{"send_of_512_bytes", send_request(filled(512)), ok_reply(), false, 1'607, 9},
        costs{"send_of_64_KiB", send_request(filled(65'536)), ok_reply(), false, 1'607, 9},
        costs{"logged_receive_of_512_bytes", recv_request(512), ok_reply(filled(512)), true, 24'123, 72}),
    [](const auto& test) { return std::string(test.param.name); });

} // namespace

TEST_P(cost, in_instructions_has_not_grown)
{
    if (std::string(VALGRIND_PATH).empty())
        GTEST_SKIP() << "valgrind is not installed; run scripts/setup";
    expect_about(of_one_request(callgrind(kCounts), instructions), GetParam().instructions);
}

TEST_P(cost, in_system_calls_has_not_grown)
{
    std::vector<std::string> trial = strace("/dev/null");
    trial.emplace_back("/bin/true");
    if (!runs(trial))
        GTEST_SKIP() << "needs strace (run scripts/setup) and a machine that permits ptrace";
    expect_about(of_one_request(strace(kCounts), system_calls), GetParam().system_calls);
}

TEST(cost_of_a_disabled_log_statement, in_instructions_has_not_grown)
{
    SUPPORT_REQUIRE_PRIVATE_PATHS();
    if (std::string(VALGRIND_PATH).empty())
        GTEST_SKIP() << "valgrind is not installed; run scripts/setup";
    const std::string counts = support::kLogRoot + "/" + kCounts;
    const auto of_statements = [&](const std::string& count) {
        std::vector<std::string> command = callgrind(counts);
        command.insert(command.end(), {STATEMENTS_PATH, count});
        EXPECT_TRUE(runs(command));
        return instructions(counts);
    };
    const long few = of_statements("1000");
    expect_about((of_statements("2000") - few) / 1000, 55);
}

} // namespace process_test
