#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <optional>

#include "common/log/logger.h"
#include "tvkintif/src/dispatch.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "main";
constexpr int kNoPort = -1; ///< what the front-end reads instead of a port when start-up failed

extern "C" {
static void request_cleanup(int)
{
    do_cleanup = 1;
}
}

/// Opens whatever of the standard streams the parent has closed. A socket would get its number: descriptor 0
/// counts as none, and on 1 or 2 everything that libusb or a plugin prints would go to the front-end.
void open_standard_streams()
{
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (fcntl(descriptor, F_GETFD) == -1)
            open("/dev/null", O_RDWR); // takes the lowest free number, which is this one
}

/// Installs a handler, but leaves a signal ignored that the parent wanted ignored.
void set_signal(int signal_number, void (*handler)(int))
{
    if (std::signal(signal_number, handler) == SIG_IGN && handler != SIG_IGN)
        std::signal(signal_number, SIG_IGN);
}

/// Logs the exception that is being handled, if it has a text.
void log_current_exception()
{
    try {
        throw;
    } catch (const std::exception& error) {
        Logger(kUnit, __LINE__, ESeveryLevel::error)("%s", error.what());
    } catch (...) {
    }
}

/// Everything up to the point where the front-end knows its port.
bool start(std::optional<dispatch>& dispatcher)
{
    try {
        vl::common::log::init_log(nullptr, vl::common::log::kLogFolder, vl::common::log::kSettingsFile);
        set_signal(SIGTERM, request_cleanup);
        set_signal(SIGINT, request_cleanup);
        set_signal(SIGHUP, request_cleanup);
        // A front-end that vanishes must show as a failed write, not end the process half-way through a
        // transfer with the device.
        set_signal(SIGPIPE, SIG_IGN);
        dispatcher.emplace();
        std::cout << dispatcher->port() << std::endl;
        // Always 0: the port is only told on standard output, on purpose.
        Logger(kUnit, __LINE__, ESeveryLevel::info)("port = %d", 0);
        return true;
    } catch (...) {
        log_current_exception();
        std::cout << kNoPort << std::endl; // so that the front-end need not wait for a port
        dispatcher.reset();
        return false;
    }
}

bool serve(std::optional<dispatch>& dispatcher)
{
    try {
        dispatcher->run();
        Logger(kUnit, __LINE__, ESeveryLevel::info)("End Run");
        dispatcher.reset();
        return true;
    } catch (...) {
        dispatcher.reset();
        log_current_exception();
        return false;
    }
}

} // namespace

int main()
{
    open_standard_streams();
    std::optional<dispatch> dispatcher;
    const bool is_served = start(dispatcher) && serve(dispatcher);
    Logger(kUnit, __LINE__, ESeveryLevel::info)("--- Leave int interface ---");
    return is_served ? EXIT_SUCCESS : EXIT_FAILURE;
}
