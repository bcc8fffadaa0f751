#pragma once

#include <libusb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "process/wire.h"

namespace session_model {

using process_test::bytes;

/// Leaves a line of the log in the dialogue, among the calls of libusb: "log INFO text".
void log(const std::string& text);

/// What a plugin of tests/plugins does, as far as the program can tell.
struct plugin_kind {
    std::string target;
    int ctor = 1;                   ///< what its start answers; 0 refuses
    std::optional<int> reader = {}; ///< what reader and writer answer; absent: what one transfer moved
    std::optional<int> writer = {};
    std::vector<int> sent_in_ctor = {}; ///< bytes that it sends to the device of its own accord
    std::vector<int> sent_in_dtor = {};
    bool is_complete = true; ///< has all four entry points
    bool echoes = false;     ///< has no device: gives back what was last sent to it, and tells only that
};

const std::vector<plugin_kind>& known_plugins();

/// The file that serves a product.
std::string plugin_file_of(unsigned int product);

/// The scanner session: plugin and device. Calls libusb, which has to be the fake one, as the program must,
/// and leaves its lines of the log among the calls.
class scanner_model {
public:
    /// The plugin that is installed, if there is one, and the file's name.
    scanner_model(const plugin_kind* installed, std::string installed_file);
    scanner_model(const scanner_model&) = delete;
    scanner_model& operator=(const scanner_model&) = delete;
    ~scanner_model() = default;

    bool open(const std::string& udi);
    void close();
    bool send(bytes data);
    /// The bytes for the reply; nothing when that is ng.
    std::optional<bytes> receive(std::size_t count);

private:
    struct address {
        unsigned int vendor = 0;
        unsigned int product = 0;
        std::string serial = {};

        bool is_valid() const { return vendor != 0 && product != 0; }
    };

    static address parse(const std::string& udi);
    bool load_plugin(const std::string& path, bool is_installed);
    void unload_plugin() const;
    bool start_plugin();
    void tell(const std::string& what) const;
    void send_by_itself(const std::vector<int>& data);

    bool connect(const address& to);
    bool try_device(const address& to);
    bool find_by_serial(const address& to);
    bool is_match(const address& wanted, libusb_device* candidate) const;
    void find_by_ids(const address& to);
    bool take_interface();
    bool take_interface_of(const libusb_config_descriptor& configuration, bool& is_over);
    bool take_setting(const libusb_interface_descriptor& setting, bool& is_over);
    void take_endpoints(const libusb_interface_descriptor& setting);
    bool start_usb();
    void close_device();
    void end_usb();
    int transfer(const char* direction, int endpoint, bytes& data);

    const plugin_kind* m_installed;
    std::string m_installedFile;
    bool m_isRunning = false; ///< the plugin
    bytes m_kept;             ///< by a plugin that echoes
    libusb_context* m_context = nullptr;
    libusb_device_handle* m_device = nullptr;
    int m_interface = -1;
    int m_in = -1;
    int m_out = -1;
    bool m_hasDriver = false; ///< a kernel driver is to come back
};

} // namespace session_model
