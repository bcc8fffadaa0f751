#include "target/scanner/device_file.h"

#include <functional>
#include <limits>
#include <map>
#include <sstream>

namespace virtual_scanner {

namespace {

using words = std::vector<std::string>;

words split(const std::string& line)
{
    std::istringstream stream(line.substr(0, line.find('#')));
    words found;
    for (std::string word; stream >> word;)
        found.push_back(word);
    return found;
}

std::string join(const words& parts, std::size_t first)
{
    std::string joined;
    for (std::size_t index = first; index < parts.size(); ++index)
        joined += (joined.empty() ? "" : " ") + parts[index];
    return joined;
}

template <typename Number>
Number number(const std::string& text, int base)
{
    std::size_t used = 0;
    unsigned long value = 0;
    try {
        value = std::stoul(text, &used, base);
    } catch (const std::logic_error&) {
        used = 0;
    }
    if (used != text.size() || text.front() == '-' || value > std::numeric_limits<Number>::max()) {
        throw std::invalid_argument("\"" + text + "\" is not a number from 0 to " +
                                    std::to_string(std::numeric_limits<Number>::max()) +
                                    (base == 16 ? " in hexadecimal" : ""));
    }
    return static_cast<Number>(value);
}

template <typename Value>
Value one_of(const std::map<std::string, Value>& known, const std::string& word)
{
    const auto found = known.find(word);
    if (found != known.end())
        return found->second;
    std::string names;
    for (const auto& entry : known)
        names += " " + entry.first;
    throw std::invalid_argument("\"" + word + "\" is none of:" + names);
}

// Gathers the devices line by line. Every reason to refuse a line is a std::invalid_argument.
class reader {
public:
    void take(const words& line);
    std::vector<device_description> finish();

private:
    struct keyword {
        std::size_t fewest_values;
        std::size_t most_values;
        std::function<void(const words&)> apply;
    };

    void start_device(const words& line);
    void add_endpoint(const words& line);
    void add_fault(const words& line);
    device_description& device();
    void check_device() const;

    static constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

    std::vector<device_description> m_devices;
    const std::map<std::string, keyword> m_keywords{
        {"device", {1, 1, [this](const words& line) { start_device(line); }}},
        {"vendor",
         {1, 1, [this](const words& line) { device().vendor = number<std::uint16_t>(line[1], 16); }}},
        {"product",
         {1, 1, [this](const words& line) { device().product = number<std::uint16_t>(line[1], 16); }}},
        {"serial", {1, 1, [this](const words& line) { device().serial = line[1]; }}},
        {"maker", {1, kAnyNumber, [this](const words& line) { device().maker = join(line, 1); }}},
        {"model", {1, kAnyNumber, [this](const words& line) { device().model = join(line, 1); }}},
        {"unplugged", {0, 0, [this](const words&) { device().starts_plugged = false; }}},
        {"interface",
         {3, 3,
          [this](const words& line) {
              device().interfaces.push_back({number<std::uint8_t>(line[1], 16),
                                             number<std::uint8_t>(line[2], 16),
                                             number<std::uint8_t>(line[3], 16),
                                             {}});
          }}},
        {"endpoint", {2, 2, [this](const words& line) { add_endpoint(line); }}},
        {"fault", {2, 2, [this](const words& line) { add_fault(line); }}},
    };
};

void reader::take(const words& line)
{
    const auto found = m_keywords.find(line.front());
    if (found == m_keywords.end())
        throw std::invalid_argument("unknown keyword \"" + line.front() + "\"");
    const keyword& rule = found->second;
    const std::size_t values = line.size() - 1;
    if (values < rule.fewest_values || values > rule.most_values) {
        throw std::invalid_argument("\"" + line.front() + "\" takes " + std::to_string(rule.fewest_values) +
                                    (rule.most_values == kAnyNumber ? " or more" : "") + " values, not " +
                                    std::to_string(values));
    }
    rule.apply(line);
}

std::vector<device_description> reader::finish()
{
    check_device();
    return std::move(m_devices);
}

void reader::start_device(const words& line)
{
    if (!m_devices.empty())
        check_device();
    m_devices.emplace_back();
    m_devices.back().name = line[1];
}

void reader::add_endpoint(const words& line)
{
    if (device().interfaces.empty())
        throw std::invalid_argument("an endpoint needs an interface before it");
    static const std::map<std::string, endpoint_type> types{{"bulk", endpoint_type::bulk},
                                                            {"interrupt", endpoint_type::interrupt}};
    static const std::map<std::string, endpoint_direction> directions{{"out", endpoint_direction::out},
                                                                      {"in", endpoint_direction::in}};
    device().interfaces.back().endpoints.push_back({one_of(types, line[1]), one_of(directions, line[2])});
}

void reader::add_fault(const words& line)
{
    static const std::map<std::string, fault_kind> kinds{{"stall-out", fault_kind::stall_out},
                                                         {"stall-in", fault_kind::stall_in}};
    device().faults.push_back({one_of(kinds, line[1]), number<std::uint32_t>(line[2], 10)});
}

device_description& reader::device()
{
    if (m_devices.empty())
        throw std::invalid_argument("the first line must be \"device NAME\"");
    return m_devices.back();
}

void reader::check_device() const
{
    if (m_devices.empty())
        throw std::invalid_argument("no device is described");
    const device_description& last = m_devices.back();
    if (last.vendor == 0 || last.product == 0)
        throw std::invalid_argument("device \"" + last.name + "\" needs a vendor and a product other than 0");
    if (last.interfaces.empty())
        throw std::invalid_argument("device \"" + last.name + "\" needs an interface");
}

} // namespace

std::vector<device_description> read_devices(std::istream& text, const std::string& file_name)
{
    reader devices;
    int line_number = 0;
    try {
        for (std::string line; std::getline(text, line);) {
            ++line_number;
            const words parts = split(line);
            if (!parts.empty())
                devices.take(parts);
        }
        return devices.finish();
    } catch (const std::invalid_argument& reason) {
        throw device_file_error(file_name + ":" + std::to_string(line_number) + ": " + reason.what());
    }
}

} // namespace virtual_scanner
