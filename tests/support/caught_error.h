#pragma once

#include <stdexcept>

namespace support {

/// The error of this type that `action` throws. If it throws none, that is an error too, and fails the
/// running test.
template <typename Error, typename Action>
Error caught(Action action)
{
    try {
        action();
    } catch (const Error& error) {
        return error;
    }
    throw std::logic_error("the error that the test waits for was not thrown");
}

} // namespace support
