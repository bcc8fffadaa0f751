#include "support/plugin_files.h"

#include <filesystem>

#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace support {

std::string built_plugin(const std::string& target)
{
    return TEST_PLUGIN_BUILD_DIR "/" + target + ".so";
}

void install_plugin(const std::string& target, const std::string& file_name)
{
    fs::copy_file(built_plugin(target), kPluginDirectory + "/" + file_name,
                  fs::copy_options::overwrite_existing);
}

void remove_plugins()
{
    fs::remove_all(kPluginDirectory);
    fs::create_directory(kPluginDirectory);
}

} // namespace support
