#pragma once

#include <gtest/gtest.h>

#include <string>

namespace check_plugin_test {

/// Path of the sample plugin, built for armhf by the cross compiler; empty where there is none.
inline std::string armhf_plugin()
{
    return ARMHF_PLUGIN_PATH;
}

} // namespace check_plugin_test

/// First statement of a test that needs armhf_plugin().
#define REQUIRE_ARMHF_PLUGIN()                                                                               \
    if (check_plugin_test::armhf_plugin().empty())                                                           \
    GTEST_SKIP() << "needs a plugin built for armhf: install g++-arm-linux-gnueabihf and configure again"
