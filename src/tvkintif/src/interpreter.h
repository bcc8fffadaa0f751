#pragma once

#include <tarvik/interpreter.h>

#include <string>

/// Binding to one scanner plugin: loads the shared library, finds its four entry points, passes calls on,
/// unloads it. An object that exists has all four.
///
/// Owns the library. The order of calls is the owner's to keep: ctor() once, then read() and write() as
/// needed, dtor() once, then destruction. Destruction alone unloads without stopping the plugin, on
/// purpose: one path of the session counts on it.
///
/// Threads: calls come from one thread; what the plugin does with threads is its own affair.
class interpreter {
public:
    /// One bulk transfer on behalf of the plugin: moves at most `length` bytes and returns how many, 0 when
    /// nothing could be moved.
    using transfer = tarvik_transfer;

    /// Loads the library at `path`. Throws std::runtime_error when it cannot be loaded or lacks an entry
    /// point; nothing stays loaded then.
    explicit interpreter(std::string path);
    interpreter(const interpreter&) = delete;
    interpreter& operator=(const interpreter&) = delete;
    ~interpreter();

    /// Starts the plugin and hands it its way to the device; zero means it refused.
    int ctor(transfer reader, transfer writer);
    /// Stops the plugin.
    void dtor();
    /// Has the plugin fill `length` bytes; zero means failure.
    int read(void* buffer, int length);
    /// Has the plugin pass `length` bytes on; zero means failure.
    int write(void* buffer, int length);

private:
    void unload();

    void* m_handle = nullptr; ///< the loader's
    decltype(&interpreter_ctor) m_ctor = nullptr;
    decltype(&interpreter_dtor) m_dtor = nullptr;
    decltype(&interpreter_reader) m_reader = nullptr;
    decltype(&interpreter_writer) m_writer = nullptr;
};
