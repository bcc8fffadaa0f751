#include "common/process/unique_fd.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

namespace tarvik {

unique_fd own_descriptor(int descriptor, const char* call)
{
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), call);
    unique_fd owned(descriptor);
    if (descriptor > STDERR_FILENO)
        return owned;
    return own_descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), call);
}

pipe_ends new_pipe()
{
    int ends[2] = {-1, -1};
    const bool is_made = pipe2(ends, O_CLOEXEC) == 0;
    pipe_ends made;
    made.reading = own_descriptor(is_made ? ends[0] : -1, "pipe2");
    made.writing = own_descriptor(ends[1], "pipe2");
    return made;
}

} // namespace tarvik
