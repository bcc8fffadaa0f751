#include "target/scanner/posix_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace virtual_scanner {

posix_file::posix_file(const std::string& path, int flags)
    : m_descriptor(::open(path.c_str(), flags | O_CLOEXEC))
{
    if (m_descriptor < 0)
        throw_errno("open " + path);
}

posix_file::posix_file(posix_file&& other) noexcept : m_descriptor(std::exchange(other.m_descriptor, -1)) {}

posix_file& posix_file::operator=(posix_file&& other) noexcept
{
    std::swap(m_descriptor, other.m_descriptor);
    return *this;
}

posix_file::~posix_file()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

void write_attribute(const std::string& path, const std::string& text)
{
    const posix_file file(path, O_WRONLY);
    if (::write(file.descriptor(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        throw_errno("write \"" + text + "\" to " + path);
}

void throw_errno(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace virtual_scanner
