#include "tvkctl/src/log/log_switch.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <system_error>

#include "common/text/text.h"
#include "tvkctl/src/machine/host.h"
#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

using vl::common::log::EDistrust;
using vl::common::log::kLevelKey;
using vl::common::log::kLevels;
using vl::common::log::kLogFolder;
using vl::common::log::kSettingsFile;
using vl::common::log::logConfigure;
using vl::common::log::named_level;

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kOthersMayWrite = S_IWGRP | S_IWOTH;
constexpr int kLevelThatNothingReaches = static_cast<int>(kLevels.back().level) + 1;

std::string cause_text()
{
    return std::generic_category().message(errno);
}

bool may_access(const std::string& path, int how)
{
    return faccessat(AT_FDCWD, path.c_str(), how, AT_EACCESS) == 0;
}

/// The program's own reading of the settings, so that both always agree.
void read_level(const log_place& place, log_state& state)
{
    logConfigure settings;
    settings.set_config_file(place.settings());
    const auto* found = std::find_if(kLevels.begin(), kLevels.end(), [&](const named_level& each) {
        return settings.is_enabled(each.level);
    });
    if (found != kLevels.end()) {
        state.why = log_state::reason::on;
        state.least = found->level;
    } else {
        const bool has_level = settings.is_enabled(static_cast<log_level>(INT_MAX));
        state.why = has_level ? log_state::reason::level_too_high : log_state::reason::no_level;
    }
}

/// Whether the program may have its log in a directory, or below it; `state` is told why not.
bool may_hold_log(const std::string& directory, log_state& state)
{
    const EDistrust found = vl::common::log::judge_directory(directory);
    if (found == EDistrust::none)
        return true;
    if (found == EDistrust::wrong_kind)
        state.why = log_state::reason::not_directory;
    if (found == EDistrust::foreign_owner || found == EDistrust::foreign_link) {
        state.why = log_state::reason::distrusted;
        state.distrust = found;
        state.strange_path = directory;
    }
    return false;
}

/// Whether the program passes over a file though it is there; `state` is told why.
bool is_distrusted(const std::string& path, int flags, log_state& state)
{
    const EDistrust found = vl::common::log::TrustedFile(path.c_str(), flags).reason();
    if (found == EDistrust::none || found == EDistrust::absent)
        return false;
    state.distrust = found;
    state.strange_path = path;
    return true;
}

/// Who made what lies below /tmp decides whether it can be trusted with what is logged.
class directory_handle {
public:
    /// Opens it unless it is a symbolic link; throws tool_error (kLogRefused).
    directory_handle(int parent, const char* name, std::string path)
        : m_path(std::move(path)),
          m_descriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC))
    {
        if (m_descriptor)
            return;
        if (errno == ELOOP || errno == ENOTDIR)
            refuse("is not a directory but a file or a symbolic link",
                   {"Find out who put it there (ls -ld " + m_path + ") and have it removed."});
        refuse("cannot be opened: " + cause_text(), {"Try it with sudo."});
    }

    [[noreturn]] void refuse(const std::string& what, std::vector<advice> next = {}) const
    {
        throw tool_error(kLogRefused, m_path + " " + what, std::move(next));
    }

    struct stat status() const
    {
        struct stat found = {};
        if (fstat(m_descriptor.get(), &found) != 0)
            refuse("cannot be examined: " + cause_text());
        return found;
    }

    /// Root may have made it, or one of these.
    void expect_owner(const std::vector<uid_t>& trusted) const
    {
        const uid_t owner = status().st_uid;
        if (owner == 0 || std::find(trusted.begin(), trusted.end(), owner) != trusted.end())
            return;
        const std::string name = user_of(owner).name;
        const std::string what =
            "belongs to " + name + ", who could redirect or rewrite what is logged there";
        if (geteuid() != 0)
            refuse(what, {"Ask " + name + " or root to remove it."});
        refuse(what, {{tool_step::turn_log_on_for, name, "Have only that user's programs log"},
                      {tool_step::purge_log, "", "Or remove it"}});
    }

    /// In a sticky directory such as /tmp itself nobody can replace another user's files.
    void expect_no_exchange_by_others() const
    {
        const mode_t mode = status().st_mode;
        if ((mode & kOthersMayWrite) != 0 && (mode & S_ISVTX) == 0)
            refuse("is writable by others, who could replace what is in it",
                   {"Close it with: sudo chmod go-w " + m_path + "."});
    }

    int descriptor() const { return m_descriptor.get(); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    unique_fd m_descriptor;
};

/// Makes a directory unless there is something with its name; whether it was made. The mode is put right
/// whatever the umask.
bool make_directory(int parent, const char* name, const std::string& path)
{
    if (mkdirat(parent, name, kDirectoryMode) != 0) {
        if (errno == EEXIST)
            return false;
        const std::string cause = cause_text(); // before anything else can fail
        throw tool_error(
            kLogRefused, path + " cannot be created: " + cause,
            {{tool_step::turn_log_on_for, user_of(geteuid()).name, "Have root create it for this user"}});
    }
    const directory_handle made(parent, name, path);
    if (fchmod(made.descriptor(), kDirectoryMode) != 0)
        made.refuse("cannot be given mode 0755: " + cause_text());
    return true;
}

directory_handle open_root(const log_place& place)
{
    return {AT_FDCWD, place.root.c_str(), place.root};
}

directory_handle open_directory(const directory_handle& root, const log_place& place)
{
    return {root.descriptor(), kLogFolder, place.directory()};
}

std::string read_all(int directory, const char* name)
{
    const unique_fd file(::openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string text;
    std::array<char, 4096> piece{};
    ssize_t count = 0;
    while (file && (count = TEMP_FAILURE_RETRY(read(file.get(), piece.data(), piece.size()))) > 0)
        text.append(piece.data(), static_cast<std::size_t>(count));
    return text;
}

bool exists(int directory, const char* name)
{
    struct stat ignored = {};
    return fstatat(directory, name, &ignored, AT_SYMLINK_NOFOLLOW) == 0;
}

bool names_level(const std::string& line)
{
    std::string key = line.substr(0, line.find('='));
    key.erase(std::remove_if(key.begin(), key.end(), [](unsigned char c) { return std::isspace(c) != 0; }),
              key.end());
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return key == kLevelKey;
}

/// The settings with this level and otherwise as they were: other programs may have theirs there.
std::string with_level(const std::string& settings, int level)
{
    std::string text = kLevelKey + (" = " + std::to_string(level)) + "\n";
    for (const std::string& line : split(settings, '\n'))
        if (!names_level(line))
            text += line + "\n";
    return text;
}

/// Replaces the settings in one step, so that no program reads half of them.
void write_settings(const directory_handle& directory, const std::string& text)
{
    const auto refuse = [&](const char* what) {
        const std::string cause = cause_text(); // before anything else can fail
        directory.refuse(
            std::string("cannot take a settings file: ") + what + ": " + cause,
            {{tool_step::turn_log_on_for, user_of(geteuid()).name, "Turn logging on for this user"}});
    };
    const std::string replacement = std::string(kSettingsFile) + ".new";
    unlinkat(directory.descriptor(), replacement.c_str(), 0); // left by somebody who was interrupted
    const unique_fd file(::openat(directory.descriptor(), replacement.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!file)
        refuse("create");
    if (fchmod(file.get(), kFileMode) != 0 ||
        ::write(file.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        refuse("write");
    if (renameat(directory.descriptor(), replacement.c_str(), directory.descriptor(), kSettingsFile) != 0)
        refuse("rename");
}

void set_level(const directory_handle& directory, int level)
{
    write_settings(directory, with_level(read_all(directory.descriptor(), kSettingsFile), level));
}

/// Gives a file to a user, but nothing that is also linked elsewhere: who owns a directory could link
/// anything into it.
void give_file(const directory_handle& directory, const std::string& name, const account& owner)
{
    const unique_fd file(
        ::openat(directory.descriptor(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat found = {};
    if (!file || fstat(file.get(), &found) != 0 || !S_ISREG(found.st_mode) || found.st_nlink != 1)
        return;
    if (found.st_uid != owner.id && fchown(file.get(), owner.id, static_cast<gid_t>(-1)) != 0)
        directory.refuse("keeps " + name + ", which cannot be given to " + owner.name + ": " + cause_text(),
                         {"Try it with sudo."});
}

/// Hands the directory with its logs and settings to a user, whose programs could not add to another's.
void hand_over(const directory_handle& directory, const account& owner)
{
    if (directory.status().st_uid != owner.id &&
        fchown(directory.descriptor(), owner.id, static_cast<gid_t>(-1)) != 0)
        directory.refuse("cannot be given to " + owner.name + ": " + cause_text(), {"Try it with sudo."});
    for (const std::string& name : log_file_names(directory.path()))
        give_file(directory, name, owner);
    give_file(directory, kSettingsFile, owner);
}

/// Takes the right to write from everybody but the owner.
bool close_for_others(const directory_handle& directory)
{
    const mode_t mode = directory.status().st_mode;
    if ((mode & kOthersMayWrite) == 0)
        return false;
    if (fchmod(directory.descriptor(), mode & ~(kOthersMayWrite | S_IFMT)) != 0)
        directory.refuse("is writable by others, and that cannot be changed: " + cause_text(),
                         {"Close it with: sudo chmod go-w " + directory.path() + "."});
    return true;
}

/// The level that has to be written so that `wanted` is in force; nullopt: what is there will do.
std::optional<log_level> level_to_write(const log_state& before, std::optional<log_level> wanted,
                                        const directory_handle& directory)
{
    if (wanted)
        return before.least == wanted ? std::nullopt : wanted;
    const bool is_silent = !before.is_on() && exists(directory.descriptor(), kSettingsFile);
    return is_silent ? std::optional(log_level::info) : std::nullopt;
}

std::vector<uid_t> trusted_owners(const std::optional<account>& owner)
{
    std::vector<uid_t> trusted = {geteuid()};
    if (owner)
        trusted.push_back(owner->id);
    return trusted;
}

void remove(const directory_handle& directory, const std::string& name)
{
    if (unlinkat(directory.descriptor(), name.c_str(), 0) != 0 && errno != ENOENT)
        directory.refuse("keeps " + name + ", which cannot be removed: " + cause_text(),
                         {"Try it with sudo."});
}

bool remove_directory(const directory_handle& root, const log_place& place)
{
    if (unlinkat(root.descriptor(), kLogFolder, AT_REMOVEDIR) == 0)
        return true;
    if (errno == ENOTEMPTY || errno == EEXIST)
        return false;
    throw tool_error(kLogRefused, place.directory() + " cannot be removed: " + cause_text(),
                     {"Try it with sudo."});
}

log_change silence(const directory_handle& directory)
{
    set_level(directory, kLevelThatNothingReaches);
    return {"set loglevel = " + std::to_string(kLevelThatNothingReaches) + " in " + directory.path() + "/" +
                kSettingsFile + "; the logs stay",
            "programs that are running keep logging until they end"};
}

log_change purge(const directory_handle& root, const directory_handle& directory, const log_place& place)
{
    const std::vector<std::string> logs = log_file_names(directory.path());
    for (const std::string& name : logs)
        remove(directory, name);
    remove(directory, kSettingsFile);
    log_change done = {"removed " + count_of(logs.size(), "log file")};
    if (remove_directory(root, place)) {
        done.push_back("removed " + place.directory());
        return done;
    }
    done.push_back(place.directory() + " stays: it holds files that are not logs");
    const log_change silenced = silence(directory);
    done.insert(done.end(), silenced.begin(), silenced.end());
    return done;
}

} // namespace

log_state look_at_log(const log_place& place, std::time_t now)
{
    log_state state;
    state.file = place.directory() + "/" + kProgramName + "_" + day_of(now) + ".log";
    if (!may_hold_log(place.root, state) || !may_hold_log(place.directory(), state))
        return state;
    struct stat found = {};
    if (stat(place.directory().c_str(), &found) != 0)
        return state;
    state.owner = user_of(found.st_uid);
    state.mode = found.st_mode & ~static_cast<mode_t>(S_IFMT);
    state.has_settings = may_access(place.settings(), R_OK);
    state.has_file = may_access(state.file, F_OK);
    state.may_write = may_access(place.directory(), X_OK) &&
                      may_access(state.has_file ? state.file : place.directory(), W_OK);
    read_level(place, state);
    if (is_distrusted(place.settings(), O_RDONLY, state))
        state.why = log_state::reason::distrusted;
    else if (is_distrusted(state.file, O_WRONLY | O_APPEND, state))
        state.may_write = false;
    return state;
}

std::string why_not_logged(const log_state& state, const log_place& place)
{
    switch (state.distrust) {
    case EDistrust::foreign_owner:
        return state.strange_path + " belongs neither to root nor to this user";
    case EDistrust::foreign_link:
        return state.strange_path + " is a link that belongs neither to root nor to this user";
    case EDistrust::wrong_kind:
        return state.strange_path + " is neither a regular file nor a device";
    case EDistrust::several_names:
        return state.strange_path + " has other names (hard links), which others may have made";
    case EDistrust::none:
    case EDistrust::absent:
        break;
    }
    switch (state.why) {
    case log_state::reason::no_directory:
        return place.directory() + " does not exist";
    case log_state::reason::not_directory:
        return place.directory() + " is not a directory";
    case log_state::reason::no_level:
        return place.settings() + " sets no loglevel";
    case log_state::reason::level_too_high:
        return place.settings() + " sets a loglevel above that of FATAL";
    case log_state::reason::distrusted:
    case log_state::reason::on:
        break;
    }
    if (state.may_write)
        return {};
    return (state.has_file ? state.file : place.directory()) + " is not writable by " +
           user_of(geteuid()).name;
}

std::string remedy_for_distrust(const log_state& state)
{
    if (state.distrust == EDistrust::none)
        return {};
    return "See who put it there (ls -ld " + state.strange_path + ") and have root remove it.";
}

log_change turn_log_on(const log_place& place, std::optional<log_level> least,
                       const std::optional<account>& owner)
{
    log_change done;
    const log_state before = look_at_log(place, std::time(nullptr));
    if (make_directory(AT_FDCWD, place.root.c_str(), place.root))
        done.push_back("made " + place.root);
    const directory_handle root = open_root(place);
    root.expect_owner(trusted_owners(owner));
    root.expect_no_exchange_by_others();
    if (make_directory(root.descriptor(), kLogFolder, place.directory()))
        done.push_back("made " + place.directory());
    const directory_handle directory = open_directory(root, place);
    directory.expect_owner(trusted_owners(owner));
    if (close_for_others(directory))
        done.push_back("made " + place.directory() + " writable for its owner alone");
    if (const auto level = level_to_write(before, least, directory)) {
        set_level(directory, static_cast<int>(*level));
        done.push_back("set loglevel = " + std::to_string(static_cast<int>(*level)) + " in " +
                       place.settings());
    }
    if (owner) {
        hand_over(directory, *owner);
        done.push_back("gave " + place.directory() + " to " + owner->name);
    }
    return done;
}

log_change turn_log_off(const log_place& place, bool is_purging)
{
    const log_state before = look_at_log(place, std::time(nullptr));
    if (before.why == log_state::reason::no_directory)
        return {};
    const directory_handle root = open_root(place);
    const directory_handle directory = open_directory(root, place);
    if (is_purging)
        return purge(root, directory, place);
    if (remove_directory(root, place))
        return {"removed " + place.directory()};
    return before.is_on() ? silence(directory) : log_change{};
}

} // namespace tarvik::tvkctl
