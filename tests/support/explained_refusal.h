#pragma once

#include <string>

namespace support {

/// What tvkctl explain says of an open that the default plugin, loaded from this path, refused by its own
/// ctor: from "the log tells" to its end.
std::string explained_refusal(const std::string& plugin_path);

} // namespace support
