#include "tvkctl/src/machine/accounts.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>

namespace tarvik::tvkctl {

namespace {

std::vector<gid_t> supplementary_groups()
{
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    return groups;
}

} // namespace

account user_of(uid_t id)
{
    const passwd* entry = getpwuid(id);
    return {id, entry != nullptr ? entry->pw_name : std::to_string(id)};
}

account group_of(gid_t id)
{
    const group* entry = getgrgid(id);
    return {id, entry != nullptr ? entry->gr_name : std::to_string(id)};
}

std::optional<account> find_user(const std::string& name)
{
    const passwd* entry = getpwnam(name.c_str());
    return entry != nullptr ? std::optional<account>({entry->pw_uid, name}) : std::nullopt;
}

std::optional<account> find_group(const std::string& name)
{
    const group* entry = getgrnam(name.c_str());
    return entry != nullptr ? std::optional<account>({entry->gr_gid, name}) : std::nullopt;
}

identity current_identity()
{
    identity me{user_of(geteuid()), {group_of(getegid())}};
    for (const gid_t id : supplementary_groups())
        if (id != getegid())
            me.groups.push_back(group_of(id));
    return me;
}

} // namespace tarvik::tvkctl
