// Whatever a call of libusb, an allocation or a system call fails with, and whichever of them it is: the
// program answers each request or ends, writes whole lines, and leaves nothing behind.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "process/faults/session.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"
#include "tvkintif/src/models.h"

using namespace process_test;

namespace faults {

namespace {

const std::string kInto = "transfer scanner 81";
const std::string kOutOf = "transfer scanner 02";
const std::string kStall = " result LIBUSB_ERROR_PIPE count 0\n";
const std::string kTwins = "device twin 1a2b:3c4d serial A1\ndevice scanner 1a2b:3c4d serial A2\n";
const std::string kScanner = "device scanner 1a2b:3c4d\n";

exchange opening(const std::string& address = "usb:1a2b:3c4d")
{
    return {open_request(address), ok_reply()};
}

exchange refused(const bytes& request)
{
    return {request, ng_reply()};
}

exchange receiving(std::size_t count, std::size_t from = 0)
{
    const bytes all = device_bytes(from + count);
    return {recv_request(static_cast<std::uint32_t>(count)),
            ok_reply({all.begin() + static_cast<std::ptrdiff_t>(from), all.end()})};
}

const exchange kSending = {send_request(pattern(9)), ok_reply()};
const exchange kAsking = {query_request(1), ok_reply(bytes(4))};
const exchange kClosing = {close_request(), {}};

const std::vector<session>& sessions()
{
    static const std::vector<session> all = {
        {"by_ids", kScanner, {opening(), kAsking, kSending, receiving(5), kClosing}},
        {"by_serial_number", kTwins, {opening("usb:1a2b:3c4d:A2"), receiving(7), kClosing}},
        {"serial_number_of_nobody", kTwins, {opening("usb:1a2b:3c4d:A3"), kClosing}},
        {"stalls",
         kScanner + kInto + kStall + kOutOf + kStall,
         {opening(), refused(recv_request(5)), receiving(5), refused(kSending.request), kSending, kClosing}},
        {"hang_up",
         kScanner,
         {opening(), opening(), {frame(2, 7, 5), nak_reply(2)}, receiving(3), receiving(4, 3)}},
        {"kernel_driver", kScanner + " kernel_driver 0\n", {opening(), receiving(5), kClosing}},
        {"other_configuration",
         "device scanner 1a2b:3c4d\n active_configuration 2\n configuration 2\n interface 0 07 01\n endpoint "
         "83\n"
         " configuration 1\n interface 1\n endpoint 81\n endpoint 02\n",
         {opening(), kSending, kClosing}},
        {"several_interfaces",
         "device scanner 1a2b:3c4d\n kernel_driver 0\n kernel_driver 1\n configuration 1\n"
         " interface 0\n endpoint 83\n interface 1\n setting\n endpoint 81\n endpoint 02\n",
         {opening(), kSending, receiving(6), kClosing}},
        {"no_interface",
         "device scanner 1a2b:3c4d\n configuration 1\n interface 0\n endpoint 81\n",
         {refused(open_request())}},
        {"no_device", "", {refused(open_request())}},
        {"no_address", kScanner, {refused(open_request("usb:1a2b"))}},
        {"without_open",
         kScanner,
         {refused(kSending.request), refused(recv_request(3)), refused(frame(1, 99)), kAsking}},
    };
    return all;
}

constexpr std::size_t kHeaderSize = 20;
constexpr std::size_t kMostLog = 256 * 1024;   ///< bytes; of a program that fails for a minute
constexpr int kStride = kIsSanitized ? 11 : 1; ///< one in so many runs is made

/// What the failure of one libusb call does to the replies. That of any other is made good by the next
/// attempt to open the device, or the search by ids.
enum class effect { none, refuses_open, fails_transfer, keeps_stall };

const std::map<std::string, effect>& effects()
{
    static const std::map<std::string, effect> all = {
        {"init", effect::refuses_open},
        {"get_device_list", effect::none},
        {"get_device_descriptor", effect::none},
        {"open", effect::none},
        {"get_string_descriptor_ascii", effect::none},
        {"open_device_with_vid_pid", effect::none},
        {"get_device", effect::none},
        {"get_configuration", effect::none},
        {"get_config_descriptor", effect::none},
        {"set_configuration", effect::none},
        {"kernel_driver_active", effect::none},
        {"detach_kernel_driver", effect::none},
        {"attach_kernel_driver", effect::none},
        {"claim_interface", effect::none},
        {"release_interface", effect::none},
        {"bulk_transfer", effect::fails_transfer},
        {"clear_halt", effect::keeps_stall},
    };
    return all;
}

/// Those that return nothing cannot fail.
const std::set<std::string> kWithoutResult = {"set_debug", "free_device_list", "free_config_descriptor",
                                              "close", "exit"};

/// All that libusb names, and some that it does not.
std::vector<int> results_of(const std::string& function)
{
    if (function == "get_device" || function == "open_device_with_vid_pid")
        return {-1}; // they return null, whatever the reason
    std::vector<int> all = {-1, -2, -3, -4, -5, -6, -7, -8, -9, -10, -11, -12, -99, -1000};
    if (function == "get_device_list")
        all.push_back(0); // an empty bus, which is no list at all
    else
        all.insert(all.end(), {1, 2, 127});
    return all;
}

/// The functions of libusb that a run called, in their order.
std::vector<std::string> libusb_calls(const outcome& seen)
{
    std::vector<std::string> all;
    for (const std::string& line : seen.dialogue) {
        const std::string function = line.substr(0, line.find(' '));
        if (effects().count(function) != 0 || kWithoutResult.count(function) != 0)
            all.push_back(function);
    }
    return all;
}

int occurrences(const std::string& text, const std::string& what)
{
    int count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

/// Which of the transfers, and which of the times that a stall is cleared, fails; 0: none.
struct failing_transfer {
    int transfer = 0;
    int clearing = 0;
};

/// The replies of a session in which every open succeeds.
class replies_to {
public:
    replies_to(const session& what, failing_transfer failing) : m_failing(failing)
    {
        m_in.stalls = occurrences(what.bus, kInto);
        m_out.stalls = occurrences(what.bus, kOutOf);
        for (const exchange& each : what.exchanges)
            m_all = std::move(m_all) + reply(each);
    }

    const bytes& all() const { return m_all; }

private:
    struct endpoint {
        int stalls = 0;
        bool is_halted = false;
        std::size_t position = 0;
    };

    bytes reply(const exchange& each)
    {
        const bool is_send = each.request.at(7) == 6;
        const bool is_received = each.request.at(7) == 7 && each.request.at(3) == 1;
        if (!is_send && !is_received)
            return each.reply;
        endpoint& used = is_send ? m_out : m_in;
        if (!succeeds(used))
            return ng_reply();
        if (is_send)
            return ok_reply();
        const std::size_t count = each.request.at(19);
        used.position += count;
        const bytes given = device_bytes(used.position);
        return ok_reply({given.end() - static_cast<std::ptrdiff_t>(count), given.end()});
    }

    bool succeeds(endpoint& used)
    {
        if (++m_transfers == m_failing.transfer)
            return false;
        if (!used.is_halted && used.stalls == 0)
            return true;
        if (!used.is_halted)
            --used.stalls;
        used.is_halted = ++m_clearings == m_failing.clearing;
        return false;
    }

    failing_transfer m_failing;
    endpoint m_in;
    endpoint m_out;
    int m_transfers = 0;
    int m_clearings = 0;
    bytes m_all;
};

/// The replies when libusb call number `nth` of these fails.
bytes replies_with_failure(const session& what, const std::vector<std::string>& calls, int nth)
{
    const std::string& failing = calls.at(static_cast<std::size_t>(nth) - 1);
    const auto which = static_cast<int>(std::count(calls.begin(), calls.begin() + nth, failing));
    const bytes& first = what.exchanges.front().reply;
    switch (effects().at(failing)) {
    case effect::refuses_open:
        return ng_reply();
    case effect::fails_transfer:
        return replies_to(what, {which, 0}).all();
    case effect::keeps_stall:
        return replies_to(what, {0, which}).all();
    default:
        return first == ng_reply() ? first : replies_to(what, {}).all();
    }
}

std::uint32_t field(const bytes& all, std::size_t offset)
{
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < 4; ++i)
        number = number << 8U | all.at(offset + i);
    return number;
}

/// The pieces in which the replies were written. Fails for anything that is no reply.
std::vector<bytes> messages(const bytes& stream)
{
    std::vector<bytes> all;
    for (std::size_t at = 0; at < stream.size();) {
        const bytes rest(stream.begin() + static_cast<std::ptrdiff_t>(at), stream.end());
        const bool is_whole = rest.size() >= kHeaderSize && rest.size() - kHeaderSize >= field(rest, 12);
        if (!is_whole || field(rest, 4) != 0 || (field(rest, 8) + 1U) > 1U || field(rest, 16) != 0) {
            ADD_FAILURE() << "not a reply: " << hex(rest);
            break;
        }
        const std::size_t size = kHeaderSize + field(rest, 12);
        all.emplace_back(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(size));
        at += size;
    }
    return all;
}

/// One reply for each request in its order, the usual one or ng, until the program ends.
void expect_answers(const session& what, const outcome& seen, bool may_end_early)
{
    const std::vector<bytes> replies = messages(seen.replies);
    std::size_t next = 0;
    for (const exchange& each : what.exchanges) {
        if (each.request == kClosing.request)
            break;
        if (next == replies.size()) {
            EXPECT_TRUE(may_end_early) << "no reply to request " << next + 1;
            return;
        }
        const bytes& reply = replies.at(next++);
        const bool is_open = field(each.request, 4) == 4;
        const bytes refusal = ng_reply(is_open ? 1 : field(each.request, 0));
        const bool is_usual_kind =
            field(reply, 8) == field(each.reply, 8) && reply.size() == each.reply.size();
        EXPECT_TRUE(is_usual_kind || reply == refusal) << "reply " << next << ": " << hex(reply);
        if (is_open && reply == refusal)
            break;
    }
    EXPECT_EQ(next, replies.size()) << "replies to nothing";
}

/// Each line with its header, and no line without its end; `lost_ends` may be missing.
void expect_whole_lines(const outcome& seen, int lost_ends)
{
    const std::string id = std::to_string(seen.process);
    int headers = 0;
    std::size_t begin = 0;
    for (std::size_t end = seen.log.find('\n'); end != std::string::npos; end = seen.log.find('\n', begin)) {
        const std::string line = seen.log.substr(begin, end - begin);
        begin = end + 1;
        int hour = 0, minute = 0, second = 0, fraction = 0, process = 0, thread = 0, length = 0;
        char level[8] = {};
        std::sscanf(line.c_str(), "[%2d:%2d:%2d.%5d][%d](%d)[%7[A-Z]]%n", &hour, &minute, &second, &fraction,
                    &process, &thread, level, &length);
        if (line.empty() && lost_ends > 0) // the end of a line that was dropped
            continue;
        EXPECT_GT(length, 0) << "not a line: " << line;
        headers += occurrences(line, "][" + id + "](" + id + ")[") - 1;
    }
    EXPECT_LE(headers, lost_ends) << "lines run together";
    EXPECT_TRUE(begin == seen.log.size() || lost_ends > 0) << "the log ends within a line";
    EXPECT_LT(seen.log.size(), kMostLog);
}

std::string describe(const std::string& what, int nth, int result, logging how)
{
    const char* const names[] = {"off", "info", "trace"};
    return what + ", call " + std::to_string(nth) + " -> " + std::to_string(result) + ", log " +
           names[static_cast<int>(how)];
}

/// Runs sessions with failures and holds what is true of each of them.
class failures : public testing::TestWithParam<session> {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        if (const std::string reason = why_not(); !reason.empty())
            GTEST_SKIP() << reason;
        support::remove_plugins();
        support::install_plugin("plugin_good", kDefaultPlugin);
    }

    void TearDown() override
    {
        std::printf("[  FAULTS  ] %d runs with a failure%s\n", m_runs,
                    kIsSanitized ? ", one in 11 of all: more would take the sanitizers too long" : "");
    }

    /// A run in which nothing fails.
    outcome healthy_run(logging how)
    {
        const outcome seen = expect_sound({}, how);
        bytes expected;
        for (const exchange& each : GetParam().exchanges)
            expected = std::move(expected) + each.reply;
        EXPECT_EQ(hex(seen.replies), hex(expected));
        EXPECT_EQ(seen.status, 0);
        return seen;
    }

    /// A run, and what is true of each.
    outcome expect_sound(const injection& what, logging how, bool may_be_unannounced = false,
                         bool may_forget_socket = false)
    {
        const outcome seen = run(GetParam(), what, how);
        const report& told = shared_report();
        m_runs += what.what == target::libusb || told.injected > 0 ? 1 : 0;
        EXPECT_TRUE(WIFEXITED(seen.status) && WEXITSTATUS(seen.status) <= 1) << "status " << seen.status;
        EXPECT_TRUE(told.has_concluded);
        const bool is_announced = seen.output == std::to_string(told.port) + "\n";
        EXPECT_TRUE(is_announced || may_be_unannounced || (seen.output == "-1\n" && seen.status != 0))
            << "announced: " << seen.output;
        expect_nothing_left(seen, may_forget_socket);
        return seen;
    }

    static void expect_nothing_left(const outcome& seen, bool may_forget_socket = false)
    {
        std::map<std::string, int> plugin;
        for (const std::string& line : seen.dialogue) {
            ++plugin[line];
            const bool is_socket = may_forget_socket && line.find(" descriptors") != std::string::npos;
            EXPECT_TRUE(is_socket || line.rfind("LEFT BEHIND", 0) != 0) << line;
            EXPECT_NE(line.rfind("MISUSE", 0), 0U) << line;
        }
        EXPECT_EQ(plugin["plugin_good loaded"], plugin["plugin_good unloaded"]);
        EXPECT_EQ(plugin["plugin_good ctor"], plugin["plugin_good dtor"]);
    }

    static void expect_whole_log(const outcome& seen, logging how)
    {
        if (how == logging::off) {
            EXPECT_EQ(seen.log, "");
            return;
        }
        if (seen.output == "-1\n" && seen.log.empty()) // there was no memory for the settings
            return;
        expect_whole_lines(seen, 0);
        EXPECT_EQ(occurrences(seen.log, "--- Leave int interface ---\n"), 1);
        if (seen.status == 0) {
            EXPECT_EQ(occurrences(seen.log, "enter close\n"), occurrences(seen.log, "leave close\n"));
            EXPECT_EQ(occurrences(seen.log, "Leave do_cleanup 1\n"), 1);
        } else {
            EXPECT_EQ(occurrences(seen.log, "std::bad_alloc\n"), 1);
        }
    }

    /// A new program finds the devices as they were left, and opens them.
    void expect_next_program_works()
    {
        const bus_state left = shared_report().devices;
        if (!m_proven.insert(left).second)
            return;
        const outcome seen = run(GetParam(), {}, logging::off, &left);
        expect_answers(GetParam(), seen, false);
        EXPECT_EQ(seen.status, 0);
        expect_nothing_left(seen);
        const bytes& first = GetParam().exchanges.front().reply;
        EXPECT_EQ(
            hex({seen.replies.begin(), seen.replies.begin() + static_cast<std::ptrdiff_t>(kHeaderSize)}),
            hex(first));
    }

    /// Under the sanitizers, with which each run takes longer, only some are made.
    bool is_in_sample() { return m_turns++ % kStride == 0; }

    int m_turns = 0;
    int m_runs = 0;
    std::set<bus_state> m_proven;
};

std::vector<session> sessions_with(const std::set<std::string>& names)
{
    std::vector<session> some;
    std::copy_if(sessions().begin(), sessions().end(), std::back_inserter(some),
                 [&](const session& each) { return names.count(each.name) != 0; });
    return some;
}

const auto name_of = [](const testing::TestParamInfo<session>& each) { return each.param.name; };

class failing_libusb : public failures {};
INSTANTIATE_TEST_SUITE_P(, failing_libusb, testing::ValuesIn(sessions()), name_of);

TEST_P(failing_libusb, call_changes_only_the_reply_that_it_concerns)
{
    const std::vector<std::string> calls = libusb_calls(healthy_run(logging::off));
    for (int nth = 1; nth <= static_cast<int>(calls.size()) && !HasFailure(); ++nth) {
        const std::string& function = calls[static_cast<std::size_t>(nth) - 1];
        if (kWithoutResult.count(function) != 0)
            continue;
        const bytes expected = replies_with_failure(GetParam(), calls, nth);
        for (const int result : results_of(function)) {
            const auto how = static_cast<logging>(m_turns % 3);
            if (!is_in_sample())
                continue;
            SCOPED_TRACE(describe(function, nth, result, how));
            const outcome seen = expect_sound({target::libusb, nth, result}, how);
            EXPECT_EQ(hex(seen.replies), hex(expected));
            EXPECT_EQ(seen.status, 0);
            expect_whole_log(seen, how);
            expect_next_program_works();
        }
    }
}

TEST_P(failing_libusb, calls_from_any_one_on_are_answered)
{
    const std::vector<std::string> calls = libusb_calls(healthy_run(logging::off));
    for (int nth = 1; nth <= static_cast<int>(calls.size()) && !HasFailure(); ++nth)
        for (const int result : {-1, -4, -9}) {
            if (!is_in_sample())
                continue;
            SCOPED_TRACE(describe("all", nth, result, logging::info));
            const outcome seen = expect_sound({target::libusb, nth, result, true}, logging::info);
            expect_answers(GetParam(), seen, false);
            EXPECT_EQ(seen.status, 0);
            expect_whole_log(seen, logging::info);
            expect_next_program_works();
        }
}

class failing_allocation : public failures {
protected:
    /// Until the session needs no allocation more.
    void expect_each_to_end_well(bool is_for_ever)
    {
        for (const logging how : {logging::off, logging::info, logging::trace}) {
            healthy_run(how);
            const long blocks_left = shared_report().blocks_left;
            for (int nth = 1; !HasFailure(); ++nth) {
                if (!is_in_sample())
                    continue;
                SCOPED_TRACE(describe("allocation", nth, 0, how));
                const outcome seen = expect_sound({target::allocation, nth, 0, is_for_ever}, how);
                if (shared_report().injected == 0)
                    break;
                expect_answers(GetParam(), seen, seen.status != 0);
                expect_whole_log(seen, how);
                EXPECT_LE(shared_report().blocks_left, blocks_left);
                expect_next_program_works();
            }
        }
    }
};
INSTANTIATE_TEST_SUITE_P(, failing_allocation,
                         testing::ValuesIn(sessions_with({"by_ids", "by_serial_number", "stalls",
                                                          "several_interfaces", "no_device", "no_address"})),
                         name_of);

TEST_P(failing_allocation, is_a_refusal_or_an_orderly_end)
{
    expect_each_to_end_well(false);
}

TEST_P(failing_allocation, for_good_is_a_refusal_or_an_orderly_end)
{
    expect_each_to_end_well(true);
}

/// What no machine in trouble lets fail. Of a standard stream fcntl() only asks whether it is open.
bool cannot_fail(const made_call& call)
{
    return call.number == SYS_getpid || call.number == SYS_gettid || call.number == SYS_futex ||
           (call.number == SYS_fcntl && call.descriptor <= 2);
}

/// The sanitizer's own memory comes from these, and it ends the process without.
bool is_about_memory(long number)
{
    return number == SYS_mmap || number == SYS_munmap || number == SYS_mprotect || number == SYS_madvise ||
           number == SYS_brk;
}

class failing_system_call : public failures {
protected:
    std::vector<made_call> healthy_calls(logging how)
    {
        m_healthy = expect_sound({target::system_call}, how);
        const report& told = shared_report();
        std::vector<made_call> calls(told.made.begin(),
                                     told.made.begin() + static_cast<std::ptrdiff_t>(told.system_calls));
        for (const made_call& each : calls)
            if (each.number == SYS_setsockopt)
                m_connection = each.descriptor; // the last of these is about that
        return calls;
    }

    /// Null when the call is not to fail.
    static const failing_call* kind_of(const made_call& call)
    {
        if (cannot_fail(call) || (kIsSanitized && is_about_memory(call.number)))
            return nullptr;
        for (const failing_call& each : failing_calls())
            if (each.number == call.number)
                return &each;
        EXPECT_TRUE(kIsSanitized) << "system call " << call.number << " is not in the table of injection.cpp";
        return nullptr;
    }

    void expect_to_end_well(const std::vector<made_call>& calls, std::size_t at, int error, bool is_for_ever,
                            logging how)
    {
        const made_call& call = calls[at];
        const auto nth = static_cast<int>(
            std::count_if(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(at) + 1,
                          [&](const made_call& each) { return each.number == call.number; }));
        SCOPED_TRACE(describe(kind_of(call)->name, nth, -error, how) + (is_for_ever ? ", for ever" : ""));
        // The test learns the port when something listens on it.
        const bool is_told = call.number == SYS_listen || (call.number == SYS_write && call.descriptor == 1);
        const bool is_socket =
            call.number == SYS_socket || call.number == SYS_bind || call.number == SYS_getsockname;
        const outcome seen = expect_sound({target::system_call, nth, error, is_for_ever, call.number}, how,
                                          is_told || is_socket, is_socket);
        const report& told = shared_report();
        EXPECT_TRUE(told.injected >= 1 || is_about_memory(call.number)) << "the call was not made";
        EXPECT_LT(told.system_calls, calls.size() + (told.paused / 1000 + 10) * 100) << "it does not rest";
        expect_replies(calls, at, seen, is_for_ever);
        expect_whole_lines(seen, how == logging::off ? 0 : told.injected);
        if (call.number == SYS_writev && !is_for_ever) {
            EXPECT_EQ(hex(seen.replies), hex(m_healthy.replies));
            EXPECT_GE(pieces(seen), pieces(m_healthy) - 1) << "more was lost than one message or line end";
        }
        expect_next_program_works();
    }

    /// What the log consists of: headers with their messages, and line ends.
    static int pieces(const outcome& seen)
    {
        const std::string id = std::to_string(seen.process);
        return occurrences(seen.log, "][" + id + "](" + id + ")[") + occurrences(seen.log, "\n");
    }

    void expect_replies(const std::vector<made_call>& calls, std::size_t at, const outcome& seen,
                        bool is_for_ever)
    {
        const made_call& call = calls[at];
        const bool is_on_connection = call.descriptor == m_connection;
        if (call.number == SYS_read && is_on_connection)
            messages(seen.replies); // what was not read of one request is taken for the next one
        else if (call.number == SYS_write && (is_on_connection || is_for_ever))
            EXPECT_EQ(hex(seen.replies), hex(replies_without(write_number(calls, at), is_for_ever)));
        else
            expect_answers(GetParam(), seen, seen.status != 0 || shared_report().paused >= kLongEnough);
    }

    /// Which of the writes to the connection that is, or comes next, from 1.
    int write_number(const std::vector<made_call>& calls, std::size_t at) const
    {
        const auto end = calls.begin() + static_cast<std::ptrdiff_t>(at);
        return 1 + static_cast<int>(std::count_if(calls.begin(), end, [&](const made_call& each) {
                   return each.number == SYS_write && each.descriptor == m_connection;
               }));
    }

    /// The healthy replies when that write fails: without a header there is no payload either.
    bytes replies_without(int failing, bool is_for_ever) const
    {
        bytes all;
        int writes = 0;
        const auto is_written = [&] { return ++writes < failing || (writes > failing && !is_for_ever); };
        for (const bytes& message : messages(m_healthy.replies)) {
            const auto payload = message.begin() + static_cast<std::ptrdiff_t>(kHeaderSize);
            if (!is_written())
                continue;
            all.insert(all.end(), message.begin(), payload);
            if (payload != message.end() && is_written())
                all.insert(all.end(), payload, message.end());
        }
        return all;
    }

    /// From the first call on it is each error, from every other one on one, and of the log's only from the
    /// first.
    static std::vector<int> lasting_errors(const failing_call& kind, std::size_t at, bool is_first,
                                           logging how)
    {
        if (is_first)
            return kind.errors;
        return how == logging::off ? std::vector<int>{kind.errors[at % kind.errors.size()]}
                                   : std::vector<int>{};
    }

    outcome m_healthy;
    long m_connection = -1;
};
INSTANTIATE_TEST_SUITE_P(, failing_system_call,
                         testing::ValuesIn(sessions_with({"by_ids", "hang_up", "no_device"})), name_of);

TEST_P(failing_system_call, is_a_refusal_or_an_orderly_end)
{
    const std::vector<made_call> calls = healthy_calls(logging::off);
    for (std::size_t at = 0; at < calls.size() && !HasFailure(); ++at)
        if (const failing_call* const kind = kind_of(calls[at]))
            for (const int error : kind->errors)
                if (is_in_sample())
                    expect_to_end_well(calls, at, error, false, logging::off);
}

TEST_P(failing_system_call, with_the_log_on_costs_no_more_than_a_line)
{
    const std::vector<made_call> calls =
        healthy_calls(logging::trace); // whose calls are those of INFO and more
    for (std::size_t at = 0; at < calls.size() && !HasFailure(); ++at)
        if (const failing_call* const kind = kind_of(calls[at]); kind != nullptr && is_in_sample())
            // Each call, with one of its errors.
            expect_to_end_well(calls, at, kind->errors[at % kind->errors.size()], false, logging::trace);
}

TEST_P(failing_system_call, for_good_burns_no_processor)
{
    for (const logging how : {logging::off, logging::info}) {
        const std::vector<made_call> calls = healthy_calls(how);
        std::set<long> known;
        for (std::size_t at = 0; at < calls.size() && !HasFailure(); ++at)
            if (const failing_call* const kind = kind_of(calls[at]))
                for (const int error : lasting_errors(*kind, at, known.insert(kind->number).second, how))
                    if (is_in_sample())
                        expect_to_end_well(calls, at, error, true, how);
    }
}

} // namespace

} // namespace faults
