#pragma once

#include <gtest/gtest.h>

#include "common/process/front_end_error.h"

/// The error that `action` throws; that it throws none is a failure of the running test.
template <typename Action>
tarvik::front_end_error error_of(Action action)
{
    try {
        action();
    } catch (const tarvik::front_end_error& error) {
        return error;
    }
    ADD_FAILURE() << "no front_end_error was thrown";
    return {tarvik::failure::timed_out, "none", "none", "none"};
}
