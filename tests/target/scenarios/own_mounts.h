#pragma once

#include <string>

/// A scenario may rearrange the machine's file system for itself: what it mounts is seen by nobody but the
/// programs that it starts, and is gone when it ends, however it ends. Failures are std::system_error.
namespace target {

/// Mounts an empty file system over `folder`; `options` are those of tmpfs ("size=4k").
void cover(const std::string& folder, const std::string& options = "");
/// Lets nobody write to what is mounted there.
void make_read_only(const std::string& folder);

} // namespace target
