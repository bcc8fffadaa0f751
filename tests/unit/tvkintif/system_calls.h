#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace unit {

/// Linking this library puts it between the code under test and the system calls on sockets. While one
/// system_calls lives, those that its thread makes leave a line each, with descriptors named in the order in
/// which they came up, and can be scripted:
///
///     socket AF_INET SOCK_STREAM 0 -> #1
///     fcntl #1 F_SETFD FD_CLOEXEC
///     setsockopt #1 SOL_SOCKET SO_RCVTIMEO 300 s
///     bind #1 127.0.0.1:0
///     accept #1 -> #2
///     read #2 20 -> 20
///
/// Other threads, and actions given to before(), pass by unwatched. At most one at a time in a thread.
class system_calls {
public:
    system_calls();
    system_calls(const system_calls&) = delete;
    system_calls& operator=(const system_calls&) = delete;
    ~system_calls();

    /// Has call number `nth`, counted from here on, of a function fail with `error`; with 0, every call. A
    /// failing close closes all the same, as the system's own does.
    void fail(const std::string& function, int error, int nth = 1);
    /// Has the next call of a function return `result` without being made. Of gethostbyname, `result` is the
    /// number of addresses that it finds.
    void answer(const std::string& function, int result);
    /// Has every read, recv or write move at most `bytes`.
    void limit(const std::string& function, std::size_t bytes);
    /// Runs `action` before each call of a function.
    void before(const std::string& function, std::function<void()> action);

    /// Every call so far.
    const std::vector<std::string>& lines() const { return m_lines; }
    /// Those of one function.
    std::vector<std::string> lines_of(const std::string& function) const;
    /// As lines(), and forgets them.
    std::vector<std::string> take_lines();
    /// The descriptor behind a name ("#1"), also when it is closed by now; -1 when there was none.
    int descriptor(const std::string& name) const;
    /// Closes every descriptor with a name that is still open, those of the standard streams apart.
    void close_forgotten();

    // For the functions that stand in front of the system's.

    /// What watches the calling thread now; null when nothing does.
    static system_calls* watching();
    /// Counts a call and runs what was asked to run before it. True when it is not to be made: `result` and
    /// errno are set then.
    bool replaces(const std::string& function, int& result);
    std::size_t limited(const std::string& function, std::size_t bytes) const;
    std::string name_of(int descriptor) const;
    /// Gives a descriptor that just came up its name, and returns it.
    std::string name_new(int descriptor);
    void forget(int descriptor);
    void record(const std::string& line) { m_lines.push_back(line); }

private:
    struct script {
        int calls = 0;
        std::map<int, int> errors; ///< by number of the call; 0: every call
        std::vector<int> answers;
        std::size_t limit = static_cast<std::size_t>(-1);
        std::function<void()> action;
    };

    std::map<std::string, script> m_scripts;
    std::vector<std::string> m_lines;
    std::map<int, std::string> m_names;       ///< of the descriptors that are open
    std::map<std::string, int> m_descriptors; ///< of all that ever were
    bool m_isActing = false;
};

} // namespace unit
