#pragma once

#include <array>

#include "tvkctl/src/plugin/trial_notes.h"

namespace tarvik::tvkctl {

/// The signal upon which a process under trial writes down where it is, and ends.
extern const int kWhereAreYou;

/// A buffer between two pages that nobody may touch; a plugin that leaves its bounds crashes there.
struct buffer_bounds {
    const char* begin;
    const char* end;
    bool is_revoked; ///< the call that lent it has returned
};

/// The buffers of a trial, that of the writer and that of the reader.
using lent_buffers = std::array<buffer_bounds, 2>;

/// From now on, a crash of this process writes place and explanation into `notes` before it ends it. `notes`
/// and `lent` must live as long as the process.
void note_crashes(trial_notes& notes, const lent_buffers& lent);

/// Names the plugin by an address inside it.
void set_plugin_address(const void* address);

/// Writes `words` into a text of the notes, cut to fit.
void write_down(trial_notes::text& into, const char* words);

} // namespace tarvik::tvkctl
