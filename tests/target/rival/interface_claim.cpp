#include "target/rival/interface_claim.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace target {

interface_claim::interface_claim(const std::string& node, unsigned int interface_number)
    : m_descriptor(::open(node.c_str(), O_RDWR | O_CLOEXEC))
{
    if (m_descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "open " + node);
    if (::ioctl(m_descriptor, USBDEVFS_CLAIMINTERFACE, &interface_number) != 0) {
        const int error = errno;
        ::close(m_descriptor);
        throw std::system_error(error, std::generic_category(), "claim an interface of " + node);
    }
}

interface_claim::~interface_claim()
{
    ::close(m_descriptor); // with which the kernel takes the claim back
}

} // namespace target
