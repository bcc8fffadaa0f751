#pragma once

#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "support/dialogue.h"

namespace support {

/// Lines of a log or of a dialogue, put together from pieces with +.
class lines {
public:
    lines() = default;
    lines(std::initializer_list<std::string> all) : m_all(all) {}
    explicit lines(std::vector<std::string> all) : m_all(std::move(all)) {}

    lines& operator+=(const lines& more)
    {
        m_all.insert(m_all.end(), more.m_all.begin(), more.m_all.end());
        return *this;
    }
    friend lines operator+(lines first, const lines& second) { return first += second; }

    const std::vector<std::string>& all() const { return m_all; }
    /// One text, so that a failed comparison shows as a readable difference.
    std::string text() const { return support::text(m_all); }

private:
    std::vector<std::string> m_all;
};

} // namespace support
