#pragma once

#include <stdexcept>

namespace support {

/// The error of this type that `action` throws. That it throws none is one itself, and fails the running
/// test.
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
