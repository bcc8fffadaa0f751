#include "common/log/trusted_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

namespace vl::common::log {

namespace {

constexpr int kMostLinks = 8; ///< on the way to a file
/// Of a new file, less the umask.
constexpr mode_t kMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;

using path_text = std::array<char, PATH_MAX>;

bool is_trusted_user(uid_t user)
{
    return user == 0 || user == geteuid();
}

int open_without_following(const char* path, int flags)
{
    return open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kMode);
}

/// Length of the directory part of `path`, with its '/'.
int directory_length(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash == nullptr ? 0 : static_cast<int>(slash - path) + 1;
}

/// Puts the name that a link leads to into `target`. Owner and name are asked of one descriptor: nobody can
/// exchange the link in between.
EDistrust read_link(const char* path, path_text& target)
{
    const int link = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (link < 0)
        return EDistrust::absent;
    struct stat status = {};
    path_text name{};
    const bool is_read = fstat(link, &status) == 0 && readlinkat(link, "", name.data(), name.size() - 1) > 0;
    close(link);
    if (!is_read)
        return EDistrust::absent;
    if (!is_trusted_user(status.st_uid))
        return EDistrust::foreign_link;
    const int kept = name.front() == '/' ? 0 : directory_length(path);
    const int length = std::snprintf(target.data(), target.size(), "%.*s%s", kept, path, name.data());
    return length < static_cast<int>(target.size()) ? EDistrust::none : EDistrust::absent;
}

/// Whether only this user can give a file in the directory of `path` another name.
bool is_own_directory(const char* path)
{
    path_text directory{};
    std::snprintf(directory.data(), directory.size(), "%.*s.", directory_length(path), path);
    struct stat status = {};
    return stat(directory.data(), &status) == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

EDistrust judge(int descriptor, const char* path)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
        return EDistrust::absent;
    const bool is_file = S_ISREG(status.st_mode);
    if (!is_file && !S_ISCHR(status.st_mode) && !S_ISBLK(status.st_mode))
        return EDistrust::wrong_kind;
    if (!is_trusted_user(status.st_uid))
        return EDistrust::foreign_owner;
    if (is_file && status.st_nlink > 1 && (status.st_uid != geteuid() || !is_own_directory(path)))
        return EDistrust::several_names;
    return EDistrust::none;
}

} // namespace

TrustedFile::~TrustedFile()
{
    if (m_descriptor >= 0)
        close(m_descriptor);
}

void TrustedFile::open_at(const char* path, int flags, int links)
{
    const int descriptor = open_without_following(path, flags);
    if (descriptor >= 0) {
        m_reason = judge(descriptor, path);
        if (m_reason == EDistrust::none)
            m_descriptor = descriptor;
        else
            close(descriptor);
        return;
    }
    // What a FIFO without a reader, or a socket, answers a writer.
    m_reason = errno == ENXIO ? EDistrust::wrong_kind : EDistrust::absent;
    if (errno != ELOOP || links == kMostLinks)
        return;
    path_text target{};
    m_reason = read_link(path, target);
    if (m_reason == EDistrust::none)
        open_at(target.data(), flags, links + 1);
}

EDistrust judge_directory(const std::string& path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        return EDistrust::absent;
    if (S_ISLNK(status.st_mode)) {
        if (!is_trusted_user(status.st_uid))
            return EDistrust::foreign_link;
        if (stat(path.c_str(), &status) != 0)
            return EDistrust::absent;
    }
    if (!S_ISDIR(status.st_mode))
        return EDistrust::wrong_kind;
    return is_trusted_user(status.st_uid) ? EDistrust::none : EDistrust::foreign_owner;
}

} // namespace vl::common::log
