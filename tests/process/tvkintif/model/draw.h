#pragma once

#include <cstdint>

#include "process/tvkintif/model/session.h"

namespace session_model {

/// The session of this seed and number, the same on every machine.
session draw(std::uint64_t seed, std::uint64_t number);

} // namespace session_model
