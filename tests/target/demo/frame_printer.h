#pragma once

#include <cstddef>
#include <string>

#include "front_end/src/frame.h"

namespace target {

/// Prints each frame as it crosses the wire: which way, what it means, the header's fields and the first
/// bytes of the payload.
class frame_printer {
public:
    /// To be called for each frame, or piece of one.
    void operator()(const tarvik::frame_event& event) const;

private:
    static std::string name_of(const tarvik::frame_event& event);
    static std::string preview(const tarvik::frame_event& event);
};

} // namespace target
