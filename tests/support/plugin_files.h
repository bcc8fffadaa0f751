#pragma once

#include <string>

namespace support {

/// Path of a plugin that was built for the tests, by the name of its target ("plugin_good").
std::string built_plugin(const std::string& target);

/// Puts a copy of a plugin built for the tests into the plugin directory, under the file name by which the
/// program looks for it.
void install_plugin(const std::string& target, const std::string& file_name);

/// Empties the plugin directory.
void remove_plugins();

} // namespace support
