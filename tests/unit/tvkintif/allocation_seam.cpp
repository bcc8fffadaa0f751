#include "unit/tvkintif/allocation_seam.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

thread_local std::size_t count = 0;
thread_local std::optional<std::size_t> current_limit;

} // namespace

namespace unit {

std::size_t allocation_count()
{
    return count;
}

allocation_limit::allocation_limit(std::size_t limit) : m_previous(std::exchange(current_limit, limit)) {}

allocation_limit::~allocation_limit()
{
    current_limit = m_previous;
}

} // namespace unit

void* operator new(std::size_t size)
{
    ++count;
    if (current_limit && size > *current_limit)
        throw std::bad_alloc();
    void* memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

// The linker's --wrap hands every call of mmap to this and reaches the C library as __real_mmap.
extern "C" {

void* __real_mmap(void* address, std::size_t size, int protection, int flags, int descriptor, off_t offset);

void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int descriptor, off_t offset)
{
    if (!current_limit || size <= *current_limit)
        return __real_mmap(address, size, protection, flags, descriptor, offset);
    errno = ENOMEM;
    return MAP_FAILED;
}
}
