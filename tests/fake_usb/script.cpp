#include "fake_usb/script.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace fake_usb {

namespace {

/// The words of one statement, taken from the front.
class words {
public:
    explicit words(const std::string& line) : m_input(line.substr(0, line.find('#'))) {}

    bool are_left() { return !(m_input >> std::ws).eof(); }

    std::string next(const std::string& meaning)
    {
        std::string word;
        if (!(m_input >> word))
            throw std::invalid_argument(meaning + " is missing");
        return word;
    }

    std::string rest(const std::string& meaning)
    {
        std::string text;
        if (!are_left() || !std::getline(m_input, text))
            throw std::invalid_argument(meaning + " is missing");
        return text;
    }

    int number(const std::string& meaning, int base = 10)
    {
        const std::string word = next(meaning);
        char* end = nullptr;
        const long value = std::strtol(word.c_str(), &end, base);
        if (*end != '\0')
            throw std::invalid_argument(meaning + " is not a number: " + word);
        return static_cast<int>(value);
    }

    std::uint8_t byte(const std::string& meaning) { return static_cast<std::uint8_t>(number(meaning, 16)); }

    int result()
    {
        const std::string word = next("the result");
        const bool is_number = word.find_first_not_of("-0123456789") == std::string::npos;
        return is_number ? std::atoi(word.c_str()) : error_code(word);
    }

private:
    std::istringstream m_input;
};

std::vector<unsigned char> bytes_of(const std::string& hex)
{
    if (hex.size() % 2 != 0 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw std::invalid_argument("not pairs of hexadecimal digits: " + hex);
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

std::uint8_t endpoint_type(const std::string& name)
{
    static const std::map<std::string, std::uint8_t> types = {
        {"control", std::uint8_t{LIBUSB_TRANSFER_TYPE_CONTROL}},
        {"isochronous", std::uint8_t{LIBUSB_TRANSFER_TYPE_ISOCHRONOUS}},
        {"bulk", std::uint8_t{LIBUSB_TRANSFER_TYPE_BULK}},
        {"interrupt", std::uint8_t{LIBUSB_TRANSFER_TYPE_INTERRUPT}},
    };
    const auto found = types.find(name);
    if (found == types.end())
        throw std::invalid_argument("no endpoint type: " + name);
    return found->second;
}

/// Reads statements one by one. A device is plugged in once all that is said about it has been read.
class reader {
public:
    explicit reader(bus& target) : m_bus(target) {}

    void statement(words& line)
    {
        const std::string verb = line.next("the statement");
        if (const auto about = kAboutDevices.find(verb); about != kAboutDevices.end())
            return (this->*about->second)(line);
        plug_pending();
        const auto other = kOthers.find(verb);
        if (other == kOthers.end())
            throw std::invalid_argument("no such statement: " + verb);
        (this->*other->second)(line);
    }

    script_options finish()
    {
        plug_pending();
        return m_options;
    }

private:
    using handler = void (reader::*)(words&);

    void plug_pending()
    {
        if (m_device)
            m_bus.plug(*std::exchange(m_device, std::nullopt));
    }

    fake_usb::device& this_device()
    {
        if (!m_device)
            throw std::invalid_argument("no device to say this of");
        return *m_device;
    }

    usb_interface& this_interface()
    {
        auto& configurations = this_device().configurations;
        if (!m_hasOwnConfiguration || configurations.back().interfaces.empty())
            throw std::invalid_argument("no interface to say this of");
        return configurations.back().interfaces.back();
    }

    void device(words& line)
    {
        plug_pending();
        m_device = scanner_device();
        m_hasOwnConfiguration = false;
        m_device->name = line.next("the name");
        const std::string ids = line.next("VVVV:PPPP");
        unsigned int vendor = 0;
        unsigned int product = 0;
        if (std::sscanf(ids.c_str(), "%4x:%4x", &vendor, &product) != 2)
            throw std::invalid_argument("not VVVV:PPPP: " + ids);
        m_device->vendor_id = static_cast<std::uint16_t>(vendor);
        m_device->product_id = static_cast<std::uint16_t>(product);
        if (!line.are_left())
            return;
        if (const std::string word = line.next("serial"); word != "serial")
            throw std::invalid_argument("expected 'serial', not " + word);
        m_device->serial = line.rest("the serial number");
    }

    void configuration(words& line)
    {
        auto& all = this_device().configurations;
        if (!std::exchange(m_hasOwnConfiguration, true))
            all.clear();
        fake_usb::configuration next;
        next.value = static_cast<std::uint8_t>(line.number("the configuration value"));
        all.push_back(next);
    }

    void interface(words& line)
    {
        this_device();
        if (!m_hasOwnConfiguration)
            throw std::invalid_argument("no configuration to say this of");
        m_interfaceNumber = static_cast<std::uint8_t>(line.number("the interface number"));
        m_device->configurations.back().interfaces.emplace_back();
        setting(line);
    }

    void setting(words& line)
    {
        alt_setting next;
        next.interface_number = m_interfaceNumber;
        if (line.are_left()) {
            next.interface_class = line.byte("the class");
            next.interface_protocol = line.byte("the protocol");
        }
        this_interface().push_back(next);
    }

    void endpoint(words& line)
    {
        fake_usb::endpoint next{line.byte("the endpoint address")};
        if (line.are_left())
            next.attributes = endpoint_type(line.next("the type"));
        this_interface().back().endpoints.push_back(next);
    }

    void null_endpoints(words&) { this_interface().back().is_endpoint_array_null = true; }
    void manufacturer(words& line) { this_device().manufacturer = line.rest("the text"); }
    void product(words& line) { this_device().product = line.rest("the text"); }
    void place(words& line)
    {
        this_device().bus_number = static_cast<std::uint8_t>(line.number("the bus"));
        m_device->address = static_cast<std::uint8_t>(line.number("the address"));
        while (line.are_left())
            m_device->ports.push_back(static_cast<std::uint8_t>(line.number("the port")));
    }
    void active_configuration(words& line)
    {
        this_device().active_configuration = line.number("the configuration value");
    }
    void kernel_driver(words& line)
    {
        this_device().kernel_drivers.insert(line.number("the interface number"));
    }
    void open_error(words& line) { this_device().open_error = line.result(); }
    void appears_at_search(words& line) { this_device().appears_at_search = line.number("the search"); }

    void fail(words& line)
    {
        const std::string function = line.next("the function");
        failure& f = m_bus.fail(function, line.result());
        while (line.are_left()) {
            const std::string word = line.next("a condition");
            if (word == "of")
                f.of(line.next("the device"));
            else if (word == "from_call")
                f.from_call(line.number("the call"));
            else if (word == "times")
                f.times(line.number("how many calls"));
            else
                throw std::invalid_argument("no such condition: " + word);
        }
    }

    void throw_text(words& line)
    {
        const std::string function = line.next("the function");
        const int call = line.number("the call");
        const std::string what = line.rest("the text");
        m_bus.before_call(function, call, [what] { throw std::runtime_error(what); });
    }

    void throw_number(words& line)
    {
        const std::string function = line.next("the function");
        const int call = line.number("the call");
        m_bus.before_call(function, call, [call] { throw call; });
    }

    void unplug(words& line)
    {
        const std::string name = line.next("the device");
        const std::string function = line.next("the function");
        m_bus.before_call(function, line.number("the call"),
                          [this_bus = &m_bus, name] { this_bus->unplug(name); });
    }

    void transfer(words& line)
    {
        const std::string name = line.next("the device");
        const std::uint8_t address = line.byte("the endpoint address");
        fake_usb::transfer next;
        while (line.are_left())
            transfer_property(line.next("a property"), line, next);
        m_bus.script(name, address, next);
    }

    static void transfer_property(const std::string& word, words& line, fake_usb::transfer& next)
    {
        if (word == "result")
            next.result = line.result();
        else if (word == "count")
            next.count = line.number("the count");
        else if (word == "bytes")
            next.arriving = bytes_of(line.next("the bytes"));
        else if (word == "untouched")
            next = refused_with(next.result);
        else if (word == "hold")
            next.hold = line.next("the FIFO");
        else
            throw std::invalid_argument("no such property of a transfer: " + word);
    }

    void share_claims(words& line) { m_bus.share_claims(line.next("the folder")); }

    void clock(words& line)
    {
        const std::string word = line.next("recorded or slow");
        if (word != "recorded" && word != "slow")
            throw std::invalid_argument("the clock can only be 'recorded' or 'slow', not " + word);
        (word == "slow" ? m_options.is_clock_slow : m_options.is_clock_recorded) = true;
    }

    static const std::map<std::string, handler> kAboutDevices;
    static const std::map<std::string, handler> kOthers;

    bus& m_bus;
    std::optional<fake_usb::device> m_device;
    bool m_hasOwnConfiguration = false;
    std::uint8_t m_interfaceNumber = 0;
    script_options m_options;
};

const std::map<std::string, reader::handler> reader::kAboutDevices = {
    {"device", &reader::device},
    {"configuration", &reader::configuration},
    {"interface", &reader::interface},
    {"setting", &reader::setting},
    {"endpoint", &reader::endpoint},
    {"null_endpoints", &reader::null_endpoints},
    {"manufacturer", &reader::manufacturer},
    {"product", &reader::product},
    {"place", &reader::place},
    {"active_configuration", &reader::active_configuration},
    {"kernel_driver", &reader::kernel_driver},
    {"open_error", &reader::open_error},
    {"appears_at_search", &reader::appears_at_search},
};

const std::map<std::string, reader::handler> reader::kOthers = {
    {"fail", &reader::fail},
    {"throw", &reader::throw_text},
    {"throw_number", &reader::throw_number},
    {"unplug", &reader::unplug},
    {"transfer", &reader::transfer},
    {"clock", &reader::clock},
    {"share_claims", &reader::share_claims},
};

} // namespace

script_options load_script(std::istream& text, const std::string& source, bus& target)
{
    reader all(target);
    int number = 0;
    for (std::string line; std::getline(text, line);) {
        ++number;
        try {
            words statement(line);
            if (!statement.are_left())
                continue;
            all.statement(statement);
            if (statement.are_left())
                throw std::invalid_argument("not understood: " + statement.rest("the rest"));
        } catch (const std::invalid_argument& problem) {
            throw std::invalid_argument(source + ":" + std::to_string(number) + ": " + problem.what() +
                                        " (the statements are listed in fake_usb/script.h)");
        }
    }
    return all.finish();
}

} // namespace fake_usb
