#pragma once

#include <string>
#include <vector>

#include "common/process/deadline.h"
#include "common/process/exit_status.h"

namespace tarvik::tvkctl {

/// What became of an attempt to load a library.
struct load_attempt {
    enum class outcome {
        loaded,  ///< and unloaded again
        refused, ///< by the loader, which says why in `words`
        died,    ///< the library ended the process that loaded it, by a crash or by itself
        hung     ///< time was up
    };

    outcome end = outcome::died;
    std::string words = {};                      ///< the loader's own
    bool was_loaded = false;                     ///< died or hung only when it was unloaded
    std::vector<std::string> missing = {};       ///< of the functions that were asked for
    exit_status status = exit_status::exited(0); ///< of the process, when it died
};

/// Loads a library as the program does, in a process of its own that is gone on return, and asks for these
/// functions. Throws std::system_error when there is no process to be had.
///
/// Threads: the calling process must have one only.
load_attempt try_to_load(const std::string& path, const std::vector<std::string>& functions,
                         milliseconds timeout);

} // namespace tarvik::tvkctl
