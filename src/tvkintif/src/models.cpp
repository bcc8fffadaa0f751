#include "tvkintif/src/models.h"

#include <stdlib.h>
#include <tarvik/interpreter.h>

namespace {

constexpr std::array<const char*, 4> kFirmwareVariables = {"GLIMMERON_FIRMWARE_DIR", "QUBAN_FIRMWARE_DIR",
                                                           "MORA_FIRMWARE_DIR", "QUBAN_FW_DIR"};

} // namespace

const char* plugin_name(int product_id)
{
    for (const model& each : kModels)
        if (each.product_id == product_id)
            return each.plugin;
    return kDefaultPlugin;
}

std::string lib_path(std::string name)
{
    if (name.find('/') != std::string::npos)
        return {};
    std::string path = TVKINTIF_PLUGIN_DIR;
    if (!path.empty() && path.back() != '/')
        path += '/';
    return path + "libexec/" + name;
}

void set_firmware_directories()
{
    for (const char* variable : kFirmwareVariables)
        setenv(variable, TARVIK_FIRMWARE_DIR, 1);
}

bool is_reset_on_close(std::uint16_t product_id)
{
    return (product_id >= 0x0A71 && product_id <= 0x0A76) || product_id == 0x0A8C;
}
