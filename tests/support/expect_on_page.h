#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/pages.h"

namespace support {

/// Expects that a page shows what was made today, unless it is being renewed.
inline void expect_on_page(const page_part& shown, const std::string& made)
{
    if (renew(shown, made))
        return;
    EXPECT_EQ(made, shown.text) << shown.page << " shows something else at \"" << shown.name
                                << "\"; if what is made now is right, run scripts/pages";
}

} // namespace support
