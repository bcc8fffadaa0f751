#include "common/process/process_error.h"

namespace tarvik {

step_error::step_error(const std::string& step, const std::string& expected, const std::string& came)
    : std::runtime_error(step + ": expected " + expected + ", got " + came), m_step(step),
      m_expected(expected), m_came(came)
{
}

} // namespace tarvik
