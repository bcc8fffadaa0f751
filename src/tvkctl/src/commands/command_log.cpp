#include "tvkctl/src/commands/command_log.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "common/text/text.h"
#include "front_end/src/bytes.h"
#include "tvkctl/src/log/log_files.h"
#include "tvkctl/src/log/log_line.h"
#include "tvkctl/src/log/log_switch.h"
#include "tvkctl/src/machine/accounts.h"

namespace tarvik::tvkctl {

namespace {

constexpr std::size_t kLinesOfContext = 10; ///< that follow begins with
constexpr milliseconds kLookAgain = std::chrono::hours(1);

struct log_options {
    std::string action = {};
    std::string level = {};
    std::string date = {};
    std::string owner = {};
    bool is_purging = false;
};

std::optional<log_level> wanted_level(const log_options& options)
{
    if (options.level.empty())
        return std::nullopt;
    const auto level = level_named(options.level);
    if (!level)
        throw usage_error("unknown level " + in_quotes(options.level), "Give " + level_choice() + ".");
    return level;
}

std::optional<account> wanted_owner(const log_options& options)
{
    if (options.owner.empty())
        return std::nullopt;
    auto owner = find_user(options.owner);
    if (!owner)
        throw usage_error("unknown user " + in_quotes(options.owner), "getent passwd lists them.");
    return owner;
}

log_day wanted_day(const log_options& options)
{
    if (options.date.empty())
        return day_of(std::time(nullptr));
    const auto day = day_named(options.date);
    if (!day)
        throw usage_error("invalid date " + in_quotes(options.date), "Write it as 2026-11-15.");
    return *day;
}

std::string dashed(const log_day& day)
{
    return day.substr(0, 4) + "-" + day.substr(4, 2) + "-" + day.substr(6);
}

/// Each option belongs to some of the actions; the others would silently ignore it.
void check_combination(const log_options& options)
{
    const auto expect = [&](bool is_given, const char* option, std::initializer_list<const char*> actions) {
        const bool is_fitting = std::find(actions.begin(), actions.end(), options.action) != actions.end();
        if (is_given && !is_fitting)
            throw usage_error(std::string(option) + " cannot be used with tvkctl log" +
                                  (options.action.empty() ? "" : " " + options.action),
                              "See tvkctl log --help.");
    };
    expect(!options.level.empty(), "--level", {"on", "show", "follow"});
    expect(!options.date.empty(), "--date", {"show"});
    expect(!options.owner.empty(), "--for", {"on"});
    expect(options.is_purging, "--purge", {"off"});
}

std::string octal(mode_t mode)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%04o", static_cast<unsigned int>(mode));
    return text.data();
}

std::string advice_on(const log_state& state)
{
    if (std::string remedy = remedy_for_distrust(state); !remedy.empty())
        return remedy;
    if (!state.is_on())
        return "Turn it on with: tvkctl log on.";
    return "Have root hand it over with: sudo tvkctl log on --for " + user_of(geteuid()).name + ".";
}

exit_code code_of(const log_state& state)
{
    if (!state.is_on())
        return exit_code::log_is_off;
    return state.may_write ? exit_code::ok : exit_code::log_not_writable;
}

json to_json(const log_state& state, const log_place& place)
{
    json document;
    document["on"] = state.is_on();
    document["written_for_this_user"] = state.reaches_file();
    document["why_not"] = state.reaches_file() ? json() : json(why_not_logged(state, place));
    document["level"] = state.least ? json(level_name(*state.least)) : json();
    document["directory"] = place.directory();
    document["owner"] = state.owner.name.empty() ? json() : json(state.owner.name);
    document["mode"] = state.owner.name.empty() ? json() : json(octal(state.mode));
    document["settings"] = state.has_settings ? json(place.settings()) : json();
    document["file"] = state.file;
    document["file_exists"] = state.has_file;
    return document;
}

void show_directory(const log_state& state, const log_place& place, console& io)
{
    if (state.owner.name.empty())
        return;
    io.out() << "  directory  " << place.directory() << ", owner " << state.owner.name << ", mode "
             << octal(state.mode) << '\n'
             << "  settings   " << (state.has_settings ? place.settings() : "none, so the level is INFO")
             << '\n'
             << "  today      " << state.file << (state.has_file ? "" : " (nothing yet)") << '\n';
}

void show_state(const log_state& state, const log_place& place, console& io)
{
    const std::string why_not = why_not_logged(state, place);
    if (state.reaches_file())
        io.out() << io.styled(style::good, "Logging is on") << ": " << level_name(*state.least)
                 << " and above\n";
    else
        io.out() << io.styled(style::warning,
                              state.is_on() ? "Logging is on, but not for this user" : "Logging is off")
                 << ": " << why_not << '\n';
    show_directory(state, place, io);
    if (!state.reaches_file())
        io.out() << advice_on(state) << '\n';
}

/// The common end of everything that looks at the switch or turns it.
log_state report(const log_change& done, const log_place& place, cli& shared)
{
    log_state state = look_at_log(place, std::time(nullptr));
    if (shared.is_json) {
        json document = to_json(state, place);
        document["done"] = done;
        shared.io.write(document);
        return state;
    }
    for (const std::string& step : done)
        shared.io.out() << step << '\n';
    show_state(state, place, shared.io);
    return state;
}

exit_code show_status(const log_place& place, cli& shared)
{
    return code_of(report({}, place, shared));
}

exit_code turn_on(const log_options& options, const log_place& place, cli& shared)
{
    const auto level = wanted_level(options);
    const auto owner = wanted_owner(options);
    const log_state state = report(turn_log_on(place, level, owner), place, shared);
    // Root's view of another user's log says nothing about that user.
    return owner && owner->id != geteuid() ? exit_code::ok : code_of(state);
}

exit_code turn_off(const log_options& options, const log_place& place, cli& shared)
{
    report(turn_log_off(place, options.is_purging), place, shared);
    return exit_code::ok;
}

json to_json(const std::string& text)
{
    const auto line = parse_log_line(text);
    if (!line)
        return {{"message", text}};
    json document;
    document["clock"] = line->clock;
    document["process"] = line->process;
    document["thread"] = line->thread;
    document["level"] = line->level_name;
    if (!line->source.empty())
        document["source"] = line->source;
    document["message"] = line->message;
    return document;
}

style style_of(const std::string& text)
{
    const auto line = parse_log_line(text);
    if (!line || !line->level || *line->level < log_level::warning)
        return style::plain;
    return *line->level == log_level::warning ? style::warning : style::bad;
}

void print_line(const std::string& text, console& io)
{
    io.out() << io.styled(style_of(text), harmless(text, keep::all_but_control)) << '\n';
}

std::vector<std::string> files_of(const log_day& day, const log_place& place)
{
    std::vector<std::string> files;
    for (const std::string& name : log_file_names(place.directory()))
        if (*day_of_file(name) == day)
            files.push_back(place.directory() + "/" + name);
    return files;
}

[[noreturn]] void refuse_missing(const log_day& day, const log_place& place)
{
    const std::vector<std::string> names = log_file_names(place.directory());
    const std::string advice = names.empty() ? advice_on(look_at_log(place, std::time(nullptr)))
                                             : "The newest is that of " + dashed(*day_of_file(names.back())) +
                                                   ": tvkctl log show --date " +
                                                   dashed(*day_of_file(names.back())) + ".";
    throw command_error(exit_code::log_missing,
                        "there is no log of " + dashed(day) + " in " + place.directory(), advice);
}

void expect_readable(const std::string& file)
{
    if (access(file.c_str(), R_OK) != 0)
        throw command_error(exit_code::input_file, file + " cannot be read by " + user_of(geteuid()).name,
                            "Try it with sudo.");
}

exit_code show(const log_options& options, const log_place& place, cli& shared)
{
    const log_day day = wanted_day(options);
    const log_level least = wanted_level(options).value_or(log_level::trace);
    const std::vector<std::string> files = files_of(day, place);
    if (files.empty())
        refuse_missing(day, place);
    json document = {{"date", dashed(day)}, {"files", json::array()}};
    for (const std::string& file : files) {
        expect_readable(file);
        log_filter filter(least);
        json lines = json::array();
        read_log_file(file, [&](const std::string& line) {
            if (!filter.passes(line))
                return;
            if (shared.is_json)
                lines.push_back(to_json(line));
            else
                print_line(line, shared.io);
        });
        document["files"].push_back({{"file", file}, {"lines", lines}});
    }
    if (shared.is_json)
        shared.io.write(document);
    return exit_code::ok;
}

/// As it comes: in JSON one document a line.
void print_followed(const std::string& line, cli& shared)
{
    if (shared.is_json)
        shared.io.out() << to_json(line).dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
    else
        print_line(line, shared.io);
}

void flush(console& io)
{
    if (!io.out().flush())
        throw command_error(exit_code::output_file, "standard output cannot be written",
                            "Look for a full disk or a closed reader.");
}

/// The last lines of today, as many as are shown before the first new one.
std::deque<std::string> take_context(log_tail& tail, log_filter& filter)
{
    std::deque<std::string> context;
    tail.take_new([&](const std::string& line) {
        if (!filter.passes(line))
            return;
        context.push_back(line);
        if (context.size() > kLinesOfContext)
            context.pop_front();
    });
    return context;
}

directory_watch watch(const log_place& place)
{
    try {
        return directory_watch(place.directory());
    } catch (const std::system_error& error) {
        throw command_error(exit_code::log_is_off, std::string("there is nothing to follow: ") + error.what(),
                            advice_on(look_at_log(place, std::time(nullptr))));
    }
}

/// Ends only when the directory does, or the process.
exit_code follow(const log_options& options, const log_place& place, cli& shared)
{
    log_filter filter(wanted_level(options).value_or(log_level::trace));
    directory_watch changes = watch(place);
    if (const log_state state = look_at_log(place, std::time(nullptr)); !state.is_on())
        shared.io.warning("programs that start now log nothing: " + why_not_logged(state, place));
    log_tail tail(place.directory(), day_of(std::time(nullptr)), log_tail::start::at_the_beginning);
    for (const std::string& line : take_context(tail, filter))
        print_followed(line, shared);
    flush(shared.io);
    while (changes.wait(deadline(kLookAgain)) != directory_watch::news::gone) {
        tail.take_new([&](const std::string& line) {
            if (filter.passes(line))
                print_followed(line, shared);
        });
        flush(shared.io);
    }
    throw command_error(exit_code::log_is_off, place.directory() + " is gone: logging was turned off",
                        "Turn it on with: tvkctl log on.");
}

exit_code log(const log_options& options, cli& shared)
{
    const log_place place;
    check_combination(options);
    if (options.action == "on")
        return turn_on(options, place, shared);
    if (options.action == "off")
        return turn_off(options, place, shared);
    if (options.action == "show")
        return show(options, place, shared);
    if (options.action == "follow")
        return follow(options, place, shared);
    return show_status(place, shared);
}

constexpr const char* kLogExamples =
    "  tvkctl log                        is logging on, and would my lines be written?\n"
    "  tvkctl log on --level TRACE       log everything\n"
    "  sudo tvkctl log on --for scanner  log what the user scanner starts\n"
    "  tvkctl log show --level ERROR     today's errors\n"
    "  tvkctl log follow                 what is logged from now on, past midnight too\n"
    "  tvkctl log off                    log nothing more; the logs stay\n"
    "  tvkctl log off --purge            and remove them\n"
    "\n"
    "A program reads its level when it starts: one that is running goes on as before.\n"
    "The exit status of tvkctl log alone tells whether this user's programs log.\n";

} // namespace

void add_log_command(CLI::App& app, cli& shared)
{
    auto options = std::make_shared<log_options>();
    CLI::App& command =
        add_command(app, shared, {"log", "Turn logging on or off, show or follow the log", kLogExamples},
                    [options, &shared] { return log(*options, shared); });
    command.add_option("action", options->action, "Without one, show the state")
        ->check(CLI::IsMember({"on", "off", "show", "follow"}));
    command.add_option("--level", options->level, "Lowest level: " + level_choice() + " (on, show, follow)")
        ->type_name("LEVEL");
    command.add_option("--date", options->date, "Day to show instead of today, as 2026-11-15 (show)")
        ->type_name("DATE");
    command.add_option("--for", options->owner, "User whose programs are to log; for root (on)")
        ->type_name("USER");
    command.add_flag("--purge", options->is_purging, "Remove the logs, settings and directory (off)");
}

} // namespace tarvik::tvkctl
