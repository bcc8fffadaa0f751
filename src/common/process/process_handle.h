#pragma once

#include <sys/types.h>

#include "common/process/exit_status.h"
#include "common/process/unique_fd.h"

namespace tarvik {

/// A process as a descriptor, which becomes readable once it has ended. Throws std::system_error.
unique_fd open_process(pid_t pid);

/// Waits for the end of a child and takes its status, after which its number is free for others. Throws
/// std::system_error when it is no child, or has been reaped before.
exit_status reap_process(pid_t pid);

} // namespace tarvik
