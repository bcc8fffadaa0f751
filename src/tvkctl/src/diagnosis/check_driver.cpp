#include <unistd.h>

#include <algorithm>

#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kClaimedByProcess = "usbfs"; // the kernel's name for it

/// The interfaces that the program claims on its way to the one that it uses, which is the last.
std::vector<int> interfaces_claimed(const check_context& context)
{
    std::vector<int> numbers;
    const auto add = [&](int number) {
        if (std::find(numbers.begin(), numbers.end(), number) == numbers.end())
            numbers.push_back(number);
    };
    for (const usb_configuration& configuration : context.device->configurations) {
        const interface_choice choice = choose_interface(configuration);
        for (const passed_over_setting& each : choice.passed_over)
            if (each.flaw != setting_flaw::not_vendor_specific)
                add(each.setting.interface_number);
        if (choice.used) {
            add(choice.used->number);
            break;
        }
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
        all.emplace_back("processes of other users could not be examined");
    return all;
}

std::vector<advice> advice_on_holders(const node_holders& holders, const check_context& context)
{
    std::vector<advice> steps;
    for (const process_name& process : holders.found)
        if (process.pid != getpid())
            steps.emplace_back("kill " + std::to_string(process.pid) + "   # ends " + process.name);
    if (steps.empty())
        steps.emplace_back(tool_step::explain_as_root, context.udi, "sees the processes of all users");
    return steps;
}

check_result claimed(int number, const node_holders& holders, const check_context& context)
{
    return {outcome::failed, cause{"claimed"},
            "another process has claimed interface " + std::to_string(number), text_of(holders),
            advice_on_holders(holders, context)};
}

check_result driver_bound(int number, const std::string& driver, const node_holders& holders)
{
    check_result result{outcome::warning, cause{"kernel_driver"},
                        "kernel driver " + driver + " is bound to interface " + std::to_string(number)};
    result.evidence = {"it is detached while the scanner is open, and attached again after it"};
    const auto others = text_of(holders);
    result.evidence.insert(result.evidence.end(), others.begin(), others.end());
    result.next = {"close what uses the device through " + driver + " (a mounted disk, a terminal, a queue)"};
    return result;
}

check_result held(const node_holders& holders)
{
    return {outcome::warning,
            cause{"held"},
            "another process has the device open, but has not claimed it",
            text_of(holders),
            {"when transfers fail, it may be the cause"}};
}

bool is_anybody_else(const node_holders& holders)
{
    return std::any_of(holders.found.begin(), holders.found.end(),
                       [](const process_name& process) { return process.pid != getpid(); });
}

} // namespace

check_result check_driver(check_context& context)
{
    const node_holders holders = find_node_holders(context.device->node, context.machine);
    const std::vector<int> numbers = interfaces_claimed(context);
    for (const int number : numbers)
        if (kernel_driver_of(*context.device, number, context.machine) == kClaimedByProcess)
            return claimed(number, holders, context);
    for (const int number : numbers)
        if (const std::string driver = kernel_driver_of(*context.device, number, context.machine);
            !driver.empty())
            return driver_bound(number, driver, holders);
    if (is_anybody_else(holders))
        return held(holders);
    if (!context.device->active_configuration)
        return {outcome::not_checked, cause{"no_sysfs"},
                context.machine.sysfs + " does not tell which driver is bound to the interface"};
    return {outcome::ok, {}, "interface " + std::to_string(context.interface->number) + " is free"};
}

} // namespace tarvik::tvkctl
