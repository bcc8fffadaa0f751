#include "tvkctl/src/plugin/library_search.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/plugin_files.h"
#include "unit/tvkctl/plugin/bare_elf_file.h"
#include "unit/tvkctl/plugin/scratch_file.h"

using check_plugin_test::bare_arm_file;
using check_plugin_test::bare_elf_file;
using check_plugin_test::scratch_file;
using support::built_plugin;
using tarvik::tvkctl::elf_file;
using tarvik::tvkctl::elf_identity;
using tarvik::tvkctl::float_abi;
using tarvik::tvkctl::library_search;

namespace {

namespace fs = std::filesystem;

/// A folder with the files of another machine, armhf unless a test says otherwise.
class library_search_test : public testing::Test {
protected:
    library_search_test() { m_user.path = root() + "/opt/plugin.so"; }

    std::string root() const { return m_file.folder() / "root"; }

    void write(const std::string& path, const std::string& content) const
    {
        const fs::path file = root() + path;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << content;
    }
    void add_library(const std::string& path) const { write(path, bare_arm_file(EF_ARM_ABI_FLOAT_HARD)); }

    /// The library that a plugin in /opt gets, as a path on that machine; "none" when it gets none.
    std::string found(const std::string& name,
                      const elf_identity& loader = tarvik::tvkctl::armhf_identity()) const
    {
        const auto path = library_search(loader, root()).find(name, m_user);
        if (!path)
            return "none";
        EXPECT_EQ(path->rfind(root(), 0), 0U) << *path;
        return path->substr(root().size());
    }

    const scratch_file m_file{""};
    elf_file m_user{};
};

} // namespace

TEST_F(library_search_test, looks_in_the_folder_of_each_machine)
{
    const std::string arm_hard = bare_arm_file(EF_ARM_ABI_FLOAT_HARD);
    const std::string arm_soft = bare_arm_file(EF_ARM_ABI_FLOAT_SOFT);
    const struct {
        elf_identity loader;
        const char* folder;
        std::string library;
    } machines[] = {
        {{32, false, EM_ARM, float_abi::hard}, "/usr/lib/arm-linux-gnueabihf/", arm_hard},
        {{32, false, EM_ARM, float_abi::soft}, "/usr/lib/arm-linux-gnueabi/", arm_soft},
        {{64, false, EM_AARCH64, float_abi::not_applicable},
         "/usr/lib/aarch64-linux-gnu/",
         bare_elf_file<Elf64_Ehdr>(EM_AARCH64)},
        {{64, false, EM_X86_64, float_abi::not_applicable},
         "/usr/lib/x86_64-linux-gnu/",
         bare_elf_file<Elf64_Ehdr>(EM_X86_64)},
        {{32, false, EM_386, float_abi::not_applicable},
         "/usr/lib/i386-linux-gnu/",
         bare_elf_file<Elf32_Ehdr>(EM_386)},
    };
    for (const auto& machine : machines) {
        write(std::string(machine.folder) + "libone.so", machine.library);
        EXPECT_EQ(found("libone.so", machine.loader), std::string(machine.folder) + "libone.so");
    }
}

TEST_F(library_search_test, looks_in_the_common_folders_for_a_machine_without_one_of_its_own)
{
    write("/usr/lib/libone.so", bare_elf_file<Elf64_Ehdr>(EM_RISCV));
    EXPECT_EQ(found("libone.so", {64, false, EM_RISCV, float_abi::not_applicable}), "/usr/lib/libone.so");
}

TEST_F(library_search_test, passes_over_what_is_no_library_of_the_machine)
{
    write("/lib/arm-linux-gnueabihf/libone.so", bare_elf_file<Elf64_Ehdr>(EM_X86_64));
    write("/lib/libone.so", "INPUT(libtwo.so)\n");
    EXPECT_EQ(found("libone.so"), "none");
    add_library("/usr/lib/libone.so");
    EXPECT_EQ(found("libone.so"), "/usr/lib/libone.so");
}

TEST_F(library_search_test, looks_first_where_the_configuration_of_the_loader_says_even_if_it_includes_itself)
{
    write("/etc/ld.so.conf", "# first /opt/none\ninclude ld.so.conf\n/opt/mine # and no more\n");
    add_library("/opt/mine/libone.so");
    add_library("/usr/lib/libone.so");
    EXPECT_EQ(found("libone.so"), "/opt/mine/libone.so");
}

TEST_F(library_search_test, looks_where_included_configurations_say)
{
    write("/etc/ld.so.conf", "include ld.so.conf.d/*.conf\ninclude /opt/*.conf\n");
    write("/etc/ld.so.conf.d/one.conf", "/opt/beside\n");
    write("/opt/two.conf", "/opt/elsewhere\n");
    add_library("/opt/beside/libone.so");
    add_library("/opt/elsewhere/libtwo.so");
    EXPECT_EQ(found("libone.so"), "/opt/beside/libone.so");
    EXPECT_EQ(found("libtwo.so"), "/opt/elsewhere/libtwo.so");
}

TEST_F(library_search_test, looks_first_where_the_file_itself_says_or_beside_it)
{
    add_library("/usr/lib/libone.so");
    add_library("/opt/own/libone.so");
    for (const char* folder : {"/opt/own", "$ORIGIN/own", "${ORIGIN}/own"}) {
        m_user.search_path = {folder};
        EXPECT_EQ(found("libone.so"), "/opt/own/libone.so") << folder;
    }
}

TEST_F(library_search_test, takes_a_name_with_a_slash_for_a_path)
{
    add_library("/opt/own/libone.so");
    EXPECT_EQ(found("/opt/own/libone.so"), "/opt/own/libone.so");
    EXPECT_EQ(found("/opt/own/libtwo.so"), "none");
}

TEST_F(library_search_test, heeds_ld_library_path_on_this_machine_alone)
{
    const std::string library = built_plugin("other_library");
    setenv("LD_LIBRARY_PATH", ("/nonexistent::" + fs::path(library).parent_path().string()).c_str(), 1);
    const auto here = library_search(tarvik::tvkctl::own_identity(), "").find("other_library.so", m_user);
    const auto there =
        library_search(tarvik::tvkctl::own_identity(), root()).find("other_library.so", m_user);
    unsetenv("LD_LIBRARY_PATH");
    EXPECT_EQ(here, library);
    EXPECT_EQ(there, std::nullopt);
}
