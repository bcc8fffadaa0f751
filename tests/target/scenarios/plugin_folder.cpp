#include "target/scenarios/plugin_folder.h"

#include <sys/mount.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "support/files.h"
#include "target/plugins/trace_file.h"
#include "target/scanner/posix_file.h"
#include "tvkintif/src/models.h"

namespace target {

namespace {

namespace fs = std::filesystem;

const std::string kFolder = fs::path(lib_path(kDefaultPlugin)).parent_path();
constexpr const char* kStandIn = "/run/plugins";

} // namespace

std::string test_plugin(const std::string& name)
{
    return "/usr/lib/target-tests/" + name + ".so";
}

const std::string kShippedPlugin = lib_path(kDefaultPlugin);
const std::string kTracingPlugin = test_plugin("plugin_tracing");

void change_byte(const std::string& file, std::size_t offset, unsigned char value)
{
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.seekp(static_cast<std::streamoff>(offset));
    stream.put(static_cast<char>(value));
    if (!stream.flush())
        throw std::runtime_error("cannot change " + file);
}

plugin_folder::plugin_folder(const std::string& file, const std::string& name)
{
    fs::remove_all(kStandIn);
    fs::create_directory(kStandIn);
    fs::copy_file(file, fs::path(kStandIn) / name);
    fs::remove(TRACE_FILE);
    if (::mount(kStandIn, kFolder.c_str(), nullptr, MS_BIND, nullptr) != 0)
        virtual_scanner::throw_errno("mount over " + kFolder);
}

plugin_folder::~plugin_folder()
{
    restore();
}

void plugin_folder::restore()
{
    ::umount2(kFolder.c_str(), MNT_DETACH);
}

std::string plugin_trace()
{
    return support::read_file(TRACE_FILE);
}

} // namespace target
