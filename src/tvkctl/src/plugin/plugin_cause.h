#pragma once

#include "tvkctl/src/machine/cause.h"

/// What can be wrong with a plugin.
namespace tarvik::tvkctl::plugin_cause {

inline constexpr cause kUnreadable{"unreadable"};
inline constexpr cause kNotALibrary{"not_a_library"};
inline constexpr cause kWrongMachine{"wrong_machine"};
inline constexpr cause kIncomplete{"missing_entry_point"};
inline constexpr cause kNeedsMissing{"missing_dependency"};
inline constexpr cause kNotLoadable{"not_loadable"};
inline constexpr cause kCrashed{"crash"};
inline constexpr cause kHung{"hang"};
inline constexpr cause kUnclean{"unclean"};
inline constexpr cause kNotRunnableHere{"not_runnable_here"};

} // namespace tarvik::tvkctl::plugin_cause
