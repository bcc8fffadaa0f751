#pragma once

#include <string>

#include "common/log/logger.h"

/// The program's log and plugin directories are fixed. A test process that enters a private mount namespace
/// gets both for itself, empty, and the machine's own stay untouched, so tests can run side by side.
namespace support {

inline const std::string kLogRoot = vl::common::log::kLogRoot;
inline const std::string kLogDirectory = kLogRoot + "/" + vl::common::log::kLogFolder;
inline const std::string kSettingsFile = kLogDirectory + "/" + vl::common::log::kSettingsFile;
inline const std::string kPluginRoot = TVKINTIF_PLUGIN_DIR;
inline const std::string kPluginDirectory = kPluginRoot + "/libexec";

/// Gives this process, and the children that it starts from now on, an empty log root and an empty plugin
/// directory. To be called once, before any thread is started. When the machine does not permit it, says so
/// on standard error and returns false: tests that need the paths then have to be skipped.
bool enter_private_paths();

/// Whether enter_private_paths() succeeded in this process.
bool have_private_paths();

/// Why have_private_paths() is false.
const std::string& why_no_private_paths();

} // namespace support

/// First statement of a test (or of a fixture's SetUp) that needs the private paths.
#define SUPPORT_REQUIRE_PRIVATE_PATHS()                                                                      \
    if (!support::have_private_paths())                                                                      \
    GTEST_SKIP() << "needs a private mount namespace: " << support::why_no_private_paths()
