#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tvkctl/src/machine/advice.h"
#include "tvkctl/src/machine/cause.h"

namespace tarvik::tvkctl {

inline constexpr cause kInputFile{"input_file"};   ///< a file cannot be read
inline constexpr cause kOutputFile{"output_file"}; ///< a file cannot be written

/// Something that could not be done. what() says what failed and why, in one line without a full stop.
class tool_error : public std::runtime_error {
public:
    tool_error(cause why, const std::string& message, std::vector<advice> next = {})
        : std::runtime_error(message), m_why(why), m_next(std::move(next))
    {
    }

    cause why() const { return m_why; }
    /// What can be done next; in words, each is a sentence.
    const std::vector<advice>& next() const { return m_next; }

private:
    cause m_why;
    std::vector<advice> m_next;
};

} // namespace tarvik::tvkctl
