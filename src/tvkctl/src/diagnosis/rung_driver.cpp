#include <unistd.h>

#include <algorithm>

#include "tvkctl/src/diagnosis/rungs.h"
#include "tvkctl/src/machine/udi.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kClaimedByProcess = "usbfs"; // the kernel's name for it

/// The interfaces that the program claims on its way to the one that it uses, which is the last.
std::vector<int> interfaces_claimed(const situation& where)
{
    std::vector<int> numbers;
    for (const usb_configuration& configuration : where.device->configurations)
        for (const usb_setting& setting : configuration.settings) {
            if (!setting.is_vendor_specific())
                continue;
            if (std::find(numbers.begin(), numbers.end(), setting.interface_number) == numbers.end())
                numbers.push_back(setting.interface_number);
            if (setting.bulk_in() && setting.bulk_out())
                return numbers;
        }
    return numbers;
}

std::string text_of(const process_name& process)
{
    return process.name + " (process " + std::to_string(process.pid) + ")";
}

/// Processes other than this one, in words; also that there may be more.
std::vector<std::string> text_of(const node_holders& holders)
{
    std::vector<std::string> all;
    for (const process_name& process : holders.found)
        if (process.pid != getpid())
            all.push_back(text_of(process) + " has the device open");
    if (!holders.is_complete)
        all.emplace_back("other users' processes cannot be looked into");
    return all;
}

std::vector<std::string> cure_of_holders(const node_holders& holders, const situation& where)
{
    std::vector<std::string> steps;
    for (const process_name& process : holders.found)
        if (process.pid != getpid())
            steps.push_back("kill " + std::to_string(process.pid) + "   # ends " + process.name);
    if (steps.empty())
        steps.push_back("sudo tvkctl explain " + shell_word(where.udi) +
                        "   # sees the processes of all users");
    return steps;
}

rung_result claimed(int number, const node_holders& holders, const situation& where)
{
    return {verdict::bad, "claimed", "another process has claimed interface " + std::to_string(number),
            text_of(holders), cure_of_holders(holders, where)};
}

rung_result driver_bound(int number, const std::string& driver, const node_holders& holders)
{
    rung_result result{verdict::warning, "kernel_driver",
                       "kernel driver " + driver + " is bound to interface " + std::to_string(number)};
    result.evidence = {"it is detached while the scanner is open, and attached again after it"};
    const auto others = text_of(holders);
    result.evidence.insert(result.evidence.end(), others.begin(), others.end());
    result.next = {"close what uses the device through " + driver + " (a mounted disk, a terminal, a queue)"};
    return result;
}

rung_result held(const node_holders& holders)
{
    return {verdict::warning,
            "held",
            "another process has the device open, though not claimed",
            text_of(holders),
            {"go on, and think of it when transfers fail"}};
}

bool is_anybody_else(const node_holders& holders)
{
    return std::any_of(holders.found.begin(), holders.found.end(),
                       [](const process_name& process) { return process.pid != getpid(); });
}

} // namespace

rung_result look_at_driver(situation& where)
{
    const node_holders holders = find_node_holders(where.device->node, where.machine);
    const std::vector<int> numbers = interfaces_claimed(where);
    for (const int number : numbers)
        if (kernel_driver_of(*where.device, number, where.machine) == kClaimedByProcess)
            return claimed(number, holders, where);
    for (const int number : numbers)
        if (const std::string driver = kernel_driver_of(*where.device, number, where.machine);
            !driver.empty())
            return driver_bound(number, driver, holders);
    if (is_anybody_else(holders))
        return held(holders);
    if (!where.device->active_configuration)
        return {verdict::not_checked, "no_sysfs",
                where.machine.sysfs + " does not tell which driver is bound to the interface"};
    return {verdict::good, "", "interface " + std::to_string(where.interface->number) + " is free"};
}

} // namespace tarvik::tvkctl
