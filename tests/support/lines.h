#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/dialogue.h"

namespace support {

/// Lines of a log or of a dialogue, put together from pieces with +.
class lines : public std::vector<std::string> {
public:
    using std::vector<std::string>::vector;
    lines(std::vector<std::string> all) : vector(std::move(all)) {}

    lines& operator+=(const lines& more)
    {
        insert(end(), more.begin(), more.end());
        return *this;
    }
    friend lines operator+(lines first, const lines& second) { return first += second; }

    /// One text, so that a failed comparison shows as a readable difference.
    std::string text() const { return support::text(*this); }
};

/// What happens several times, and what happens between two of them.
inline lines repeated(int times, const lines& each, const lines& between = {})
{
    lines all;
    for (int i = 0; i < times; ++i)
        all += i > 0 ? between + each : each;
    return all;
}

} // namespace support
