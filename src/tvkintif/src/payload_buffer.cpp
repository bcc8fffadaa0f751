#include "tvkintif/src/payload_buffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <new>

void payload_buffer::unmap::operator()(unsigned char* memory) const
{
    munmap(memory, size);
}

unsigned char* payload_buffer::data()
{
    const std::size_t end = std::min(m_used, m_size);
    if (m_stored < end)
        std::fill(storage() + m_stored, storage() + end, static_cast<unsigned char>(0));
    // From now on whoever asked may change each of them.
    m_stored = m_size;
    m_used = std::max(m_used, m_size);
    return storage();
}

void payload_buffer::resize(std::size_t size)
{
    clear();
    if (size > m_memory.get_deleter().size) {
        m_memory.reset(); // before there is more: what it holds is not needed any longer
        m_memory.get_deleter().size = 0;
        m_size = 0;
        m_used = 0;
        // From the kernel, and not from the heap: it is zero, and there only once it is touched.
        void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        m_memory = {static_cast<unsigned char*>(memory), {size}};
    }
    m_size = size;
}

void payload_buffer::store(std::size_t count)
{
    m_stored = count;
    m_used = std::max(m_used, count);
}
