// What plugins do that no plugin should do: what the front-end sees of it, how the program ends, what becomes
// of the device, and that the next program works. misbehaving.cpp among the plugins knows the misdeeds.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>

#include <climits>
#include <optional>
#include <utility>

#include "common/process/unique_fd.h"
#include "front_end/src/front_end_error.h"
#include "process/held_transfer.h"
#include "process/tvkintif/program_test.h"
#include "support/wait_until.h"

namespace process_test {

namespace {

using tarvik::exit_status;

enum class device {
    released,     ///< the program gave it back, and with it any kernel driver
    freed,        ///< the kernel did, when the program had ended
    held_by_child ///< not before the plugin's child ends
};

struct misdeed {
    std::string name;
    std::string what; ///< for misbehaving.cpp
    /// What open, receive, send and close are answered: ok, ng, "end" of the connection, or "nothing" for
    /// ever.
    std::string seen;
    int asked =
        0; ///< the signal by which the program is asked to end, once all that is seen; 0: it ends itself
    exit_status end;
    device left = device::released;
    std::string told = {}; ///< by the plugin beside it, if that matters
    std::string bus = {};  ///< more of its script
};

const std::string kWorks = "ok ok ok end";
const exit_status kNormally = exit_status::exited(0);
const exit_status kByItself = exit_status::exited(3);
const exit_status kWithError = exit_status::exited(1);

exit_status by(int signal_number)
{
    return exit_status::killed_by(signal_number);
}

const std::vector<misdeed> kMisdeeds = {
    {"returns_not_from_load", "load hang", "nothing", SIGKILL, by(SIGKILL)},
    {"returns_not_from_ctor", "ctor hang", "nothing", SIGKILL, by(SIGKILL), device::freed},
    {"returns_not_from_reader", "reader hang", "ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"returns_not_from_writer", "writer hang", "ok ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"returns_not_from_dtor", "dtor hang", "ok ok ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"returns_not_from_unload", "unload hang", "ok ok ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"spins_in_reader", "reader spin", "ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"stops_itself_in_reader", "reader stop", "ok nothing", SIGKILL, by(SIGKILL), device::freed},

    {"crashes_in_load", "load crash", "end", 0, by(SIGSEGV)},
    {"crashes_in_ctor", "ctor crash", "end", 0, by(SIGSEGV), device::freed},
    {"crashes_in_reader", "reader crash", "ok end", 0, by(SIGSEGV), device::freed},
    {"crashes_in_writer", "writer crash", "ok ok end", 0, by(SIGSEGV), device::freed},
    {"crashes_in_dtor", "dtor crash", kWorks, 0, by(SIGSEGV), device::freed},
    {"crashes_in_unload", "unload crash", kWorks, 0, by(SIGSEGV), device::freed},

    {"aborts_in_load", "load abort", "end", 0, by(SIGABRT)},
    {"aborts_in_ctor", "ctor abort", "end", 0, by(SIGABRT), device::freed},
    {"aborts_in_reader", "reader abort", "ok end", 0, by(SIGABRT), device::freed},
    {"aborts_in_writer", "writer abort", "ok ok end", 0, by(SIGABRT), device::freed},
    {"aborts_in_dtor", "dtor abort", kWorks, 0, by(SIGABRT), device::freed},
    {"aborts_in_unload", "unload abort", kWorks, 0, by(SIGABRT), device::freed},

    {"exits_in_load", "load exit", "end", 0, kByItself},
    {"exits_in_ctor", "ctor exit", "end", 0, kByItself},
    {"exits_in_reader", "reader exit", "ok end", 0, kByItself},
    {"exits_in_writer", "writer exit", "ok ok end", 0, kByItself},
    {"exits_in_dtor", "dtor exit", kWorks, 0, kByItself},
    {"exits_in_unload", "unload exit", kWorks, 0, kByItself},
    {"quits_in_reader", "reader quit", "ok end", 0, kByItself, device::freed},
    {"exits_in_a_thread", "reader exit_in_thread", "ok end", 0, kByItself},

    {"throws_in_ctor", "ctor throw", "ng end", 0, kNormally},
    {"throws_in_reader", "reader throw", "ok end", 0, kWithError},
    {"throws_in_writer", "writer throw", "ok ok end", 0, kWithError},
    {"throws_in_dtor", "dtor throw", kWorks, 0, kWithError},
    {"throws_in_unload", "unload throw", kWorks, 0, by(SIGABRT), device::freed},
    {"throws_a_number_in_ctor", "ctor throw_number", "ng end", 0, kNormally},
    {"throws_a_number_in_reader", "reader throw_number", "ok end", 0, kWithError},
    {"throws_its_own_in_ctor", "ctor throw_its_own", "end", 0, by(SIGSEGV), device::freed},
    {"throws_its_own_in_reader", "reader throw_its_own", "ok end", 0, by(SIGSEGV)},
    {"throws_its_own_in_dtor", "dtor throw_its_own", kWorks, 0, kWithError},
    {"throws_in_a_thread", "reader throw_in_thread", "ok end", 0, by(SIGABRT), device::freed},

    {"jumps_back_from_ctor", "ctor jump", "end", 0, by(SIGABRT), device::freed},
    {"jumps_back_from_reader", "reader jump", "ok end", 0, by(SIGABRT), device::freed},
    {"jumps_back_from_writer", "writer jump", "ok ok end", 0, by(SIGABRT), device::freed},
    {"jumps_back_from_dtor", "dtor jump", kWorks, 0, by(SIGABRT), device::freed},

    {"closes_all_in_load", "load close_all", "end", SIGTERM, kNormally},
    {"closes_all_in_ctor", "ctor close_all", "end", SIGTERM, kNormally},
    {"closes_all_in_reader", "reader close_all", "ok end", SIGTERM, kNormally},
    {"closes_all_in_writer", "writer close_all", "ok ok end", SIGTERM, kNormally},
    {"closes_all_in_dtor", "dtor close_all", kWorks, 0, kNormally},
    {"closes_all_in_unload", "unload close_all", kWorks, 0, kNormally},

    {"prints_without_end_in_load", "load print", "nothing", SIGKILL, by(SIGKILL)},
    {"prints_without_end_in_ctor", "ctor print", "nothing", SIGKILL, by(SIGKILL), device::freed},
    {"prints_without_end_in_reader", "reader print", "ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"prints_without_end_in_writer", "writer print", "ok ok nothing", SIGKILL, by(SIGKILL), device::freed},
    {"prints_without_end_in_dtor", "dtor print", "ok ok ok nothing", SIGKILL, by(SIGKILL), device::freed},

    {"changes_directory", "ctor change_directory", kWorks, 0, kNormally},
    {"changes_umask", "ctor change_umask", kWorks, 0, kNormally},
    {"changes_locale", "ctor change_locale", kWorks, 0, kNormally},
    {"ignores_signals", "ctor ignore_signals", kWorks, 0, kNormally},
    {"blocks_signals", "ctor block_signals", kWorks, 0, kNormally},
    {"resets_handlers", "ctor reset_handlers", kWorks, 0, kNormally},
    {"resets_handlers_and_sigterm_comes", "ctor reset_handlers; reader hang", "ok nothing", SIGTERM,
     by(SIGTERM), device::freed},
    {"lets_a_timer_end_the_process", "reader arm_timer", "ok end", 0, by(SIGALRM), device::freed},
    {"forbids_files", "reader forbid_files", "ok end", 0, by(SIGXFSZ), device::freed},

    {"forks", "ctor fork", "ok ok ok nothing", 0, kNormally},
    {"forks_and_crashes", "ctor fork; reader crash", "ok nothing", 0, by(SIGSEGV), device::held_by_child},
    {"forks_and_hangs", "ctor fork; reader hang", "ok nothing", SIGKILL, by(SIGKILL), device::held_by_child},
    {"starts_a_helper", "ctor execute", kWorks, 0, kNormally},
    {"starts_a_helper_and_crashes", "ctor execute; reader crash", "ok end", 0, by(SIGSEGV), device::freed},

    {"leaves_a_thread", "ctor leave_thread", kWorks, 0, kNormally},
    {"leaves_a_thread_in_a_transfer", "ctor transfer_in_thread", kWorks, 0, kNormally, device::released, "",
     "transfer scanner 81 hold " + kScratchDirectory + "/held_transfer\n"},
    {"overflows_the_stack", "reader use_much_stack", "ok end", 0, by(SIGSEGV), device::freed},
    {"uses_64_mebibytes_of_its_own_stack", "reader use_much_stack_in_thread", kWorks, 0, kNormally},
    {"unloads_itself", "reader unload_itself", "ok end", 0, by(SIGSEGV), device::freed},

    {"transfers_in_dtor", "dtor transfer", kWorks, 0, kNormally, device::released, "read 1, wrote 1"},
    {"transfers_in_unload", "unload transfer", kWorks, 0, kNormally, device::released, "read 1, wrote 1"},
    {"transfers_after_close", "load stay_loaded; unload transfer", kWorks, 0, kNormally, device::released,
     "read 0, wrote 0"},
    {"transfers_to_null", "ctor transfer_null", kWorks, 0, kNormally, device::released, "read 0, wrote 0"},
    {"transfers_nothing", "ctor transfer_nothing", kWorks, 0, kNormally, device::released, "read 0, wrote 0"},
    {"transfers_a_negative_length", "ctor transfer_negative", kWorks, 0, kNormally, device::released,
     "read 0, wrote 0"},
    {"transfers_the_least_length", "ctor transfer_least", kWorks, 0, kNormally, device::released,
     "read 0, wrote 0"},
    {"transfers_the_largest_length", "ctor transfer_most", kWorks, 0, kNormally, device::released,
     "read 0, wrote 0", "fail bulk_transfer LIBUSB_ERROR_NO_MEM times 2\n"},

    {"starts_with_a_negative_answer", "ctor " + std::to_string(INT_MIN), kWorks, 0, kNormally},
    {"reads_more_than_asked", "reader 6", kWorks, 0, kNormally},
    {"reads_a_negative_count", "reader -1", kWorks, 0, kNormally},
    {"reads_the_least_count", "reader " + std::to_string(INT_MIN), kWorks, 0, kNormally},
    {"writes_more_than_asked", "writer 2", kWorks, 0, kNormally},
    {"writes_the_least_count", "writer " + std::to_string(INT_MIN), kWorks, 0, kNormally},
    {"reads_nothing", "reader 0", "ok ng ok end", 0, kNormally},
};

} // namespace

class misbehaving_plugin : public program_test, public testing::WithParamInterface<misdeed> {
protected:
    void SetUp() override
    {
        program_test::SetUp();
        with_plugin("plugin_misbehaving");
        with_environment("MISDEEDS", GetParam().what);
        // A crash is to look like one, and what a plugin leaves behind is its own.
        with_environment("ASAN_OPTIONS", "verify_asan_link_order=0:detect_leaks=0:handle_segv=0");
        with_bus(bus() + GetParam().bus);
        if (GetParam().bus.find(" hold ") != std::string::npos)
            m_held.emplace();
    }

    static std::string bus()
    {
        return "clock recorded\nshare_claims " + kScratchDirectory + "\ndevice scanner 1a2b:3c4d\n";
    }

    /// What the front-end sees, up to what is not a reply.
    std::string seen_in_a_session()
    {
        start_connected();
        limit(RLIMIT_CORE, 0);
        limit(RLIMIT_CPU, 20); // of seconds, for what must not spin
        limit(RLIMIT_STACK, 8U << 20U);
        const std::vector<std::pair<bytes, bytes>> requests = {
            {open_request(), ok_reply()},
            {recv_request(5), ok_reply(device_bytes(5))},
            {send_request({1}), ok_reply()},
            {close_request(), ok_reply()},
        };
        std::string all;
        for (const auto& [request, reply] : requests) {
            const std::string outcome = outcome_of(request, reply);
            if (all.empty() && m_held) {
                EXPECT_TRUE(m_held->is_reached());
            }
            all += (all.empty() ? "" : " ") + outcome;
            if (outcome != "ok" && outcome != "ng")
                break;
        }
        return all;
    }

    device state_of_device() const
    {
        const std::string path = kScratchDirectory + "/scanner";
        const tarvik::unique_fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (flock(file.get(), LOCK_EX | LOCK_NB) != 0)
            return device::held_by_child;
        const bool is_given_back =
            usb_lines_about("claim_interface").size() == usb_lines_about("release_interface").size();
        return is_given_back ? device::released : device::freed;
    }

    /// What the plugin answers itself in the dialogue.
    std::string told() const
    {
        std::string all;
        for (const std::string word : {"read ", "wrote "})
            for (const std::string& line : usb_lines_about("misbehaving " + word))
                all += (all.empty() ? "" : ", ") + line.substr(line.find(word));
        return all;
    }

    void end_child()
    {
        for (const std::string& line : usb_lines_about("misbehaving child "))
            kill(std::stoi(line.substr(line.rfind(' '))), SIGKILL);
        ASSERT_TRUE(
            support::wait_until(kPatience, [&] { return state_of_device() != device::held_by_child; }));
    }

    std::optional<held_transfer> m_held; ///< one that a thread of the plugin is in

private:
    void limit(__rlimit_resource resource, rlim_t value) const
    {
        const rlimit both = {value, value};
        ASSERT_EQ(prlimit(pid(), resource, &both, nullptr), 0);
    }

    bool is_answered()
    {
        pollfd answer = {wire().descriptor(), POLLIN, 0};
        return poll(&answer, 1, 0) > 0;
    }

    /// Whether nobody is left to answer, though somebody keeps the connection open: the plugin says that it
    /// does no more, or the program has ended and left a child.
    bool is_nobody_left()
    {
        return !usb_lines_about("misbehaving stays").empty() ||
               (GetParam().what.find("fork") != std::string::npos &&
                program().try_wait_for_exit(tarvik::milliseconds{0}));
    }

    std::string outcome_of(const bytes& request, const bytes& ok)
    {
        try {
            tell(request);
            if (!support::wait_until(kPatience, [this] { return is_answered() || is_nobody_left(); }))
                return "no answer in time";
            if (!is_answered())
                return "nothing";
            bytes reply = wire().read(ng_reply().size());
            if (reply == ng_reply())
                return "ng";
            return reply + wire().read(ok.size() - reply.size()) == ok ? "ok" : "another reply";
        } catch (const tarvik::front_end_error&) {
            return "end";
        }
    }
};

TEST_P(misbehaving_plugin, leaves_the_next_program_working)
{
    const misdeed& expected = GetParam();
    EXPECT_EQ(seen_in_a_session(), expected.seen);
    if (expected.asked != 0)
        send_signal(expected.asked);
    EXPECT_EQ(program().wait_for_exit(kPatience), expected.end);
    EXPECT_EQ(state_of_device(), expected.left);
    EXPECT_EQ(told(), expected.told);
    end_child();

    forget_usb();
    m_held.reset();
    with_environment("MISDEEDS", "");
    with_bus(bus());
    EXPECT_EQ(seen_in_a_session(), kWorks);
    EXPECT_EQ(program().wait_for_exit(kPatience), kNormally);
    EXPECT_EQ(state_of_device(), device::released);
}

INSTANTIATE_TEST_SUITE_P(that, misbehaving_plugin, testing::ValuesIn(kMisdeeds),
                         [](const auto& test) { return test.param.name; });

} // namespace process_test
