#pragma once

#include <cstddef>
#include <string>

namespace target {

/// While it lives, the machine's plugin folder holds one file and no other. Failures are
/// std::filesystem::filesystem_error or std::system_error, naming the path.
class plugin_folder {
public:
    /// `file` is copied under the name `name`.
    plugin_folder(const std::string& file, const std::string& name);
    plugin_folder(const plugin_folder&) = delete;
    plugin_folder& operator=(const plugin_folder&) = delete;
    ~plugin_folder();

    /// Brings the plugins as installed back; harmless when they are there. For those that a scenario left
    /// away which was ended by force.
    static void restore();
};

/// The plugin as installed.
extern const std::string kShippedPlugin;
/// A plugin that was built for tests, by its name ("plugin_good").
std::string test_plugin(const std::string& name);
/// Makes one byte of a plugin file another, as in a file for another machine. Failures are
/// std::runtime_error.
void change_byte(const std::string& file, std::size_t offset, unsigned char value);
/// A plugin that writes down what is asked of it.
extern const std::string kTracingPlugin;

/// What the tracing plugin wrote down since its folder was made, a line for each thing asked.
std::string plugin_trace();

} // namespace target
