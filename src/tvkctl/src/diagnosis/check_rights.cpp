#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/machine/accounts.h"
#include "tvkctl/src/machine/udev_rule.h"

namespace tarvik::tvkctl {

namespace {

std::string text_of(const identity& user)
{
    std::string text = "this user is " + user.user.name + " (" + std::to_string(user.user.id) + "), in group";
    for (const account& group : user.groups)
        text += " " + group.name;
    return text;
}

std::string text_of(const device_node& node)
{
    return node.path + " is " + node.mode_text() + " " + node.owner.name + ":" + node.group.name;
}

std::vector<advice> advice_on(const usb_device& device, const identity& user)
{
    const udev_rule rule = rule_for(device, user, find_group);
    std::vector<advice> steps = {
        "echo '" + rule.line + "' | sudo tee " + rule.file,
        "sudo udevadm control --reload",
        "plug the scanner in again",
    };
    if (!rule.is_member) {
        steps.emplace_back("sudo usermod -aG " + rule.group.name + " " + user.user.name);
        steps.emplace_back("log in again");
    }
    return steps;
}

check_result no_node(const device_node& node)
{
    return {outcome::failed,
            cause{"no_node"},
            node.path + " does not exist",
            {"the kernel knows the device, but there is no file through which to open it"},
            {"ls -l " + node.path.substr(0, node.path.rfind('/')),
             "in a container, pass the device on; elsewhere, see that devtmpfs is mounted on /dev"}};
}

} // namespace

check_result check_rights(check_context& context)
{
    const device_node& node = context.device->node;
    if (!node.exists)
        return no_node(node);
    if (node.may_open)
        return {outcome::ok, {}, text_of(node) + ", open to this user"};
    const identity user = current_identity();
    return {outcome::failed,
            cause{"no_rights"},
            text_of(node) + ", and this user may not open it for reading and writing",
            {text_of(user)},
            advice_on(*context.device, user)};
}

} // namespace tarvik::tvkctl
