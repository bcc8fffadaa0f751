// Much of everything, for scripts/soak: how much, and from which seed, it tells in the environment. Each test
// prints a row of the table that the script ends with.

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>
#include <stdexcept>

#include "process/tvkintif/model/player.h"
#include "support/private_paths.h"
#include "support/proc_files.h"

namespace process_test {

namespace {

std::uint64_t setting(const char* name)
{
    const char* const text = std::getenv(name);
    if (text == nullptr)
        throw std::runtime_error(std::string(name) + " is not set; scripts/soak does that");
    return std::stoull(text);
}

/// A claim that a process leaves behind keeps the next one from the device.
const std::string kSharedBus =
    "clock recorded\nshare_claims " + support::kLogRoot + "\ndevice scanner 1a2b:3c4d\n";

/// What a process holds, and how it has changed.
class holdings {
public:
    explicit holdings(pid_t process) : m_process(process) { look(); }

    /// Fails when more is held than at the start; what the allocator keeps goes up and down a little.
    void expect_flat()
    {
        look();
        EXPECT_EQ(m_descriptors.back(), m_descriptors.front()) << "descriptors";
        EXPECT_LE(m_memory.back(), m_memory.front() + kTolerance) << "KiB of memory";
    }

    std::string text() const
    {
        return std::to_string(m_memory.front()) + " KiB and " + std::to_string(m_descriptors.front()) +
               " descriptors, then " + std::to_string(m_memory.back()) + " and " +
               std::to_string(m_descriptors.back());
    }

private:
    static constexpr std::size_t kTolerance = 512; // KiB

    void look()
    {
        m_memory.push_back(support::resident_memory(m_process));
        m_descriptors.push_back(support::open_descriptors(m_process));
    }

    pid_t m_process;
    std::vector<std::size_t> m_memory;
    std::vector<std::size_t> m_descriptors;
};

} // namespace

class soak : public session_model::player {
protected:
    const std::uint64_t count = setting("SOAK_COUNT");
    const std::uint64_t seed = setting("SOAK_SEED");
    std::mt19937_64 random{seed};

    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(random() % limit); }

    bytes some_bytes(std::size_t size)
    {
        bytes data(size);
        std::generate(data.begin(), data.end(), [this] { return static_cast<unsigned char>(below(256)); });
        return data;
    }

    /// A session that has to work: what came before must not be in its way.
    void expect_good_session()
    {
        set_up_machine();
        with_bus(kSharedBus);
        start_connected();
        open();
        expect_answer(send_request(some_bytes(1 + below(100))), ok_reply());
        expect_answer(recv_request(64), ok_reply(device_bytes(64)));
        close_and_expect_end();
        expect_nothing_left();
        hang_up();
    }

    void expect_nothing_left() { expect_usb_about("LEFT BEHIND", {}); }

    /// A row of the table.
    void report(const std::string& what, const std::string& held) const
    {
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - m_start);
        std::cout << "| " << what << " | " << count << " | " << seed << " | " << seconds.count() << " s | "
                  << (HasFailure() ? "FAILED" : "passed") << " | " << held << " |" << std::endl;
    }

private:
    const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

TEST_F(soak, sessions)
{
    play(seed, setting("SOAK_FIRST"), count);
    report("sessions as the model predicts", "");
}

TEST_F(soak, requests)
{
    constexpr std::size_t kAtOnce = 50;
    constexpr std::size_t kRequestsOfAPair = 4;
    with_no_log_directory();
    with_plugin("plugin_silent"); // the record of the calls would grow
    start_connected();
    open();
    std::optional<holdings> program;
    for (std::uint64_t done = 0; done < count && !HasFailure(); done += kAtOnce * kRequestsOfAPair) {
        bytes requests;
        bytes replies;
        for (std::size_t i = 0; i < kAtOnce; ++i) {
            const bytes data = some_bytes(1 + below(512));
            const auto id = static_cast<std::uint32_t>(2 + below(100));
            requests = std::move(requests) + send_request(data) +
                       recv_request(static_cast<std::uint32_t>(data.size())) + query_request(1) +
                       frame(id, 8, 1);
            replies = std::move(replies) + ok_reply() + ok_reply(data) + ok_reply(bytes(4)) + nak_reply(id);
        }
        expect_answer(requests, replies);
        if (program)
            program->expect_flat();
        else
            program.emplace(pid());
    }
    close_and_expect_end();
    report("requests to one process", program->text());
}

TEST_F(soak, processes)
{
    expect_good_session();
    holdings own(getpid());
    for (std::uint64_t done = 0; done < count && !HasFailure(); ++done)
        expect_good_session();
    own.expect_flat();
    report("processes one after the other", "the one that starts them: " + own.text());
}

TEST_F(soak, kills)
{
    // A session of which the signal may fall into any part.
    const bytes stream = open_request() + send_request(pattern(200)) + recv_request(3000) +
                         send_request(pattern(50)) + recv_request(100) + query_request(2);
    const rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    const std::vector<int> signals = {SIGKILL, SIGTERM, SIGINT, SIGHUP, SIGABRT, SIGSEGV, SIGQUIT};
    for (const int number :
         signals) // a shell in the background ignores some, and the program would inherit that
        if (number != SIGKILL)
            signal(number, SIG_DFL);
    expect_good_session();
    holdings own(getpid());
    for (std::uint64_t done = 0; done < count && !HasFailure(); ++done) {
        set_up_machine();
        with_bus(kSharedBus);
        start_connected();
        const auto sent = static_cast<std::ptrdiff_t>(below(stream.size() + 1));
        tell(bytes(stream.begin(), stream.begin() + sent));
        for (volatile std::size_t turns = below(200'000); turns > 0; turns = turns - 1) {
            // how far the program gets meanwhile is up to chance
        }
        const int number = signals[below(signals.size())];
        send_signal(number);
        const bool is_orderly = number == SIGTERM || number == SIGINT || number == SIGHUP;
        hang_up();
        EXPECT_EQ(program().wait_for_exit(kPatience),
                  is_orderly ? tarvik::exit_status::exited(0) : tarvik::exit_status::killed_by(number));
        expect_nothing_left();
        expect_good_session();
    }
    own.expect_flat();
    report("kills, each followed by a session", "the one that starts them: " + own.text());
}

} // namespace process_test
