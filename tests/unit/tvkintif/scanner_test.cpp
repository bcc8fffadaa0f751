#include <gtest/gtest.h>
#include <libusb.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/plugin_files.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"
#include "unit/tvkintif/watched_test.h"

using fake_usb::scanner_device;

namespace {

using transfer = int (*)(void* buffer, int length);

/// The callbacks that the session handed to the plugin that it started last.
transfer plugin_s_reader = nullptr;
transfer plugin_s_writer = nullptr;

} // namespace

extern "C" void support_plugin_callbacks(transfer reader, transfer writer);
extern "C" void support_plugin_callbacks(transfer reader, transfer writer)
{
    plugin_s_reader = reader;
    plugin_s_writer = writer;
}

namespace {

// Front-ends count on it (docs/protocol.md).
static_assert(scanner::kConnectionAttempts == 5 && scanner::kPauseSeconds == 3);

static_assert(!std::is_copy_constructible_v<scanner> && !std::is_copy_assignable_v<scanner>);

const std::string kUdi = "usb:1a2b:3c4d"; // of a product that is in no table
const std::string kOtherUdi = "usb:1a2b:0a71";
const std::string kPluginFile = kDefaultPlugin;
const std::string kOtherPluginFile = plugin_name(0x0a71);

const std::vector<const char*> kFirmwareVariables = {"GLIMMERON_FIRMWARE_DIR", "QUBAN_FIRMWARE_DIR",
                                                     "MORA_FIRMWARE_DIR", "QUBAN_FW_DIR"};

// What always happens, step by step.

lines plugin_loaded(const std::string& plugin, const std::string& file = kPluginFile)
{
    return {"INFO interpName " + file, "INFO interpreter load " + lib_path(file), plugin + " loaded"};
}

const lines kConnectionMade = {"INFO usb_transceiver start", "init -> 0", "set_debug 3"};

const lines kAttemptBegins = {"INFO usb_transceiver open start", "INFO usb_transceiver open "};

lines attempt_that_succeeds(const std::string& device = "scanner", const std::string& ids = "1a2b:3c4d")
{
    return {"INFO usb_transceiver open start",
            "INFO usb_transceiver open ",
            "open_device_with_vid_pid " + ids + " -> " + device,
            "INFO usb_transceiver set_bulk_endpoints",
            "get_device " + device + " -> " + device,
            "get_device_descriptor " + device + " -> 0",
            "get_configuration " + device + " -> 0 (1)",
            "get_config_descriptor " + device + " 0 -> 0",
            "kernel_driver_active " + device + " 0 -> 0",
            "claim_interface " + device + " 0 -> 0",
            "free_config_descriptor " + device + " 0",
            "INFO connection open isSuccess = 1",
            "INFO break"};
}

const std::string kPauseBetweenTries = "usleep " + std::to_string(usb_transceiver::kOpenPauseMicroseconds);

/// An attempt to find a device that is not there.
lines attempt_in_vain()
{
    const lines one_try = {"open_device_with_vid_pid 1a2b:3c4d -> null", kPauseBetweenTries};
    return kAttemptBegins + support::repeated(usb_transceiver::kOpenTries, one_try) +
           lines{"INFO usb_transceiver open fails", "INFO connection open isSuccess = 0"};
}

/// An open as far as the search for the device.
lines search_begun(const std::string& plugin)
{
    return lines{"INFO open " + kUdi} + plugin_loaded(plugin) + kConnectionMade;
}

/// An open that finds the device at once and starts the plugin.
lines opened(const std::string& plugin)
{
    return search_begun(plugin) + attempt_that_succeeds() + lines{plugin + " ctor"};
}

const lines kPause = {"sleep " + std::to_string(scanner::kPauseSeconds)};

const lines kConnectionClosed = {"release_interface scanner 0 -> 0", "close scanner"};

const lines kConnectionGone = kConnectionClosed + lines{"exit"};

const lines kGoodPluginStopped = {"plugin_good dtor", "plugin_good unloaded"};

/// The one session of the process, brought back to its start after each test.
class scanner_test : public watched_test {
protected:
    void SetUp() override
    {
        watched_test::SetUp();
        if (IsSkipped())
            return;
        for (const char* variable : kFirmwareVariables)
            unsetenv(variable);
        plugin_s_reader = nullptr;
        plugin_s_writer = nullptr;
    }

    void TearDown() override
    {
        session().close();
        if (support::have_private_paths())
            support::remove_plugins();
        watched_test::TearDown();
    }

    static scanner& session() { return scanner::instance(); }

    /// Installs a plugin for products that are in no table.
    static void install(const std::string& plugin) { support::install_plugin(plugin, kPluginFile); }

    /// Installs a plugin and plugs in the scanner that it is for.
    void install_and_plug(const std::string& plugin)
    {
        install(plugin);
        bus.plug(scanner_device());
    }

    /// An open session with this plugin, its opening forgotten.
    void open_session(const std::string& plugin)
    {
        install_and_plug(plugin);
        ASSERT_TRUE(session().open(kUdi)) << log();
        forget_what_happened();
    }

    static int send(std::vector<unsigned char> bytes, unsigned int value = 0)
    {
        return session().send(bytes.data(), static_cast<unsigned int>(bytes.size()), value);
    }
    static int recv()
    {
        unsigned char byte = 0;
        return session().recv(&byte, 1);
    }
    static void expect_no_plugin()
    {
        EXPECT_EQ(send({1}), 1);
        EXPECT_EQ(session().send(nullptr, 0, 0), 1);
        EXPECT_EQ(recv(), 1);
        EXPECT_EQ(session().recv(nullptr, 0), 1);
    }
};

TEST_F(scanner_test, instance_is_always_the_same)
{
    EXPECT_EQ(&scanner::instance(), &scanner::instance());
}

// Opening.

TEST_F(scanner_test, open_loads_the_plugin_then_connects_the_device_then_starts_the_plugin)
{
    install_and_plug("plugin_good");

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(happened(), opened("plugin_good").text());
    ASSERT_TRUE(session().usb_con());
    EXPECT_TRUE(session().usb_con()->is_open());
}

TEST_F(scanner_test, plugin_reaches_the_device_from_its_start_on)
{
    install_and_plug("plugin_talking");

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(happened(), text({search_begun("plugin_talking"),
                                attempt_that_succeeds(),
                                {"plugin_talking ctor", "bulk_transfer scanner 0x02 1 60000 -> 0 (1)",
                                 "plugin_talking sent 1"}}));
}

TEST_F(scanner_test, second_open_succeeds_at_once_whatever_the_address)
{
    open_session("plugin_good");
    unsetenv("QUBAN_FW_DIR");

    EXPECT_TRUE(session().open("no address at all"));
    EXPECT_EQ(happened(), "INFO open no address at all\n");
    EXPECT_EQ(std::getenv("QUBAN_FW_DIR"), nullptr) << "the environment is to be left alone";
}

TEST_F(scanner_test, open_works_again_after_close)
{
    open_session("plugin_good");
    session().close();
    forget_what_happened();

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(happened(), opened("plugin_good").text());
}

// The firmware directories.

TEST_F(scanner_test, firmware_directories_are_set_by_the_time_the_plugin_is_loaded)
{
    install_and_plug("plugin_telling_environment");

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kUdi},
                                plugin_loaded("plugin_telling_environment"),
                                {"plugin_telling_environment finds GLIMMERON_FIRMWARE_DIR=/usr/share/tarvik/",
                                 "plugin_telling_environment finds QUBAN_FIRMWARE_DIR=/usr/share/tarvik/",
                                 "plugin_telling_environment finds MORA_FIRMWARE_DIR=/usr/share/tarvik/",
                                 "plugin_telling_environment finds QUBAN_FW_DIR=/usr/share/tarvik/"},
                                kConnectionMade,
                                attempt_that_succeeds(),
                                {"plugin_telling_environment ctor"}}));
}

TEST_F(scanner_test, firmware_directories_are_set_even_for_an_invalid_address)
{
    EXPECT_FALSE(session().open("usb:1a2b:0"));
    for (const char* variable : kFirmwareVariables)
        EXPECT_STREQ(std::getenv(variable), "/usr/share/tarvik/") << variable;
}

// Opening fails.

TEST_F(scanner_test, open_of_an_invalid_address_fails_before_anything_is_loaded)
{
    install_and_plug("plugin_good");

    EXPECT_FALSE(session().open("%n%s"));
    EXPECT_EQ(happened(),
              text({{"INFO open %n%s", "INFO machine: invalid UDI '%n%s'", "INFO get pid fails"}}));
}

TEST_F(scanner_test, open_without_the_plugin_s_file_fails_before_usb_is_touched)
{
    bus.plug(scanner_device());
    const std::string path = lib_path(kPluginFile);

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(happened(),
              text({{"INFO open " + kUdi, "INFO interpName " + kPluginFile, "INFO interpreter load " + path,
                     "INFO interpreter load fails " + path +
                         ": cannot open shared object file: No such file or directory",
                     "INFO interpreter : load failed.", "INFO open fails"}}));
}

TEST_F(scanner_test, open_of_an_incomplete_plugin_fails_before_usb_is_touched_and_unloads_it)
{
    install_and_plug("plugin_without_writer");

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kUdi},
                                plugin_loaded("plugin_without_writer"),
                                {"plugin_without_writer unloaded", "INFO interpreter function load errors",
                                 "INFO interpreter : invalid symboles.", "INFO open fails"}}));
    expect_no_plugin();
}

TEST_F(scanner_test, open_without_a_device_makes_all_attempts_with_pauses_between_and_never_starts_the_plugin)
{
    install("plugin_good");

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(happened(), text({search_begun("plugin_good"),
                                support::repeated(scanner::kConnectionAttempts, attempt_in_vain(), kPause),
                                {"INFO retry finish", "INFO usb connection failer.", "exit",
                                 "plugin_good unloaded", "INFO open fails"}}));
    EXPECT_FALSE(session().usb_con());
}

TEST_F(scanner_test, open_connects_a_device_that_appears_before_the_third_attempt)
{
    install("plugin_good");
    fake_usb::device late = scanner_device();
    late.appears_at_search = 2 * usb_transceiver::kOpenTries + 1;
    bus.plug(late);

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(happened(), text({search_begun("plugin_good"),
                                support::repeated(2, attempt_in_vain(), kPause),
                                kPause,
                                attempt_that_succeeds(),
                                {"plugin_good ctor"}}));
}

TEST_F(scanner_test, open_connects_at_the_last_attempt)
{
    install("plugin_good");
    fake_usb::device late = scanner_device();
    late.appears_at_search = scanner::kConnectionAttempts * usb_transceiver::kOpenTries;
    bus.plug(late);

    EXPECT_TRUE(session().open(kUdi));
}

TEST_F(scanner_test, open_tries_again_when_the_interface_is_held_by_another)
{
    install_and_plug("plugin_good");
    bus.fail("claim_interface", LIBUSB_ERROR_BUSY).times(1);

    EXPECT_TRUE(session().open(kUdi));
    EXPECT_EQ(
        happened(),
        text({search_begun("plugin_good"),
              kAttemptBegins,
              {"open_device_with_vid_pid 1a2b:3c4d -> scanner", "INFO usb_transceiver set_bulk_endpoints",
               "get_device scanner -> scanner", "get_device_descriptor scanner -> 0",
               "get_configuration scanner -> 0 (1)", "get_config_descriptor scanner 0 -> 0",
               "kernel_driver_active scanner 0 -> 0", "claim_interface scanner 0 -> LIBUSB_ERROR_BUSY",
               "free_config_descriptor scanner 0", "close scanner",
               "INFO usb_transceiver set_bulk_endpoints fails", "INFO connection open isSuccess = 0"},
              kPause,
              attempt_that_succeeds(),
              {"plugin_good ctor"}}));
}

TEST_F(scanner_test, open_with_a_refusing_plugin_frees_the_device_before_the_log_tells_and_never_stops_it)
{
    install_and_plug("plugin_refusing");

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(happened(), text({opened("plugin_refusing"),
                                kConnectionGone,
                                {"INFO usb ctor failer.", "plugin_refusing unloaded"}}));
    EXPECT_FALSE(session().usb_con());
}

TEST_F(scanner_test, refusing_plugin_reaches_the_device_before_it_refuses)
{
    install_and_plug("plugin_refusing_after_talk");

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(bus.written("scanner", 0x02), std::vector<unsigned char>{1});
}

TEST_F(scanner_test, open_after_a_refusal_tries_anew)
{
    install_and_plug("plugin_refusing");
    EXPECT_FALSE(session().open(kUdi));
    expect_no_plugin();
    install("plugin_odd"); // starts with a result that is neither 0 nor 1

    EXPECT_TRUE(session().open(kUdi));
}

TEST_F(scanner_test, open_fails_when_libusb_cannot_be_initialised_and_unloads_the_plugin)
{
    install_and_plug("plugin_good");
    bus.fail("init", LIBUSB_ERROR_OTHER);

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kUdi},
                                plugin_loaded("plugin_good"),
                                {"INFO usb_transceiver start", "init -> LIBUSB_ERROR_OTHER",
                                 "INFO libusb error = LIBUSB_ERROR_OTHER", "plugin_good unloaded",
                                 "INFO libusb_init: LIBUSB_ERROR_OTHER", "INFO open fails"}}));
}

struct thrown {
    const char* name;
    std::function<void()> action;
    std::string words; ///< in the log
};

class thrown_in_an_open : public scanner_test, public testing::WithParamInterface<thrown> {};

TEST_P(thrown_in_an_open, is_logged_and_all_is_undone)
{
    install("plugin_good");
    bus.before_call("open_device_with_vid_pid", 1, GetParam().action);

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_FALSE(session().usb_con());
    EXPECT_EQ(happened(), text({search_begun("plugin_good"),
                                kAttemptBegins,
                                {"open_device_with_vid_pid 1a2b:3c4d -> throws", "exit",
                                 "plugin_good unloaded", "INFO " + GetParam().words, "INFO open fails"}}));
}

INSTANTIATE_TEST_SUITE_P(
    , thrown_in_an_open,
    testing::Values(thrown{"invalid_argument", [] { throw std::invalid_argument("100%n%s"); }, "100%n%s"},
                    thrown{"runtime_error", [] { throw std::runtime_error("100%n%s"); }, "100%n%s"},
                    thrown{"other_exception", [] { throw std::bad_alloc(); }, "unknown exception"},
                    thrown{"number", [] { throw 1; }, "unknown exception"}),
    [](const auto& test) { return test.param.name; });

// Sending and receiving.

TEST_F(scanner_test, send_and_recv_before_any_open_tell_that_no_plugin_runs)
{
    expect_no_plugin();
}

TEST_F(scanner_test, send_hands_all_bytes_to_the_plugin_whatever_its_value_without_a_word_in_the_log)
{
    open_session("plugin_good");

    EXPECT_EQ(send({1, 0, 255}, 0xFFFFFFFF), 0);
    EXPECT_EQ(happened(), text({{"plugin_good writer 3", "bulk_transfer scanner 0x02 3 60000 -> 0 (3)"}}));
    EXPECT_EQ(bus.written("scanner", 0x02), (std::vector<unsigned char>{1, 0, 255}));
}

TEST_F(scanner_test, recv_has_the_plugin_fill_the_buffer)
{
    open_session("plugin_good");
    bus.script("scanner", 0x81, fake_usb::brings({1, 0, 255}));
    std::vector<unsigned char> buffer(3);

    EXPECT_EQ(session().recv(buffer.data(), 3), 0);
    EXPECT_EQ(buffer, (std::vector<unsigned char>{1, 0, 255}));
    EXPECT_EQ(happened(), text({{"plugin_good reader 3", "bulk_transfer scanner 0x81 3 60000 -> 0 (3)"}}));
}

TEST_F(scanner_test, transfer_of_nothing_or_without_a_buffer_fails_without_asking_the_plugin)
{
    open_session("plugin_good");
    unsigned char byte = 0;

    EXPECT_EQ(session().send(&byte, 0, 0), 200);
    EXPECT_EQ(session().send(nullptr, 1, 0), 200);
    EXPECT_EQ(session().recv(&byte, 0), 201);
    EXPECT_EQ(session().recv(nullptr, 1), 201);
    EXPECT_EQ(happened(), "");
}

TEST_F(scanner_test, transfer_fails_when_the_plugin_returns_0)
{
    open_session("plugin_failing");

    EXPECT_EQ(send({1}), 200);
    EXPECT_EQ(recv(), 201);
    EXPECT_EQ(happened(), text({{"plugin_failing writer 1", "plugin_failing reader 1"}}));
}

TEST_F(scanner_test, any_result_of_the_plugin_but_0_is_success)
{
    open_session("plugin_odd");

    EXPECT_EQ(send({1}), 0);
    EXPECT_EQ(recv(), 0);
}

// What the plugin was given.

TEST_F(scanner_test, callbacks_return_the_bytes_moved_unchanged)
{
    open_session("plugin_good");
    bus.script("scanner", 0x81, fake_usb::brings({1, 2}));
    bus.script("scanner", 0x02, fake_usb::ends_with(LIBUSB_SUCCESS, 3));
    std::vector<unsigned char> buffer(5);

    EXPECT_EQ(plugin_s_reader(buffer.data(), 5), 2);
    EXPECT_EQ(plugin_s_writer(buffer.data(), 5), 3);
}

TEST_F(scanner_test, callbacks_return_0_while_there_is_no_connection)
{
    open_session("plugin_good");
    session().close();
    forget_what_happened();
    unsigned char byte = 0;

    EXPECT_EQ(plugin_s_reader(&byte, 1), 0);
    EXPECT_EQ(plugin_s_writer(&byte, 1), 0);
    EXPECT_EQ(happened(), "");
}

TEST_F(scanner_test, callback_of_another_thread_keeps_the_connection_object_alive_while_the_session_is_closed)
{
    open_session("plugin_good");
    const std::weak_ptr<usb_transceiver> connection = session().usb_con();
    std::promise<void> in_transfer;
    std::promise<void> closed;
    bus.before_call("bulk_transfer", 1, [&] {
        in_transfer.set_value();
        closed.get_future().wait();
    });
    std::thread plugin_s_own([] {
        unsigned char byte = 0;
        plugin_s_reader(&byte, 1);
    });
    in_transfer.get_future().wait();
    session().close();
    EXPECT_FALSE(connection.expired());
    closed.set_value();
    plugin_s_own.join();

    EXPECT_TRUE(connection.expired());
    EXPECT_EQ(bus.take_misuses(), lines{"bulk_transfer scanner 0x81 1 60000: the handle is not open"});
}

TEST_F(scanner_test, no_exception_passes_through_a_callback)
{
    open_session("plugin_good");
    bus.before_call("bulk_transfer", 1, [] { throw std::bad_alloc(); });

    EXPECT_EQ(send({1}), 200);
}

// Closing.

TEST_F(scanner_test, close_stops_and_unloads_the_plugin_before_it_closes_the_device)
{
    open_session("plugin_good");
    session().close();

    EXPECT_EQ(happened(), text({kGoodPluginStopped, kConnectionGone}));
    EXPECT_FALSE(session().usb_con());
    expect_no_plugin();
}

TEST_F(scanner_test, plugin_reaches_the_device_while_it_is_stopped)
{
    open_session("plugin_talking");
    session().close();

    EXPECT_EQ(happened(), text({{"plugin_talking dtor", "bulk_transfer scanner 0x02 1 60000 -> 0 (1)",
                                 "plugin_talking sent 1", "plugin_talking unloaded"},
                                kConnectionGone}));
}

TEST_F(scanner_test, close_leaves_the_connection_object_to_whoever_shares_it)
{
    open_session("plugin_good");
    std::shared_ptr<usb_transceiver> shared = session().usb_con();
    session().close();
    EXPECT_EQ(happened(), text({kGoodPluginStopped, kConnectionClosed}));

    EXPECT_FALSE(shared->is_open());
    shared.reset();
    EXPECT_EQ(happened(), "exit\n");
}

TEST_F(scanner_test, second_close_does_nothing)
{
    open_session("plugin_good");
    session().close();
    forget_what_happened();
    session().close();

    EXPECT_EQ(happened(), "");
}

TEST_F(scanner_test, destruction_closes)
{
    install_and_plug("plugin_good");
    {
        scanner own;
        ASSERT_TRUE(own.open(kUdi));
        forget_what_happened();
    }

    EXPECT_EQ(happened(), text({kGoodPluginStopped, kConnectionGone}));
}

TEST_F(scanner_test, end_of_the_process_closes_the_session)
{
    open_session("plugin_good");
    const auto end_process = [] {
        support::set_dialogue_sink([](const std::string& line) { std::cerr << line << "\n"; });
        std::exit(0);
    };

    EXPECT_EXIT(
        end_process(), testing::ExitedWithCode(0),
        "^plugin_good dtor\nplugin_good unloaded\nrelease_interface scanner 0 -> 0\nclose scanner\nexit\n$");
}

// The device was lost and is opened again.

/// A session whose connection has given up its handle, on a bus where `other_udi` names the scanner too.
class scanner_test_of_reopening : public scanner_test {
protected:
    void lose_device(const std::string& plugin)
    {
        open_session(plugin);
        session().usb_con()->close();
        bus.unplug("scanner");
        forget_what_happened();
    }

    void plug_in_other()
    {
        fake_usb::device other = scanner_device();
        other.name = "other";
        other.product_id = 0x0a71;
        bus.plug(other);
    }

    const lines other_attempt = attempt_that_succeeds("other", "1a2b:0a71");
};

TEST_F(scanner_test_of_reopening, replaces_connection_and_plugin_and_does_not_stop_the_old_plugin)
{
    lose_device("plugin_good");
    plug_in_other();
    support::install_plugin("plugin_odd", kOtherPluginFile);

    EXPECT_TRUE(session().open(kOtherUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kOtherUdi},
                                plugin_loaded("plugin_odd", kOtherPluginFile),
                                {"INFO usb_transceiver start"}, // the context is still there
                                other_attempt,
                                {"plugin_odd ctor", "plugin_good unloaded"}}));
}

TEST_F(scanner_test_of_reopening, leaves_both_as_they_were_when_the_device_cannot_be_connected)
{
    lose_device("plugin_good");
    const std::shared_ptr<usb_transceiver> before = session().usb_con();

    EXPECT_FALSE(session().open(kUdi));
    EXPECT_EQ(before, session().usb_con());
    forget_what_happened();
    session().close();
    EXPECT_EQ(happened(), text({kGoodPluginStopped}));
}

TEST_F(scanner_test_of_reopening, leaves_both_as_they_were_when_the_plugin_is_missing_or_the_address_invalid)
{
    lose_device("plugin_good");
    plug_in_other();
    const std::shared_ptr<usb_transceiver> before = session().usb_con();

    EXPECT_FALSE(session().open(kOtherUdi));
    EXPECT_FALSE(session().open("usb:"));
    EXPECT_EQ(before, session().usb_con());
}

TEST_F(scanner_test_of_reopening, drops_the_old_connection_and_keeps_the_old_plugin_when_the_new_one_refuses)
{
    lose_device("plugin_good");
    plug_in_other();
    support::install_plugin("plugin_refusing", kOtherPluginFile);

    EXPECT_FALSE(session().open(kOtherUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kOtherUdi},
                                plugin_loaded("plugin_refusing", kOtherPluginFile),
                                {"INFO usb_transceiver start"},
                                other_attempt,
                                {"plugin_refusing ctor", "release_interface other 0 -> 0", "close other",
                                 "exit", "INFO usb ctor failer.", "plugin_refusing unloaded"}}));
    EXPECT_FALSE(session().usb_con());
}

/// An old plugin whose connection went when the new one refused.
class half_open_session : public scanner_test_of_reopening {
protected:
    void SetUp() override
    {
        scanner_test_of_reopening::SetUp();
        if (IsSkipped())
            return;
        lose_device("plugin_good");
        plug_in_other();
        support::install_plugin("plugin_refusing", kOtherPluginFile);
        ASSERT_FALSE(session().open(kOtherUdi));
        forget_what_happened();
    }
};

TEST_F(half_open_session, moves_nothing_until_close_stops_its_plugin)
{
    EXPECT_EQ(send({1}), 200);
    EXPECT_EQ(happened(), "plugin_good writer 1\n");
    session().close();
    EXPECT_EQ(happened(), text({kGoodPluginStopped}));
    expect_no_plugin();
}

TEST_F(half_open_session, can_be_opened_again_and_does_not_stop_its_plugin)
{
    support::install_plugin("plugin_odd", kOtherPluginFile);

    EXPECT_TRUE(session().open(kOtherUdi));
    EXPECT_EQ(happened(), text({{"INFO open " + kOtherUdi},
                                plugin_loaded("plugin_odd", kOtherPluginFile),
                                kConnectionMade,
                                other_attempt,
                                {"plugin_odd ctor", "plugin_good unloaded"}}));
}

// The log.

TEST_F(scanner_test, its_lines_are_logged_as_coming_from_scanner)
{
    testing::internal::CaptureStderr(); // the verbose form is copied there
    support::open_log(0);
    session().open("usb:");
    session().open(kUdi);
    install("plugin_good");
    session().open(kUdi);
    install_and_plug("plugin_refusing");
    session().open(kUdi);
    testing::internal::GetCapturedStderr();

    const std::set<std::string> own = {"open usb:",
                                       "get pid fails",
                                       "open " + kUdi,
                                       "interpName " + kPluginFile,
                                       "interpreter : load failed.",
                                       "open fails",
                                       "connection open isSuccess = 0",
                                       "retry finish",
                                       "usb connection failer.",
                                       "connection open isSuccess = 1",
                                       "break",
                                       "usb ctor failer."};
    std::set<std::string> seen;
    for (const support::log_line& line : support::log_lines()) {
        const std::string message = support::without_source(line.message);
        EXPECT_EQ(support::source_of(line.message) == "scanner", own.count(message) == 1) << line.message;
        if (support::source_of(line.message) == "scanner")
            seen.insert(message);
    }
    EXPECT_EQ(seen, own) << log();
}

} // namespace
