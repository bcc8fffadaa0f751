#pragma once

#include <sys/resource.h>

namespace support {

/// While it lives, this process may start no other: its user has no processes left. Root has no such limit,
/// and becomes another user meanwhile.
class no_processes_left {
public:
    no_processes_left();
    no_processes_left(const no_processes_left&) = delete;
    no_processes_left& operator=(const no_processes_left&) = delete;
    ~no_processes_left();

    /// Whether this machine let it be done.
    bool is_arranged() const { return m_isArranged; }

private:
    rlimit m_before = {};
    bool m_wasRoot;
    bool m_isArranged = false;
};

/// While it lives, this process may open at most this many more files.
class few_descriptors_left {
public:
    explicit few_descriptors_left(int count);
    few_descriptors_left(const few_descriptors_left&) = delete;
    few_descriptors_left& operator=(const few_descriptors_left&) = delete;
    ~few_descriptors_left();

private:
    rlimit m_before = {};
};

} // namespace support

/// Statement of a test that needs a machine without processes left, from here to the end of the block.
#define SUPPORT_REQUIRE_NO_PROCESSES_LEFT()                                                                  \
    const support::no_processes_left no_processes_are_left;                                                  \
    if (!no_processes_are_left.is_arranged())                                                                \
    GTEST_SKIP() << "root has processes left in any case, and cannot become another user here"
