#include "target/scenarios/guest.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include "target/scanner/posix_file.h"

namespace target {

namespace {

using virtual_scanner::throw_errno;

constexpr const char* kName = "guest";

const passwd& account()
{
    const passwd* found = ::getpwnam(kName);
    if (found == nullptr)
        throw_errno(std::string("look up the user ") + kName);
    return *found;
}

} // namespace

// Root stays the saved user, to come back to; a program that is executed has no saved user but its own.
guest::guest()
{
    const passwd& who = account();
    if (::initgroups(kName, who.pw_gid) != 0 || ::setresgid(who.pw_gid, who.pw_gid, 0) != 0 ||
        ::setresuid(who.pw_uid, who.pw_uid, 0) != 0)
        throw_errno(std::string("become the user ") + kName);
}

guest::~guest()
{
    // Each of these is a way back that was left open above.
    static_cast<void>(::setresuid(0, 0, 0) == 0 && ::setresgid(0, 0, 0) == 0 && ::setgroups(0, nullptr) == 0);
}

void guest::give(const std::string& path)
{
    const passwd& who = account();
    if (::chown(path.c_str(), who.pw_uid, who.pw_gid) != 0)
        throw_errno("give " + path + " to the user " + kName);
}

} // namespace target
