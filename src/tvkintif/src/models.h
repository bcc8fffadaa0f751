#pragma once

#include <array>
#include <cstdint>
#include <string>

/// A model that has a plugin of its own.
struct model {
    std::uint16_t product_id;
    const char* plugin; ///< file name
};
inline constexpr std::array<model, 6> kModels = {{
    {0x0A71, "libqvintZ4.so"},
    {0x0A72, "libquban-plugin-stellan-x440.so"},
    {0x0A75, "libryo-mora-rt0915.so"},
    {0x0A76, "libryo-mora-rt0915.so"},
    {0x0A7E, "libmora-interpreter-stellan-x120.so"},
    {0x0A83, "libquban-plugin-stellan-x660.so"},
}};
/// File name of the plugin that all other models share.
inline constexpr const char* kDefaultPlugin = "libryo-mora-hk-t210.so";

/// File name of the plugin that serves the model with this USB product id.
const char* plugin_name(int product_id);

/// Installed path of the plugin library with the bare file name `name`; empty when the name has a
/// directory part, which is refused on purpose. Does not check that the file exists.
std::string lib_path(std::string name);

/// Tells plugins, through this process's environment, where their firmware files are.
void set_firmware_directories();

/// Whether the device of this model wants a reset before its handle is closed.
bool is_reset_on_close(std::uint16_t product_id);
