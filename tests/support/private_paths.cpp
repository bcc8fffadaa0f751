#include "support/private_paths.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace support {

namespace {

bool entered = false;
std::string reason = "enter_private_paths() was not called";

void check(bool succeeded, const std::string& step)
{
    if (!succeeded)
        throw std::runtime_error(step + ": " + std::strerror(errno));
}

void write_file(const char* path, const std::string& content)
{
    std::ofstream file(path);
    file << content << std::flush;
    check(file.good(), std::string("writing ") + path);
}

/// Whoever may not make a mount namespace may still own mounts inside a user namespace, as its root.
void enter_user_namespace()
{
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    check(unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0, "unshare of user and mount namespace");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + user + " 1");
    write_file("/proc/self/gid_map", "0 " + group + " 1");
}

void enter_mount_namespace()
{
    if (unshare(CLONE_NEWNS) != 0)
        enter_user_namespace();
    check(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "making the mounts private");
}

void mount_tmpfs(const fs::path& where)
{
    check(mount("tmpfs", where.c_str(), "tmpfs", 0, "mode=0755") == 0, "tmpfs over " + where.string());
}

/// Makes directories creatable below `base` for this namespace only. The writable layer lies under the log
/// root, where the tmpfs that is mounted there next hides it.
void mount_writable_layer(const fs::path& base)
{
    mount_tmpfs(kLogRoot);
    const fs::path upper = kLogRoot + "/upper";
    const fs::path work = kLogRoot + "/work";
    fs::create_directory(upper);
    fs::create_directory(work);
    const std::string layers =
        "lowerdir=" + base.string() + ",upperdir=" + upper.string() + ",workdir=" + work.string();
    check(mount("overlay", base.c_str(), "overlay", 0, layers.c_str()) == 0 ||
              mount("overlay", base.c_str(), "overlay", 0, (layers + ",userxattr").c_str()) == 0,
          "overlay over " + base.string());
}

fs::path nearest_existing(fs::path path)
{
    while (!fs::exists(path))
        path = path.parent_path();
    return path;
}

void cover_log_root()
{
    fs::create_directory(kLogRoot); // an empty one stays on the machine; it does not switch logging on
    mount_tmpfs(kLogRoot);
}

void cover_plugin_root()
{
    const fs::path root = fs::path(kPluginRoot + "/").parent_path();
    if (!fs::exists(root)) {
        mount_writable_layer(nearest_existing(root));
        fs::create_directories(root);
    }
    mount_tmpfs(root);
    fs::create_directory(kPluginDirectory);
}

} // namespace

bool enter_private_paths()
{
    try {
        fs::create_directory(kLogRoot);
        enter_mount_namespace();
        cover_plugin_root();
        cover_log_root();
        entered = true;
    } catch (const std::exception& problem) {
        reason = problem.what();
        std::cerr << "WARNING: no private mount namespace (" << reason
                  << "). Tests that need one will be skipped; run them as root or on a machine that permits"
                     " user namespaces.\n";
    }
    return entered;
}

bool have_private_paths()
{
    return entered;
}

const std::string& why_no_private_paths()
{
    return reason;
}

} // namespace support
