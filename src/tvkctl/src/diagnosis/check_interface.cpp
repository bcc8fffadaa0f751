#include "common/text/text.h"
#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

std::string text_of(const passed_over_setting& passed_over)
{
    switch (passed_over.flaw) {
    case setting_flaw::not_vendor_specific:
        return "class " + hexadecimal(passed_over.setting.interface_class, 2) + " and protocol " +
               hexadecimal(passed_over.setting.interface_protocol, 2) + " where ff and ff are needed";
    case setting_flaw::no_bulk_in:
        return "no bulk endpoint from the device";
    case setting_flaw::no_bulk_out:
        return "no bulk endpoint to the device";
    case setting_flaw::no_bulk_endpoint:
        break;
    }
    return "no bulk endpoint";
}

std::vector<std::string> flaws_of(const usb_device& device)
{
    std::vector<std::string> all;
    for (const usb_configuration& configuration : device.configurations)
        for (const passed_over_setting& each : choose_interface(configuration).passed_over)
            all.push_back("configuration " + std::to_string(configuration.value) + ", interface " +
                          std::to_string(each.setting.interface_number) + ", setting " +
                          std::to_string(each.setting.alternate) + ": " + text_of(each));
    return all;
}

check_result unusable(const usb_device& device)
{
    if (device.configurations.empty())
        return {outcome::failed,
                cause{"no_descriptors"},
                "the device's descriptors cannot be read",
                {},
                {"switch the scanner off and on again", "lsusb -v -d " + ids_of(device)}};
    return {outcome::failed,
            cause{"no_interface"},
            "no interface is vendor specific and has bulk endpoints both ways",
            flaws_of(device),
            {"check that these are the ids of the scanner, and not of another part of it",
             "lsusb -v -d " + ids_of(device)}};
}

} // namespace

check_result check_interface(check_context& context)
{
    context.interface = usable_interface_of(*context.device);
    if (!context.interface)
        return unusable(*context.device);
    const usable_interface& found = *context.interface;
    check_result result{outcome::ok,
                        {},
                        "interface " + std::to_string(found.number) + " with bulk endpoints " +
                            hexadecimal(found.bulk_in, 2) + " in and " + hexadecimal(found.bulk_out, 2) +
                            " out"};
    if (found.configuration != kConfigurationSet) {
        result.came_out = outcome::warning;
        result.why = cause{"other_configuration"};
        result.evidence = {"it is in configuration " + std::to_string(found.configuration) +
                           ", but the program activates configuration " + std::to_string(kConfigurationSet) +
                           " before it claims it"};
        result.next = {"go on only if configuration " + std::to_string(kConfigurationSet) +
                           " has the same interface",
                       "lsusb -v -d " + ids_of(*context.device)};
    } else if (found.alternate != 0) {
        result.came_out = outcome::warning;
        result.why = cause{"alternate_setting"};
        result.evidence = {"its endpoints are those of alternate setting " + std::to_string(found.alternate) +
                           ", which the program does not select"};
        result.next = {"see whether setting 0 has the same endpoints",
                       "lsusb -v -d " + ids_of(*context.device)};
    }
    return result;
}

} // namespace tarvik::tvkctl
