#pragma once

#include <cstddef>
#include <optional>

/// Linking this library puts its own operator new before that of the C++ library, and itself before mmap: it
/// counts the former, and can run out of memory on demand without the machine doing so.
namespace unit {

/// How often the calling thread asked operator new for memory so far.
std::size_t allocation_count();

/// While one lives, the calling thread's operator new throws std::bad_alloc for more than `limit` bytes, and
/// mmap fails.
class allocation_limit {
public:
    explicit allocation_limit(std::size_t limit);
    allocation_limit(const allocation_limit&) = delete;
    allocation_limit& operator=(const allocation_limit&) = delete;
    ~allocation_limit();

private:
    std::optional<std::size_t> m_previous;
};

} // namespace unit
