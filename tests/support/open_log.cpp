#include "support/open_log.h"

#include <filesystem>

#include "common/log/logger.h"
#include "support/log_reader.h"
#include "support/private_paths.h"

namespace support {

namespace {

void read_settings_anew()
{
    vl::common::log::logConfigure::instance_ = vl::common::log::logConfigure();
    vl::common::log::init_log(nullptr, vl::common::log::kLogFolder, vl::common::log::kSettingsFile);
}

} // namespace

void open_log(std::optional<int> level)
{
    make_log_directory(level);
    read_settings_anew();
}

void close_log()
{
    std::filesystem::remove_all(kLogDirectory);
    read_settings_anew();
}

} // namespace support
