#include "process/tvkctl/explain_test.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "process/tvkctl/usb_paths.h"
#include "support/plugin_files.h"
#include "support/private_paths.h"

namespace fs = std::filesystem;

namespace process_test {

void explain_test::SetUp()
{
    tvkctl_test::SetUp();
    if (IsSkipped())
        return;
    cover_usb_paths();
    m_node = make_node(1, 1);
    set_active_configuration(kPort, 1);
    with_bus("device scanner 1a2b:3c4d\n  place 1 1 1\n");
}

void explain_test::TearDown()
{
    tvkctl_test::TearDown();
    if (support::have_private_paths())
        cover_usb_paths(); // other tests count on a machine without nodes
}

tvkctl_result explain_test::explain(const std::string& udi, const std::vector<std::string>& more)
{
    std::vector<std::string> arguments = {"explain", udi};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return run(arguments);
}

std::string explain_test::plugin_file()
{
    return fs::path(support::kPluginDirectory + "/libryo-mora-hk-t210.so").lexically_normal();
}

void explain_test::with_plugin_file(const std::string& content)
{
    std::ofstream(plugin_file(), std::ios::binary) << content;
}

std::string explain_test::program_that(const std::string& script)
{
    write_scratch("program", "#!/bin/sh\n" + script + "\n");
    EXPECT_EQ(chmod(scratch("program").c_str(), 0755), 0);
    return scratch("program");
}

} // namespace process_test
