#include "tvkctl/src/session/receive_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tvkctl/src/machine/tool_error.h"

namespace tarvik::tvkctl {

namespace {

constexpr mode_t kMode = 0666; // as far as the umask allows

tool_error cannot_write(const std::string& path)
{
    const std::string reason = std::strerror(errno);
    return tool_error(kOutputFile, path + " cannot be written: " + reason,
                      {"Check the folder, its rights and the space that is left."});
}

} // namespace

receive_file::receive_file(const std::string& path, bool is_appended)
    : m_path(path),
      m_file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | (is_appended ? O_APPEND : O_TRUNC), kMode))
{
    if (!m_file)
        throw cannot_write(m_path);
}

void receive_file::write(byte_view piece)
{
    while (!piece.empty()) {
        const ssize_t count = ::write(m_file.get(), piece.data, piece.size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throw cannot_write(m_path);
        piece.data += count;
        piece.size -= static_cast<std::size_t>(count);
    }
}

} // namespace tarvik::tvkctl
