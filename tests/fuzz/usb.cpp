// Devices with any descriptors, and a libusb that fails anywhere: what is used is what a scanner needs, and
// all of it is given back.

#include "tvkintif/src/usb.h"

#include <algorithm>
#include <optional>

#include "fuzz/any_device.h"
#include "support/dialogue.h"

namespace {

constexpr unsigned int kTransferType = 3;

struct open_device : usb_transceiver {
    int configuration() const { return m_nConfiguration; }
    int number() const { return m_nInterface; }
    int in() const { return m_nBulkIn; }
    int out() const { return m_nBulkOut; }
};

/// The last bulk endpoint of a setting that is for this direction; -1 when there is none.
int last_bulk(const fake_usb::alt_setting& setting, unsigned int direction)
{
    int last = -1;
    if (!setting.is_endpoint_array_null)
        for (const fake_usb::endpoint& each : setting.endpoints)
            if ((each.attributes & kTransferType) == LIBUSB_TRANSFER_TYPE_BULK &&
                (each.address & 0x80U) == direction)
                last = each.address;
    return last;
}

/// Whether an open device uses the first setting with endpoints both ways of one of its configurations.
bool is_right(const open_device& opened, const fake_usb::device& device)
{
    for (const fake_usb::configuration& configuration : device.configurations) {
        if (configuration.value != opened.configuration())
            continue;
        for (const fake_usb::usb_interface& settings : configuration.interfaces)
            for (const fake_usb::alt_setting& each : settings) {
                const int in = last_bulk(each, 0x80);
                const int out = last_bulk(each, 0x00);
                if (each.interface_class == 0xFF && each.interface_protocol == 0xFF && in >= 0 && out >= 0)
                    return opened.number() == each.interface_number && opened.in() == in &&
                           opened.out() == out;
            }
    }
    return false;
}

void transfer(open_device& usb, fuzz::decisions& decide)
{
    std::array<unsigned char, 64> buffer{};
    for (int i = decide.below(4); i > 0; --i) {
        const int size = decide.below(static_cast<int>(buffer.size()));
        const int moved = decide.yes() ? usb.read(buffer.data(), size) : usb.write(buffer.data(), size);
        fuzz::expect(moved >= 0 && moved <= size, "no more is moved than there is room for");
    }
}

void use(fuzz::decisions& decide, const fake_usb::device& device, const std::string& address)
{
    open_device usb;
    if (usb.open(address)) {
        fuzz::expect(usb.is_open() && is_right(usb, device),
                     "the interface that is used is the one to be used");
        // Whatever a device calls its configurations, number 1 is set: the endpoints of another are out of
        // reach then.
        if (usb.configuration() == fuzz::active_configuration())
            transfer(usb, decide);
        usb.close();
    }
    fuzz::expect(!usb.is_open(), "a device that is closed, or was not opened, is not open");
}

} // namespace

// In place of the system's call: no pauses.
extern "C" int __wrap_usleep(useconds_t)
{
    return 0;
}

void fuzz_one(std::string_view input)
{
    fuzz::decisions decide(input);
    fake_usb::bus bus;
    fake_usb::device device = fuzz::any_device(decide);
    bus.plug(device);
    fuzz::make_trouble(bus, decide);
    try {
        use(decide, device, decide.yes() ? "usb:1a2b:3c4d" : "usb:1a2b:3c4d:SN0042");
    } catch (const std::runtime_error&) {
        // No context.
    }
    fuzz::expect_equal(support::text(bus.leftovers()) + support::text(bus.misuses()), "",
                       "what the bus blames");
    support::take_dialogue();
}
