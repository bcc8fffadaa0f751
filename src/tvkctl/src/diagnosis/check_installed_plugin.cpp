#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "tvkctl/src/diagnosis/diagnosis.h"
#include "tvkctl/src/machine/accounts.h"
#include "tvkctl/src/machine/udi.h"
#include "tvkctl/src/plugin/elf_file.h"
#include "tvkctl/src/plugin/plugin_cause.h"
#include "tvkctl/src/plugin/plugin_check.h"
#include "tvkctl/src/plugin/plugin_trial.h"
#include "tvkintif/src/models.h"

namespace tarvik::tvkctl {

namespace {

std::string directory_of(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

/// The first folder on the way to a file that this user may not enter; empty when there is none.
std::string closed_folder(const std::string& path)
{
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        std::string folder = path.substr(0, slash);
        if (access(folder.c_str(), X_OK) != 0 && errno == EACCES)
            return folder;
    }
    return {};
}

std::vector<std::string> names_in(const std::string& directory)
{
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error))
        names.push_back(entry->path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

check_result missing(const std::string& path, const usb_device& device)
{
    check_result result{outcome::failed, cause{"missing_file"}, path + " is not there"};
    const std::string name = path.substr(path.rfind('/') + 1);
    result.evidence.push_back("product " + ids_of(device).substr(5) + " is served by " + name);
    const auto others = names_in(directory_of(path));
    for (const std::string& other : others)
        result.evidence.push_back("in its folder there is " + other);
    if (others.empty())
        result.evidence.push_back("its folder is empty or missing");
    result.next = {"install the plugin package of this model, or put the file there yourself",
                   "sudo install -D -m 644 " + name + " " + path};
    return result;
}

check_result unreadable(const std::string& what, const std::string& mode)
{
    return {outcome::failed,
            cause{"no_permission"},
            what + " is closed to " + user_of(geteuid()).name,
            {},
            {"sudo chmod " + mode + " " + what}};
}

std::optional<check_result> look_at_file(const std::string& path, const usb_device& device)
{
    if (const std::string folder = closed_folder(path); !folder.empty())
        return unreadable(folder, "o+x");
    if (access(path.c_str(), F_OK) != 0)
        return missing(path, device);
    if (access(path.c_str(), R_OK) != 0)
        return unreadable(path, "o+r");
    return std::nullopt;
}

/// What a look into the file shows, but for what is fine: a person wants to read only about the rest here.
std::vector<check_result> flaws_of(const std::string& path)
{
    std::vector<check_result> flaws;
    for (const check_result& one : check_plugin(read_elf_file(path), native_target()))
        if (one.came_out == outcome::failed || one.came_out == outcome::warning)
            flaws.push_back(one);
    return flaws;
}

std::string text_of(const check_result& flaw)
{
    return flaw.check + ": " + flaw.summary;
}

std::string name_list(const std::vector<std::string>& names)
{
    std::string text;
    for (const std::string& name : names)
        text += (text.empty() ? "" : ", ") + name;
    return text;
}

/// How loading failed, in a word and a sentence; nullopt when it did not.
std::optional<check_result> judge(const trial_report& report, const trial_plan& plan)
{
    const std::string& path = plan.path;
    const std::string moment = report.last == trial_step::unload ? "unloaded" : "loaded";
    switch (report.end) {
    case trial_report::outcome::not_loadable:
        return check_result{outcome::failed,
                            plugin_cause::kNotLoadable,
                            path + " cannot be loaded",
                            {"the loader says: " + report.words}};
    case trial_report::outcome::threw:
        return check_result{outcome::failed, plugin_cause::kCrashed,
                            path + " throws an exception when it is " + moment};
    case trial_report::outcome::died:
        return check_result{outcome::failed,
                            plugin_cause::kCrashed,
                            path + " ends the process when it is " + moment,
                            {"that process ended with " + report.status.text()}};
    case trial_report::outcome::hung:
        return check_result{outcome::failed,
                            plugin_cause::kHung,
                            path + " hangs when it is " + moment,
                            {"given up after " + std::to_string(plan.timeout.count() / 1000) + " s"}};
    case trial_report::outcome::completed:
    case trial_report::outcome::refused:
        break;
    }
    if (report.missing.empty())
        return std::nullopt;
    return check_result{outcome::failed, plugin_cause::kIncomplete,
                        path + " lacks " + name_list(report.missing)};
}

/// The check of a file advises the plugin's author; somebody who only wants to scan can take another file.
std::vector<advice> advice_on(const check_result& flaw)
{
    if (flaw.why == plugin_cause::kWrongMachine)
        return {"install the plugin that is built for " + own_identity().text()};
    return flaw.next;
}

void add_flaws(check_result& result, const std::vector<check_result>& flaws)
{
    for (const check_result& flaw : flaws) {
        result.evidence.push_back(text_of(flaw));
        if (flaw.came_out != outcome::failed)
            continue;
        for (const advice& one : advice_on(flaw))
            if (result.next.empty() || result.next.back().text != one.text)
                result.next.push_back(one);
    }
}

check_result look_into_file(const std::string& path, milliseconds timeout)
{
    const std::vector<check_result> flaws = flaws_of(path);
    trial_plan plan;
    plan.path = path;
    plan.extent = trial_extent::load;
    plan.timeout = timeout;
    if (auto broken = judge(try_plugin(plan), plan)) {
        add_flaws(*broken, flaws);
        broken->next.emplace_back(tool_step::check_plugin, path);
        return *broken;
    }
    check_result result{outcome::ok, {}, path + " can be loaded and has the four entry points"};
    if (!flaws.empty()) {
        result.came_out = outcome::warning;
        result.why = cause{"flaws"};
        for (const check_result& flaw : flaws)
            result.evidence.push_back(text_of(flaw));
        result.next = {{tool_step::check_plugin, path}};
    }
    return result;
}

} // namespace

check_result check_installed_plugin(check_context& context)
{
    const std::string path = lib_path(plugin_name(context.device->product_id));
    if (auto broken = look_at_file(path, *context.device))
        return *broken;
    try {
        return look_into_file(path, context.load_timeout);
    } catch (const elf_error& error) {
        return {outcome::failed,
                plugin_cause::kNotALibrary,
                error.what(),
                {},
                {"install it again", {tool_step::check_plugin, path}}};
    }
}

} // namespace tarvik::tvkctl
