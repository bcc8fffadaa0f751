#include "process/held_transfer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "process/tvkintif/program_test.h"
#include "support/wait_until.h"

namespace process_test {

held_transfer::held_transfer() : m_path(kScratchDirectory + "/held_transfer")
{
    if (mkfifo(m_path.c_str(), 0600) != 0)
        throw std::system_error(errno, std::generic_category(), "mkfifo " + m_path);
}

held_transfer::~held_transfer()
{
    release();
    unlink(m_path.c_str());
}

bool held_transfer::is_reached()
{
    return support::wait_until(kPatience, [this] {
        m_descriptor = open(m_path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC); // fails while nobody reads
        return m_descriptor >= 0;
    });
}

void held_transfer::release()
{
    if (m_descriptor >= 0)
        close(std::exchange(m_descriptor, -1));
}

} // namespace process_test
