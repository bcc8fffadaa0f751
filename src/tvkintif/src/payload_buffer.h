#pragma once

#include <cstddef>
#include <memory>

/// The bytes of one request after the other: what has been stored, then zeros up to its size.
///
/// Only what was used is cleared, and only when somebody is about to see it; memory that no byte has reached
/// is never touched, so that a size which is merely announced costs nothing. Owns its memory and keeps it for
/// the next request.
///
/// Threads: one.
class payload_buffer {
public:
    /// `size` zero bytes. Throws std::bad_alloc.
    explicit payload_buffer(std::size_t size) { resize(size); }
    payload_buffer(const payload_buffer&) = delete;
    payload_buffer& operator=(const payload_buffer&) = delete;

    std::size_t size() const { return m_size; }
    /// All of them, to be read and written.
    unsigned char* data();

    /// Makes it `size` zero bytes. Throws std::bad_alloc.
    void resize(std::size_t size);
    /// Makes all bytes zero.
    void clear() { m_stored = 0; }

    /// Where bytes can be stored from the beginning; what is there may be anything.
    unsigned char* storage() { return m_memory.get(); }
    /// The first `count` bytes were stored; those behind them are zero.
    void store(std::size_t count);

private:
    struct unmap {
        void operator()(unsigned char* memory) const;
        std::size_t size;
    };

    std::unique_ptr<unsigned char, unmap> m_memory{nullptr, {0}}; ///< zero from m_used on
    std::size_t m_size = 0;
    std::size_t m_stored = 0; ///< bytes from the beginning that count
    std::size_t m_used = 0;   ///< bytes from the beginning that may not be zero
};
