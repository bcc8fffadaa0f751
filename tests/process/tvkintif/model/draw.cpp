#include "process/tvkintif/model/draw.h"

#include <algorithm>
#include <random>
#include <utility>

#include "process/tvkintif/model/prediction.h"
#include "process/tvkintif/model/scanner_model.h"

namespace session_model {

namespace {

using process_test::bare_header;
using process_test::bytes_of;
using process_test::frame;
using process_test::operator+;

template <typename Thing>
struct weighted {
    unsigned int weight;
    Thing thing;
};

constexpr std::uint32_t kId = 1;
constexpr std::uint32_t kOpen = 4;
constexpr std::uint32_t kClose = 5;
constexpr std::uint32_t kSend = 6;
constexpr std::uint32_t kReceive = 7;
constexpr std::uint32_t kQuery = 8;
constexpr std::size_t kLargest = 200'000; // takes several calls

/// Machines: what is plugged in.
const std::vector<weighted<std::string>> kDevices = {
    {30, "device scanner 1a2b:3c4d\n"},
    {10, "device scanner 1a2b:3c4d serial SN0042\n"},
    {6, "device scanner 1a2b:3c4d serial SN1\ndevice right 1a2b:3c4d serial SN2\n"},
    {3, "device other 1a2b:3c4e\ndevice scanner 1a2b:3c4d\n"},
    {2, "device scanner 1a2b:0a71\n"},
    {2, "device scanner 1a2b:0a76 serial SN0042\n"},
    {6, "device scanner 1a2b:3c4d serial SN0042\nkernel_driver 0\n"},
    {2, ""},
    {2, "device scanner 1a2b:3c4d\nopen_error LIBUSB_ERROR_ACCESS\n"},
    {2, "device scanner 1a2b:3c4d\nappears_at_search 12\n"},
    {2, "device scanner 1a2b:3c4d\nconfiguration 1\ninterface 0 07 02\nendpoint 81\nendpoint 02\n"
        "interface 1 ff 00\nendpoint 83\nendpoint 04\ninterface 2\nendpoint 85 interrupt\nendpoint 86\n"
        "endpoint 87\nendpoint 08\nkernel_driver 2\n"},
    {2, "device scanner 1a2b:3c4d\nconfiguration 1\ninterface 3\nendpoint 81\nsetting\nendpoint 81\n"
        "endpoint 02\nkernel_driver 3\n"},
    {2, "device scanner 1a2b:3c4d\nconfiguration 1\ninterface 0\nendpoint 81\nendpoint 03 control\n"
        "kernel_driver 0\n"},
    {2, "device scanner 1a2b:3c4d\nconfiguration 2\ninterface 0\nendpoint 81\nendpoint 02\n"
        "configuration 1\ninterface 5\nendpoint 83\nendpoint 04\nactive_configuration 2\n"},
    {2, "device scanner 1a2b:3c4d\nconfiguration 1\ninterface 0\nendpoint 81\nendpoint 02\nnull_endpoints\n"},
};

const std::vector<weighted<std::string>> kFunctions = {
    {8, "bulk_transfer"},
    {4, "clear_halt"},
    {1, "init"},
    {2, "get_device_list"},
    {2, "get_device_descriptor"},
    {2, "open"},
    {2, "get_string_descriptor_ascii"},
    {2, "open_device_with_vid_pid"},
    {1, "get_device"},
    {2, "get_configuration"},
    {2, "get_config_descriptor"},
    {2, "set_configuration"},
    {2, "kernel_driver_active"},
    {2, "detach_kernel_driver"},
    {2, "attach_kernel_driver"},
    {3, "claim_interface"},
    {2, "release_interface"},
};

const std::vector<std::string> kErrors = {
    "LIBUSB_ERROR_IO",          "LIBUSB_ERROR_INVALID_PARAM", "LIBUSB_ERROR_ACCESS",
    "LIBUSB_ERROR_NO_DEVICE",   "LIBUSB_ERROR_NOT_FOUND",     "LIBUSB_ERROR_BUSY",
    "LIBUSB_ERROR_TIMEOUT",     "LIBUSB_ERROR_OVERFLOW",      "LIBUSB_ERROR_PIPE",
    "LIBUSB_ERROR_INTERRUPTED", "LIBUSB_ERROR_NO_MEM",        "LIBUSB_ERROR_NOT_SUPPORTED",
    "LIBUSB_ERROR_OTHER",
};

const std::vector<std::string> kGoodAddresses = {
    "usb:1a2b:3c4d",         "usb:1A2B:3C4D",      "usb:1a2b:3c4d:SN0042", "usb:1a2b:3c4d:SN2",
    "usb:1a2b:3c4d:002:005", "usb:0x1a2b:0X3c4d",  "usb: 1a2b:+3c4d",      "usb:000000001a2b:0000000003c4d",
    "usb:1a2b:3c4d:",        "usb:1a2b:3c4d::SN1", "usb:1a2b:3c4d:sn0042", "usb:1a2b:3c4d:SN1:extra:fields:",
};

const std::vector<std::string> kOddAddresses = {
    "",
    "usb:",
    "usb:1a2b",
    "usb:1a2b:",
    "usb::3c4d",
    "usb:1a2b:0",
    "usb:11a2b:3c4d",
    "usb:1a2b:13c4d",
    "usb:1a2b:3c4g",
    "usb:-1:3c4d",
    "usb:1a2b:3c4d ",
    "usbx:1a2b:3c4d",
    "USB:1a2b:3c4d:SN0042",
    " usb:1a2b:3c4d",
    "net:1a2b:3c4d:SN0042:7",
    "%s%n%d usb:%x",
    "usb:1a2b\n3c4d",
    "usb:ffffffffffffffffffffffff:3c4d",
    "\xff\xfe\x80usb",
    "::::::::",
    "usb:1a2b:0a7f",
    "usb:0001:0001",
};

class dice {
public:
    dice(std::uint64_t seed, std::uint64_t number) : m_source(made_of(seed, number)) {}

    /// From 0 to `limit` - 1. Not by a distribution of the library, of which each machine has its own.
    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(m_source() % limit); }
    bool in_percent(unsigned int share) { return below(100) < share; }
    template <typename Thing>
    const Thing& one_of(const std::vector<Thing>& all)
    {
        return all[below(all.size())];
    }
    template <typename Thing>
    const Thing& one_of(const std::vector<weighted<Thing>>& all)
    {
        std::size_t sum = 0;
        for (const weighted<Thing>& each : all)
            sum += each.weight;
        std::size_t left = below(sum);
        std::size_t at = 0;
        for (; left >= all[at].weight; ++at)
            left -= all[at].weight;
        return all[at].thing;
    }
    bytes some(std::size_t size)
    {
        bytes data(size);
        std::generate(data.begin(), data.end(), [this] { return static_cast<unsigned char>(below(256)); });
        return data;
    }
    bytes seldom_some() { return some(in_percent(90) ? 0 : below(50)); }
    std::uint32_t any_number() { return static_cast<std::uint32_t>(m_source()); }
    /// Mostly small, now and then one that takes several calls.
    std::size_t length()
    {
        if (in_percent(4))
            return below(kLargest);
        return 1 + below(in_percent(20) ? 3000 : 40);
    }

private:
    static std::mt19937_64 made_of(std::uint64_t seed, std::uint64_t number)
    {
        std::seed_seq both{static_cast<std::uint32_t>(seed), static_cast<std::uint32_t>(seed >> 32U),
                           static_cast<std::uint32_t>(number), static_cast<std::uint32_t>(number >> 32U)};
        return std::mt19937_64(both);
    }

    std::mt19937_64 m_source;
};

// The machine.

std::string drawn_transfer(dice& d)
{
    static const std::vector<std::string> results = {"LIBUSB_SUCCESS", "LIBUSB_ERROR_PIPE",
                                                     "LIBUSB_ERROR_TIMEOUT"};
    std::string line = std::string("transfer scanner ") + (d.in_percent(60) ? "81" : "02");
    if (d.in_percent(20)) {
        line += " bytes ";
        for (std::size_t left = 1 + d.below(12); left > 0; --left)
            line += process_test::hex(d.some(1));
        return line + "\n";
    }
    line += " result " + (d.in_percent(70) ? d.one_of(results) : d.one_of(kErrors));
    line += d.in_percent(20) ? " untouched" : " count " + std::to_string(d.below(40));
    return line + "\n";
}

std::string drawn_failure(dice& d)
{
    std::string line = "fail " + d.one_of(kFunctions);
    line += " " + d.one_of(kErrors);
    if (d.in_percent(60))
        line += " from_call " + std::to_string(1 + d.below(4));
    if (d.in_percent(70))
        line += " times " + std::to_string(1 + d.below(6));
    return line + "\n";
}

std::string drawn_unplugging(dice& d)
{
    const std::string line = "unplug scanner " + d.one_of(kFunctions);
    return line + " " + std::to_string(1 + d.below(3)) + "\n";
}

std::string drawn_bus(dice& d)
{
    const std::string devices = d.one_of(kDevices);
    std::string bus = "clock recorded\n" + devices;
    const bool is_there = !devices.empty();
    for (std::size_t left = d.in_percent(50) ? d.below(4) : 0; left > 0; --left) {
        if (is_there && d.in_percent(50))
            bus += drawn_transfer(d);
        else if (is_there && d.in_percent(20))
            bus += drawn_unplugging(d);
        else
            bus += drawn_failure(d);
    }
    return bus;
}

void draw_machine(dice& d, session& s)
{
    s.bus = drawn_bus(d);
    if (d.in_percent(97))
        s.plugin = (d.in_percent(50) ? known_plugins().front() : d.one_of(known_plugins())).target;
    const unsigned int product = s.bus.find(":0a71") != std::string::npos   ? 0x0A71
                                 : s.bus.find(":0a76") != std::string::npos ? 0x0A76
                                                                            : 0x3C4D;
    static const std::vector<unsigned int> others = {0x0A71, 0x0A72, 0x0A75, 0x0A76, 0x0A7E, 0x0A83, 0x3C4D};
    s.plugin_file = plugin_file_of(d.in_percent(95) ? product : d.one_of(others));
    static const std::vector<weighted<logging>> logs = {{40, logging::off},
                                                        {35, logging::at_info},
                                                        {15, logging::in_order},
                                                        {5, logging::errors},
                                                        {5, logging::verbose}};
    s.log = d.one_of(logs);
}

// What the front-end sends.

std::string drawn_address(dice& d, const std::string& bus)
{
    std::string udi = d.in_percent(70) ? d.one_of(kGoodAddresses) : d.one_of(kOddAddresses);
    if (const std::size_t listed = bus.find("1a2b:0a7"); listed != std::string::npos && d.in_percent(80))
        udi = "usb:" + bus.substr(listed, 9);
    if (d.in_percent(5))
        udi += '\0';
    if (d.in_percent(4) && !udi.empty())
        std::swap(udi[d.below(udi.size())], udi.back());
    if (d.in_percent(3))
        udi += ":" + std::string(1 + d.below(1500), 'x');
    return udi;
}

message drawn_open(dice& d, const session& s)
{
    // The first one should not end most of the sessions.
    const std::string udi =
        s.messages.empty() && d.in_percent(75) ? "usb:1a2b:3c4d" : drawn_address(d, s.bus);
    const std::uint32_t id = d.in_percent(50) ? 0 : d.any_number();
    return {"open", frame(id, kOpen, d.any_number(), bytes_of(udi))};
}

message drawn_send(dice& d, const session&)
{
    const bytes payload = d.some(d.in_percent(8) ? 0 : d.length());
    return {"send", frame(kId, kSend, d.any_number(), payload)};
}

message drawn_receive(dice& d, const session&)
{
    const auto count = static_cast<std::uint32_t>(d.in_percent(8) ? 0 : d.length());
    return {"receive", frame(kId, kReceive, count, d.seldom_some())};
}

message drawn_query(dice& d, const session&)
{
    const auto selector = d.in_percent(10) ? d.any_number() : static_cast<std::uint32_t>(d.below(4));
    return {"query", frame(kId, kQuery, selector, d.seldom_some())};
}

message drawn_close(dice& d, const session&)
{
    return {"close", frame(kId, kClose, 0, d.seldom_some())};
}

message drawn_empty(dice& d, const session&)
{
    return {"without payload", frame(kId, d.in_percent(50) ? kOpen : kSend)};
}

message drawn_unknown(dice& d, const session&)
{
    const std::uint32_t code = d.in_percent(50) ? static_cast<std::uint32_t>(d.below(12)) : d.any_number();
    const auto value = static_cast<std::uint32_t>(d.below(5));
    return {"any code", frame(kId, code, value, d.some(d.below(20)))};
}

message drawn_wrong_id(dice& d, const session&)
{
    static const std::vector<weighted<std::uint32_t>> codes = {{20, kSend}, {20, kReceive}, {20, kQuery},
                                                               {3, kClose}, {5, 0},         {5, 9}};
    const std::uint32_t id = d.in_percent(50) ? static_cast<std::uint32_t>(2 * d.below(3)) : d.any_number();
    const std::uint32_t code = d.one_of(codes);
    const auto value = static_cast<std::uint32_t>(d.below(100));
    return {"wrong id", frame(id, code, value, d.some(d.below(20)))};
}

/// The header announces more or less than what follows: the rest of the stream is out of step.
message drawn_wrong_size(dice& d, const session&)
{
    const bytes payload = d.some(d.below(60));
    const auto size = static_cast<std::uint32_t>(d.in_percent(20) ? d.any_number() : d.below(60));
    const std::uint32_t code = kOpen + static_cast<std::uint32_t>(d.below(5));
    const auto value = static_cast<std::uint32_t>(d.below(50));
    return {"wrong size", bare_header(kId, code, size, value) + payload};
}

message drawn_short_header(dice& d, const session&)
{
    bytes header = bare_header(kId, kOpen + static_cast<std::uint32_t>(d.below(5)), 0);
    header.resize(d.below(header.size()));
    return {"short header", std::move(header)};
}

message drawn_noise(dice& d, const session&)
{
    return {"noise", d.some(1 + d.below(100))};
}

message drawn_message(dice& d, const session& s)
{
    using drawer = message (*)(dice&, const session&);
    static const std::vector<weighted<drawer>> drawers = {
        {12, drawn_open},      {24, drawn_send},        {24, drawn_receive}, {10, drawn_query},
        {4, drawn_close},      {5, drawn_empty},        {5, drawn_unknown},  {8, drawn_wrong_id},
        {3, drawn_wrong_size}, {2, drawn_short_header}, {1, drawn_noise},
    };
    return d.one_of(drawers)(d, s);
}

void draw_messages(dice& d, session& s)
{
    if (d.in_percent(85))
        s.messages.push_back(drawn_open(d, s));
    for (std::size_t left = d.below(d.in_percent(10) ? 60 : 12); left > 0; --left)
        s.messages.push_back(drawn_message(d, s));
    if (d.in_percent(40))
        s.messages.push_back(drawn_close(d, s));
    if (d.in_percent(30) && !s.messages.empty()) {
        message& last = s.messages.back();
        last.data.resize(last.data.size() - d.below(last.data.size() + 1));
        last.what += ", cut short";
    }
}

/// As a whole, message by message, byte by byte, or anyhow.
void draw_writes(dice& d, session& s)
{
    constexpr std::size_t kMostSingleBytes = 400;
    const std::size_t size = s.stream().size();
    const std::size_t way = d.below(4);
    if (way == 0 || (way == 1 && size > kMostSingleBytes))
        s.writes = {size};
    else if (way == 1)
        s.writes.assign(size, 1);
    else if (way == 2)
        for (const message& each : s.messages)
            s.writes.push_back(each.data.size());
    else
        for (std::size_t left = size; left > 0; left -= s.writes.back())
            s.writes.push_back(1 + d.below(left));
    s.is_patient = d.in_percent(60);
}

} // namespace

session draw(std::uint64_t seed, std::uint64_t number)
{
    dice d(seed, number);
    session drawn;
    do {
        drawn = {};
        drawn.seed = seed;
        drawn.number = number;
        draw_machine(d, drawn);
        draw_messages(d, drawn);
        draw_writes(d, drawn);
        static const std::vector<weighted<departure>> ends = {
            {50, departure::ends_stream}, {30, departure::hangs_up}, {20, departure::resets}};
        drawn.end = d.one_of(ends);
    } while (predict(drawn).is_up_to_the_machine);
    return drawn;
}

} // namespace session_model
