#include "target/scanner/device_file.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <limits>
#include <map>

#include "target/scanner/words.h"

namespace virtual_scanner {

namespace {

constexpr std::uint8_t kVendorSpecific = 0xFF;
constexpr std::uint8_t kFirstConfiguration = 1;

template <typename Number>
Number number(const std::string& text, int base)
{
    return static_cast<Number>(virtual_scanner::number(text, base, std::numeric_limits<Number>::max()));
}

bool is_vendor_specific(const interface_description& each)
{
    return each.interface_class == kVendorSpecific && each.protocol == kVendorSpecific;
}

bool serves_anything(const device_description& device)
{
    return std::any_of(device.configurations.begin(), device.configurations.end(),
                       [](const auto& each) { return endpoints_to_serve(each.interfaces).out != 0; });
}

// Gathers the devices line by line. Every reason to refuse a line is a std::invalid_argument.
class reader {
public:
    void take(const words& line, int line_number);
    std::vector<device_description> finish();

    /// Where to look for the reason of the last refusal.
    int line_to_blame() const { return m_blamedLine; }

private:
    enum class how_often { once, any_number_of_times };

    struct keyword {
        how_often in_a_device;
        std::size_t fewest_values;
        std::size_t most_values;
        std::function<void(const words&)> apply;
    };

    void require_number_of_values(const keyword& rule, const words& line) const;
    void require_first_time(const keyword& rule, const std::string& name);

    void start_device(const words& line);
    void start_configuration(const words& line);
    void add_interface(const words& line);
    void add_endpoint(const words& line);
    void set_firmware(const words& line);
    void add_fault(const words& line);
    void add_answer(const words& line);
    void plug_later(const words& line);
    device_description& device();
    std::vector<interface_description>& interfaces();
    void check_device();
    void check_served(const std::string& name, const std::string& which);
    void check_configuration();
    /// Refuses because of an earlier line than the one just read.
    [[noreturn]] void refuse(int line, const std::string& why);

    static constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

    int m_blamedLine = 0;
    int m_configurationLine = 0;             ///< the last of the device
    std::map<std::string, int> m_firstLines; ///< of the device, where each keyword was said first
    std::vector<device_description> m_devices;
    const std::map<std::string, keyword> m_keywords{
        {"device", {how_often::any_number_of_times, 1, 1, [this](const words& line) { start_device(line); }}},
        {"vendor",
         {how_often::once, 1, 1,
          [this](const words& line) { device().vendor = number<std::uint16_t>(line[1], 16); }}},
        {"product",
         {how_often::once, 1, 1,
          [this](const words& line) { device().product = number<std::uint16_t>(line[1], 16); }}},
        {"serial", {how_often::once, 1, 1, [this](const words& line) { device().serial = line[1]; }}},
        {"maker",
         {how_often::once, 1, kAnyNumber, [this](const words& line) { device().maker = join(line, 1); }}},
        {"model",
         {how_often::once, 1, kAnyNumber, [this](const words& line) { device().model = join(line, 1); }}},
        {"firmware", {how_often::once, 1, kAnyNumber, [this](const words& line) { set_firmware(line); }}},
        {"unplugged", {how_often::once, 0, 0, [this](const words&) { device().starts_plugged = false; }}},
        {"plug", {how_often::once, 2, 2, [this](const words& line) { plug_later(line); }}},
        {"configuration",
         {how_often::any_number_of_times, 1, 1, [this](const words& line) { start_configuration(line); }}},
        {"interface",
         {how_often::any_number_of_times, 3, 3, [this](const words& line) { add_interface(line); }}},
        {"endpoint",
         {how_often::any_number_of_times, 2, 2, [this](const words& line) { add_endpoint(line); }}},
        {"fault", {how_often::any_number_of_times, 2, 3, [this](const words& line) { add_fault(line); }}},
        {"answer",
         {how_often::any_number_of_times, 2, kAnyNumber, [this](const words& line) { add_answer(line); }}},
    };
};

void reader::take(const words& line, int line_number)
{
    m_blamedLine = line_number;
    const auto found = m_keywords.find(line.front());
    if (found == m_keywords.end())
        throw std::invalid_argument("unknown keyword \"" + line.front() + "\"");
    const keyword& rule = found->second;
    require_number_of_values(rule, line);
    require_first_time(rule, line.front());
    rule.apply(line);
    m_firstLines.emplace(line.front(), line_number);
}

void reader::require_number_of_values(const keyword& rule, const words& line) const
{
    const std::size_t values = line.size() - 1;
    if (values >= rule.fewest_values && values <= rule.most_values)
        return;
    std::string expected = std::to_string(rule.fewest_values);
    if (rule.most_values == kAnyNumber)
        expected += " or more";
    else if (rule.most_values != rule.fewest_values)
        expected += " or " + std::to_string(rule.most_values);
    throw std::invalid_argument("\"" + line.front() + "\" takes " + expected + " values, not " +
                                std::to_string(values));
}

void reader::require_first_time(const keyword& rule, const std::string& name)
{
    if (rule.in_a_device == how_often::once && m_firstLines.count(name) != 0)
        throw std::invalid_argument("\"" + name + "\" was said of device \"" + device().name + "\" before");
}

std::vector<device_description> reader::finish()
{
    if (m_devices.empty())
        throw std::invalid_argument("no device is described");
    check_device();
    return std::move(m_devices);
}

void reader::start_device(const words& line)
{
    static const std::string allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_";
    const std::string& name = line[1];
    const int this_line = m_blamedLine;
    if (!m_devices.empty())
        check_device();
    m_blamedLine = this_line;
    if (name.find_first_not_of(allowed) != std::string::npos)
        throw std::invalid_argument("a device's name is made of letters, digits, - and _");
    if (std::any_of(m_devices.begin(), m_devices.end(), [&](const auto& each) { return each.name == name; }))
        throw std::invalid_argument("there is a device \"" + name + "\" already");
    m_devices.emplace_back();
    m_devices.back().name = name;
    m_configurationLine = 0;
    m_firstLines.clear();
}

void reader::start_configuration(const words& line)
{
    const auto value = number<std::uint8_t>(line[1], 10);
    auto& all = device().configurations;
    if (value == 0)
        throw std::invalid_argument("configurations are counted from 1; 0 is none");
    if (std::any_of(all.begin(), all.end(), [value](const auto& each) { return each.value == value; })) {
        throw std::invalid_argument("device \"" + device().name + "\" has a configuration " + line[1] +
                                    " already");
    }
    check_configuration();
    all.push_back({value, {}});
    m_configurationLine = m_blamedLine;
}

void reader::add_interface(const words& line)
{
    interfaces().push_back({number<std::uint8_t>(line[1], 16),
                            number<std::uint8_t>(line[2], 16),
                            number<std::uint8_t>(line[3], 16),
                            {}});
}

void reader::add_endpoint(const words& line)
{
    static const std::map<std::string, endpoint_type> types{{"bulk", endpoint_type::bulk},
                                                            {"interrupt", endpoint_type::interrupt}};
    static const std::map<std::string, endpoint_direction> directions{{"out", endpoint_direction::out},
                                                                      {"in", endpoint_direction::in}};
    if (interfaces().empty())
        throw std::invalid_argument("an endpoint needs an interface before it");
    interfaces().back().endpoints.push_back({one_of(types, line[1]), one_of(directions, line[2])});
}

void reader::set_firmware(const words& line)
{
    const std::string text = join(line, 1);
    if (text.size() > kFirmwareWidth) {
        throw std::invalid_argument("\"" + text + "\" has " + std::to_string(text.size()) +
                                    " bytes; the identification has room for " +
                                    std::to_string(kFirmwareWidth));
    }
    device().firmware = text;
}

void reader::add_fault(const words& line)
{
    const auto at_command = number<std::uint32_t>(line[2], 10);
    if (at_command == 0)
        throw std::invalid_argument("commands are counted from 1");
    device().faults.push_back({read_fault(line[1], line.size() > 3 ? line[3] : ""), at_command});
}

void reader::add_answer(const words& line)
{
    // A front-end arms faults by one more command: to answer it and do nothing would be a trap for tests.
    static const std::map<std::string, command_code> commands{
        {"identify", command_code::identify},         {"status", command_code::status},
        {"read-pattern", command_code::read_pattern}, {"echo", command_code::echo},
        {"checksum", command_code::checksum},         {"sheet", command_code::sheet},
        {"read-lines", command_code::read_lines},
    };
    given_answer given{static_cast<answer_status>(number<std::uint32_t>(line[2], 10)), {}};
    std::transform(line.begin() + 3, line.end(), std::back_inserter(given.data),
                   [](const std::string& text) { return number<std::uint8_t>(text, 16); });
    if (!device().answers.emplace(one_of(commands, line[1]), given).second) {
        throw std::invalid_argument("device \"" + device().name + "\" has an answer to " + line[1] +
                                    " already");
    }
}

void reader::plug_later(const words& line)
{
    if (line[1] != "after")
        throw std::invalid_argument("\"" + line[1] + "\" is not \"after\"");
    device().plugged_after_ms = number<std::uint32_t>(line[2], 10);
}

device_description& reader::device()
{
    if (m_devices.empty())
        throw std::invalid_argument("the first line must be \"device NAME\"");
    return m_devices.back();
}

/// Those of the configuration under way, which is the first one unless a line says otherwise.
std::vector<interface_description>& reader::interfaces()
{
    auto& all = device().configurations;
    if (all.empty())
        all.push_back({kFirstConfiguration, {}});
    return all.back().interfaces;
}

void reader::check_configuration()
{
    const auto& all = device().configurations;
    if (!all.empty() && all.back().interfaces.empty())
        refuse(m_configurationLine, "this configuration has no interface");
}

void reader::check_device()
{
    const device_description& last = device();
    const std::string name = "device \"" + last.name + "\"";
    if (last.vendor == 0 || last.product == 0)
        refuse(m_firstLines.at("device"), name + " needs a vendor and a product other than 0");
    if (last.configurations.empty())
        refuse(m_firstLines.at("device"), name + " needs an interface");
    check_configuration();
    if (last.plugged_after_ms && last.starts_plugged)
        refuse(m_firstLines.at("plug"),
               name + " is plugged in from the start, unless it is said to be \"unplugged\"");
    check_served("fault", "that a fault could strike");
    check_served("answer", "that it could answer");
    check_served("firmware", "whose answer could tell its firmware");
}

/// Refuses a keyword, if it was said, that makes sense only of a device that serves commands.
void reader::check_served(const std::string& name, const std::string& which)
{
    const auto said = m_firstLines.find(name);
    if (said == m_firstLines.end() || serves_anything(device()))
        return;
    refuse(said->second, "device \"" + device().name + "\" serves no commands " + which +
                             ": it has no interface ff .. ff with bulk endpoints both ways");
}

void reader::refuse(int line, const std::string& why)
{
    m_blamedLine = line;
    throw std::invalid_argument(why);
}

} // namespace

bool has_strings(const device_description& device)
{
    return !device.serial.empty() || device.maker || device.model;
}

std::string maker_of(const device_description& device)
{
    return device.maker.value_or("Tarvik");
}

std::string model_of(const device_description& device)
{
    return device.model.value_or("Virtual scanner");
}

served_endpoints endpoints_to_serve(const std::vector<interface_description>& interfaces)
{
    unsigned number = 0;
    for (const interface_description& each : interfaces) {
        served_endpoints found;
        for (const endpoint_description& endpoint : each.endpoints) {
            ++number;
            if (endpoint.type == endpoint_type::bulk)
                (endpoint.direction == endpoint_direction::in ? found.in : found.out) = number;
        }
        if (is_vendor_specific(each) && found.in != 0 && found.out != 0)
            return found;
    }
    return {};
}

std::vector<device_description> read_devices(std::istream& text, const std::string& file_name)
{
    reader devices;
    int line_number = 0;
    try {
        for (std::string line; std::getline(text, line);) {
            ++line_number;
            const words parts = split(line);
            if (!parts.empty())
                devices.take(parts, line_number);
        }
        return devices.finish();
    } catch (const std::invalid_argument& reason) {
        throw device_file_error(file_name + ":" + std::to_string(devices.line_to_blame()) + ": " +
                                reason.what());
    }
}

} // namespace virtual_scanner
