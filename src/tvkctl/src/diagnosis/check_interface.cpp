#include "common/text/text.h"
#include "tvkctl/src/diagnosis/diagnosis.h"

namespace tarvik::tvkctl {

namespace {

constexpr int kConfigurationInUse = 1; // whichever the interface stands in, the program activates this one

std::string flaw_of(const usb_setting& setting)
{
    if (!setting.is_vendor_specific())
        return "class " + hexadecimal(setting.interface_class, 2) + " and protocol " +
               hexadecimal(setting.interface_protocol, 2) + " where ff and ff are needed";
    if (!setting.bulk_in() && !setting.bulk_out())
        return "no bulk endpoint";
    return setting.bulk_in() ? "no bulk endpoint to the device" : "no bulk endpoint from the device";
}

std::vector<std::string> flaws_of(const usb_device& device)
{
    std::vector<std::string> all;
    for (const usb_configuration& configuration : device.configurations)
        for (const usb_setting& setting : configuration.settings)
            all.push_back("configuration " + std::to_string(configuration.value) + ", interface " +
                          std::to_string(setting.interface_number) + ", setting " +
                          std::to_string(setting.alternate) + ": " + flaw_of(setting));
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
    if (found.configuration != kConfigurationInUse) {
        result.came_out = outcome::warning;
        result.why = cause{"other_configuration"};
        result.evidence = {"it stands in configuration " + std::to_string(found.configuration) +
                           ", but the program activates configuration 1 before it claims it"};
        result.next = {"go on only if configuration 1 has the same interface",
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
