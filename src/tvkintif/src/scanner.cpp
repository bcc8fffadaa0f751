#include "tvkintif/src/scanner.h"

#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include "common/log/logger.h"
#include "tvkintif/src/interpreter.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/udi.h"
#include "tvkintif/src/usb.h"

using vl::common::log::ESeveryLevel;
using vl::common::log::Logger;

namespace {

constexpr const char* kUnit = "scanner";

/// The process is ending and has destroyed the session. A library that stays loaded until then, as a C++ one
/// may, still has its destructors called.
std::atomic<bool> g_isSessionOver{false};

struct end_of_session {
    ~end_of_session() { g_isSessionOver = true; }
};

/// File name of the plugin for the model that `address` names; null when that is not valid.
const char* choose_plugin(const udi& address)
{
    const int product_id = usb_transceiver::getpid(address);
    if (product_id < 0) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("get pid fails");
        return nullptr;
    }
    const char* name = plugin_name(product_id);
    Logger(kUnit, __LINE__, ESeveryLevel::info)("interpName %s", name);
    return name;
}

/// A scanner that was just switched on takes its time to appear on the bus.
bool connect_with_retries(usb_transceiver& usb, const udi& address)
{
    for (int attempts = scanner::kConnectionAttempts;;) {
        const bool ok = usb.open(address);
        Logger(kUnit, __LINE__, ESeveryLevel::info)("connection open isSuccess = %d", ok ? 1 : 0);
        if (ok) {
            Logger(kUnit, __LINE__, ESeveryLevel::info)("break");
            return true;
        }
        if (--attempts == 0) {
            Logger(kUnit, __LINE__, ESeveryLevel::info)("retry finish");
            return false;
        }
        sleep(scanner::kPauseSeconds);
    }
}

/// The plugin is C code, through which no exception may pass: to it, one is a transfer that moved nothing.
template <typename Transfer>
int transfer_for_plugin(Transfer transfer) noexcept
{
    if (g_isSessionOver)
        return 0;
    try {
        // The copy keeps the connection alive until the transfer returns.
        const std::shared_ptr<usb_transceiver> usb = scanner::instance().usb_con();
        return usb ? transfer(*usb) : 0;
    } catch (...) {
        return 0;
    }
}

extern "C" {

static int usb_reader(void* buffer, int length)
{
    return transfer_for_plugin([=](usb_transceiver& usb) { return usb.read(buffer, length); });
}

static int usb_writer(void* buffer, int length)
{
    return transfer_for_plugin([=](usb_transceiver& usb) { return usb.write(buffer, length); });
}
}

} // namespace

scanner& scanner::instance()
{
    static const end_of_session destroyed_after_it;
    static const std::unique_ptr<scanner> session = std::make_unique<scanner>();
    return *session;
}

scanner::scanner() = default;

scanner::~scanner()
{
    close();
}

bool scanner::open(const std::string& text)
{
    Logger(kUnit, __LINE__, ESeveryLevel::info)("open %s", text.c_str());
    if (m_usb && m_usb->is_open())
        return true;
    set_firmware_directories();
    try {
        const udi address(text);
        const char* name = choose_plugin(address);
        if (name == nullptr)
            return false; // without the closing line, on purpose: the log of a bad address ends here
        auto plugin = std::make_unique<interpreter>(lib_path(name));
        auto usb = std::make_shared<usb_transceiver>();
        if (connect_with_retries(*usb, address))
            return start(std::move(plugin), std::move(usb));
        Logger(kUnit, __LINE__, ESeveryLevel::info)("usb connection failer.");
    } catch (const std::invalid_argument& error) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("%s", error.what());
    } catch (const std::runtime_error& error) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("%s", error.what());
    } catch (...) {
        Logger(kUnit, __LINE__, ESeveryLevel::info)("unknown exception");
    }
    Logger(kUnit, __LINE__, ESeveryLevel::info)("open fails");
    return false;
}

bool scanner::start(std::unique_ptr<interpreter> plugin, std::shared_ptr<usb_transceiver> usb)
{
    m_usb = std::move(usb);
    if (plugin->ctor(usb_reader, usb_writer) != 0) {
        // A plugin left from before a lost device is unloaded without being stopped, on purpose: the new
        // device is what it would reach by now. Its library's destructors, which run here, do reach that.
        m_interpreter = std::move(plugin);
        return true;
    }
    // The device must be free again by the time the log says so, and the line that ends every other failed
    // open is left out here on purpose.
    m_usb.reset();
    Logger(kUnit, __LINE__, ESeveryLevel::info)("usb ctor failer.");
    return false;
}

void scanner::close()
{
    // Out of the member first: a plugin that throws or exits when it is stopped is not stopped again, so that
    // the close which follows frees the device.
    if (std::unique_ptr<interpreter> plugin = std::move(m_interpreter)) {
        try {
            plugin->dtor(); // while the device is still open: the plugin may park it
        } catch (...) {
            static_cast<void>(plugin.release()); // stays loaded: what it threw may have code of its own there
            throw;
        }
    }
    if (m_usb) {
        m_usb->close();
        m_usb.reset();
    }
}

int scanner::send(unsigned char* data, unsigned int length, unsigned int)
{
    if (!m_interpreter)
        return kNoPlugin;
    if (data == nullptr || length == 0)
        return kSendFailed;
    return m_interpreter->write(data, static_cast<int>(length)) != 0 ? kOk : kSendFailed;
}

int scanner::recv(unsigned char* data, unsigned int length)
{
    if (!m_interpreter)
        return kNoPlugin;
    if (data == nullptr || length == 0)
        return kRecvFailed;
    return m_interpreter->read(data, static_cast<int>(length)) != 0 ? kOk : kRecvFailed;
}

std::shared_ptr<usb_transceiver> scanner::usb_con()
{
    return m_usb;
}
