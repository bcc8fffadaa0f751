#include "tvkctl/src/commands/command_list.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "common/text/text.h"
#include "tvkctl/src/diagnosis/listing.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkctl/src/terminal/text_table.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kListSummary = "List the USB devices that tvkintif could drive";
constexpr const char* kListExamples = R"(  tvkctl list
      devices with a vendor-specific interface that has bulk endpoints both ways
  tvkctl list --all
      the other USB devices as well
  tvkctl list --json | jq -r '.devices[].udi'
      only the addresses)";

struct list_options {
    bool is_all = false;
};

json or_null(const std::string& text)
{
    return text.empty() ? json() : json(text);
}

json to_json(const usable_interface& found)
{
    return {{"configuration", found.configuration},
            {"number", found.number},
            {"alternate", found.alternate},
            {"bulk_in", "0x" + hexadecimal(found.bulk_in, 2)},
            {"bulk_out", "0x" + hexadecimal(found.bulk_out, 2)}};
}

json to_json(const plugin_state& plugin)
{
    return {{"path", plugin.path},
            {"installed", plugin.is_installed},
            {"loadable", plugin.is_loadable},
            {"problem", or_null(plugin.problem)}};
}

json to_json(const device_node& node)
{
    if (!node.exists)
        return {{"path", node.path}, {"exists", false}};
    return {{"path", node.path},        {"exists", true},           {"owner", node.owner.name},
            {"group", node.group.name}, {"mode", node.mode_text()}, {"may_open", node.may_open}};
}

using cell = text_table::cell;

cell address_cell(const listed_device& listed)
{
    if (!listed.interface)
        return {"(" + ids_of(listed.device) + ")", style::dim};
    return {listed.udi.empty() ? "-" : shell_word(listed.udi), style::bold};
}

cell name_cell(const listed_device& listed)
{
    const usb_device& device = listed.device;
    const std::string gap = device.manufacturer.empty() || device.product.empty() ? "" : " ";
    const std::string name = device.manufacturer + gap + device.product;
    return {name.empty() ? "-" : name};
}

cell plugin_cell(const listed_device& listed)
{
    if (!listed.plugin)
        return {"-"};
    return {listed.plugin->path.substr(listed.plugin->path.rfind('/') + 1)};
}

cell state_cell(const listed_device& listed)
{
    if (!listed.plugin)
        return {"-"};
    if (!listed.plugin->is_installed)
        return {"not installed", style::bad};
    return listed.plugin->is_loadable ? cell{"loadable", style::good} : cell{"not loadable", style::bad};
}

cell node_cell(const listed_device& listed)
{
    return {listed.device.node.path};
}

cell rights_cell(const listed_device& listed)
{
    const device_node& node = listed.device.node;
    if (!node.exists)
        return {"no node", style::bad};
    return {node.mode_text() + " " + node.owner.name + ":" + node.group.name};
}

cell open_cell(const listed_device& listed)
{
    return listed.device.node.may_open ? cell{"yes", style::good} : cell{"no", style::bad};
}

cell driver_cell(const listed_device& listed)
{
    return {listed.driver.empty() ? "-" : listed.driver};
}

/// Something that is known of a device: for people a column, for programs a member, or both.
struct fact {
    const char* title; ///< of the column; null: there is none
    cell (*shown)(const listed_device&);
    const char* key; ///< of the member; null: there is none
    json (*value)(const listed_device&);
};

/// All of them, in the order of the columns and of the members.
const std::vector<fact>& facts()
{
    using listed = listed_device;
    static const std::vector<fact> all = {
        {"UDI", address_cell, "udi", [](const listed& l) { return or_null(l.udi); }},
        {{}, {}, "vendor_id", [](const listed& l) { return json(hexadecimal(l.device.vendor_id, 4)); }},
        {{}, {}, "product_id", [](const listed& l) { return json(hexadecimal(l.device.product_id, 4)); }},
        {"NAME", name_cell, {}, {}},
        {{}, {}, "serial", [](const listed& l) { return or_null(l.device.serial); }},
        {{}, {}, "manufacturer", [](const listed& l) { return or_null(l.device.manufacturer); }},
        {{}, {}, "product", [](const listed& l) { return or_null(l.device.product); }},
        {{}, {}, "bus", [](const listed& l) { return json(l.device.bus); }},
        {{}, {}, "address", [](const listed& l) { return json(l.device.address); }},
        {{}, {}, "port", [](const listed& l) { return json(l.device.port_path); }},
        {{}, {}, "interface", [](const listed& l) { return l.interface ? to_json(*l.interface) : json(); }},
        {"PLUGIN", plugin_cell, "plugin",
         [](const listed& l) { return l.plugin ? to_json(*l.plugin) : json(); }},
        {"STATE", state_cell, {}, {}},
        {"NODE", node_cell, "node", [](const listed& l) { return to_json(l.device.node); }},
        {"RIGHTS", rights_cell, {}, {}},
        {"MAY OPEN", open_cell, {}, {}},
        {"DRIVER", driver_cell, "kernel_driver", [](const listed& l) { return or_null(l.driver); }},
        {{}, {}, "warnings", [](const listed& l) { return json(l.warnings); }},
    };
    return all;
}

void write_json(const std::vector<listed_device>& devices, console& io)
{
    json document = {{"devices", json::array()}};
    for (const listed_device& listed : devices) {
        json& device = document["devices"].emplace_back(json::object());
        for (const fact& each : facts())
            if (each.key != nullptr)
                device[each.key] = each.value(listed);
    }
    io.write(document);
}

void write_table(const std::vector<listed_device>& devices, console& io)
{
    std::vector<std::string> titles;
    for (const fact& each : facts())
        if (each.title != nullptr)
            titles.emplace_back(each.title);
    text_table table(titles);
    for (const listed_device& listed : devices) {
        std::vector<cell> row;
        for (const fact& each : facts())
            if (each.title != nullptr)
                row.push_back(each.shown(listed));
        table.add(row);
    }
    table.write(io);
}

void write_warnings(const std::vector<listed_device>& devices, console& io)
{
    std::set<std::string> told; // devices that cannot be told apart have one warning in common
    const auto tell = [&](const std::string& warning) {
        if (told.insert(warning).second)
            io.warning(warning);
    };
    for (const listed_device& listed : devices) {
        if (listed.plugin && listed.plugin->is_installed && !listed.plugin->is_loadable)
            tell(listed.plugin->path + " cannot be loaded: " + listed.plugin->problem);
        for (const std::string& warning : listed.warnings)
            tell(warning);
    }
}

void write_text(const std::vector<listed_device>& devices, const list_options& options, console& io)
{
    if (devices.empty()) {
        io.note(options.is_all
                    ? "no USB device found"
                    : "no device found that tvkintif could drive; tvkctl list --all shows the others");
        return;
    }
    write_table(devices, io);
    write_warnings(devices, io);
}

exit_code list(const list_options& options, cli& shared)
{
    const std::vector<listed_device> devices = list_devices(options.is_all, shared.machine);
    if (shared.is_json)
        write_json(devices, shared.io);
    else
        write_text(devices, options, shared.io);
    return exit_code::ok;
}

} // namespace

void add_list_command(CLI::App& app, cli& shared)
{
    const auto options = std::make_shared<list_options>();
    CLI::App& command = add_command(app, shared, {"list", kListSummary, kListExamples},
                                    [=, &shared] { return list(*options, shared); });
    command.add_flag("--all", options->is_all, "List the other USB devices as well");
}

} // namespace tarvik::tvkctl
