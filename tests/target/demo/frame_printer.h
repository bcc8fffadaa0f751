#pragma once

#include <cstddef>
#include <string>

#include "target/scenarios/conversation.h"

namespace target {

/// Prints each frame as it crosses the wire: which way, what it means, the header's fields and the first
/// bytes of the payload.
class frame_printer {
public:
    /// To be called for each frame.
    void operator()(const frame& shown) const;

private:
    static std::string name_of(const frame& shown);
    static std::string preview(const frame& shown);
};

} // namespace target
