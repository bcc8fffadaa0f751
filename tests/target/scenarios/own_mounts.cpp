#include "target/scenarios/own_mounts.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <system_error>

namespace target {

namespace {

void check(int result, const std::string& step)
{
    if (result != 0)
        throw std::system_error(errno, std::generic_category(), step);
}

void enter_own_mounts()
{
    check(::unshare(CLONE_NEWNS), "have mounts of its own");
    check(::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "keep the mounts to itself");
}

} // namespace

void cover(const std::string& folder, const std::string& options)
{
    [[maybe_unused]] static const bool is_entered = (enter_own_mounts(), true);
    check(::mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()), "mount a tmpfs at " + folder);
}

void make_read_only(const std::string& folder)
{
    check(::mount("none", folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr),
          "mount read-only: " + folder);
}

} // namespace target
