#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace tarvik::tvkctl {

/// A user or a group: its number and its name, which is the number again where it has none.
struct account {
    unsigned int id = 0;
    std::string name = {};
};

account user_of(uid_t id);
account group_of(gid_t id);
/// The user or group with this name; nullopt when there is none.
std::optional<account> find_user(const std::string& name);
std::optional<account> find_group(const std::string& name);

/// Who a process is to the kernel when it opens a file.
struct identity {
    account user = {};
    std::vector<account> groups = {}; ///< the one that new files get comes first
};

/// This very process.
identity current_identity();

} // namespace tarvik::tvkctl
