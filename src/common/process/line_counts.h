#pragma once

#ifdef TVKINTIF_COVERAGE
extern "C" void __gcov_dump(void);
#endif

namespace tarvik {

/// In a build that counts executed lines: writes the counts down. To be called where a process ends without
/// its exit handlers, which would do it, or becomes another program.
inline void save_line_counts()
{
#ifdef TVKINTIF_COVERAGE
    __gcov_dump();
#endif
}

} // namespace tarvik
