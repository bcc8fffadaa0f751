// The request loop, with everything that a front-end could send. A scanner is on the fake bus, and its plugin
// moves bytes unchanged; the replies, and what reached the device, are those of a model of the protocol.

#include "tvkintif/src/dispatch.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include <new>

#include "fake_usb/bus.h"
#include "fuzz/socket_pair.h"
#include "support/dialogue.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/udi.h"

namespace {

constexpr std::size_t kMemory = 65536; ///< what a payload may take; beyond that memory counts as used up
constexpr std::size_t kHeader = 20;

fuzz::socket_pair* the_wire = nullptr;

fake_usb::device scanner()
{
    fake_usb::device made = fake_usb::scanner_device();
    made.serial = "SN0042";
    return made;
}

/// What the program should do.
class protocol_model {
public:
    /// All that the front-end sends.
    explicit protocol_model(std::string_view requests)
    {
        while (!m_isOver && requests.size() >= kHeader) {
            const std::size_t size = fuzz::number_at(requests, 12);
            if (size > kMemory || requests.size() - kHeader < size)
                return;
            if (size > 0)
                m_payload = requests.substr(kHeader, size);
            serve(fuzz::number_at(requests, 0), fuzz::number_at(requests, 4), fuzz::number_at(requests, 16));
            m_payload.assign(m_payload.size(), '\0');
            requests.remove_prefix(kHeader + size);
        }
    }

    std::string replies;
    std::string written; ///< to the device

private:
    void serve(std::uint32_t id, std::uint32_t code, std::uint32_t value)
    {
        if (code != 4 && id != 1) {
            m_isOver = code == 5;
            return reply(id, false, "\x15");
        }
        switch (code) {
        case 4:
            m_isOpen = m_isOpen || names_the_scanner(udi(m_payload));
            m_isOver = !m_isOpen;
            return reply(1, m_isOpen);
        case 5:
            m_isOver = true;
            return;
        case 6:
            if (m_isOpen)
                written += m_payload;
            return reply(id, m_isOpen && !m_payload.empty());
        case 7:
            m_isOver = value > kMemory;
            if (m_isOver)
                return;
            m_payload.assign(value, '\0');
            return m_isOpen && value > 0 ? reply(id, true, read(value)) : reply(id, false);
        case 8:
            return value == 1 || value == 2 ? reply(id, true, std::string(4, '\0')) : reply(id, false);
        default:
            return reply(id, false);
        }
    }

    static bool names_the_scanner(const udi& address)
    {
        return address.vendor_id == scanner().vendor_id && address.product_id == scanner().product_id;
    }

    std::string read(std::size_t count)
    {
        std::string bytes;
        for (std::size_t i = 0; i < count; ++i)
            bytes += static_cast<char>(fake_usb::pattern_byte(m_taken++));
        return bytes;
    }

    void reply(std::uint32_t id, bool is_ok, const std::string& payload = {})
    {
        replies += fuzz::big_endian(id) + fuzz::big_endian(0) + fuzz::big_endian(is_ok ? 0 : 0xFFFFFFFF) +
                   fuzz::big_endian(static_cast<std::uint32_t>(payload.size())) + fuzz::big_endian(0) +
                   payload;
    }

    std::string m_payload = std::string(dispatch::kInitialPayloadSize, '\0');
    std::size_t m_taken = 0; ///< bytes, from the device
    bool m_isOpen = false;
    bool m_isOver = false;
};

void serve_all()
{
    do_cleanup = 0;
    dispatch served;
    try {
        served.run();
    } catch (const std::bad_alloc&) {
        // The end of the program; the session is closed then as well.
    }
}

} // namespace

// In place of the system's calls: one front-end that is connected already, no pauses, little memory.
extern "C" {

ssize_t __real_write(int descriptor, const void* data, size_t size);
void* __real_mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset);

int __wrap_socket(int, int, int)
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int __wrap_bind(int, const sockaddr*, socklen_t)
{
    return 0;
}

int __wrap_listen(int, int)
{
    return 0;
}

int __wrap_getsockname(int, sockaddr*, socklen_t*)
{
    return 0;
}

int __wrap_accept(int, sockaddr*, socklen_t*)
{
    return the_wire->near_end;
}

ssize_t __wrap_write(int descriptor, const void* data, size_t size)
{
    const ssize_t count = __real_write(descriptor, data, size);
    if (the_wire != nullptr && descriptor == the_wire->near_end)
        the_wire->hear();
    return count;
}

unsigned int __wrap_sleep(unsigned int)
{
    return 0;
}

int __wrap_usleep(useconds_t)
{
    return 0;
}

void* __wrap_mmap(void* address, size_t size, int protection, int flags, int descriptor, off_t offset)
{
    return size > kMemory ? MAP_FAILED : __real_mmap(address, size, protection, flags, descriptor, offset);
}
}

void fuzz_one(std::string_view input)
{
    // Loaded once and for all: that takes longer than the rest.
    static void* const plugin = dlopen(lib_path(kDefaultPlugin).c_str(), RTLD_LAZY);
    fuzz::expect(plugin != nullptr, "the plugin is there");
    const protocol_model expected(input);
    const int descriptor = fuzz::next_descriptor();
    {
        fuzz::socket_pair wire;
        the_wire = &wire;
        fake_usb::bus bus;
        bus.plug(scanner());
        wire.say(input);
        serve_all();
        the_wire = nullptr;
        fuzz::expect_equal(wire.heard, expected.replies, "the replies");
        const auto& written = bus.written("scanner", 0x02);
        fuzz::expect_equal(std::string(written.begin(), written.end()), expected.written,
                           "what the device got");
        fuzz::expect_equal(support::text(bus.leftovers()) + support::text(bus.misuses()), "",
                           "what the bus blames");
        support::take_dialogue();
    }
    fuzz::expect(fuzz::next_descriptor() == descriptor, "no descriptor stays open");
}
