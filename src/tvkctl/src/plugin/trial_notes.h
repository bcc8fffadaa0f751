#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "tvkctl/src/plugin/plugin_trial.h"

namespace tarvik::tvkctl {

/// What the process in which a plugin runs writes down for the one that watches it, in memory that both
/// have. It must be readable at any moment, since that process may end at any moment; and since a plugin can
/// write anywhere, the reader believes no length and no number in it.
struct trial_notes {
    static constexpr std::size_t kSteps = static_cast<std::size_t>(trial_step::done) + 1;

    struct call {
        std::atomic<bool> has_returned;
        std::atomic<int> result;
        std::atomic<std::int32_t> microseconds;
    };

    using text = std::array<char, 1024>;

    std::atomic<int> step; ///< trial_step that was begun last
    std::array<call, kSteps> calls;
    std::atomic<bool> has_thrown;
    std::atomic<bool> is_not_loadable;
    std::atomic<bool> left_buffer_untouched;
    std::atomic<std::uint32_t> reads;
    std::atomic<std::uint32_t> writes;
    std::atomic<std::uint32_t> bad_transfers;
    std::atomic<std::uint32_t> late_transfers;
    text missing;     ///< functions, one a line
    text place;       ///< of the crash
    text words;       ///< the loader's, or an explanation of the crash
    text threads;     ///< one a line
    text descriptors; ///< one a line
};

} // namespace tarvik::tvkctl
