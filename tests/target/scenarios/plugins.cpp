#include <elf.h>

#include <csignal>
#include <cstddef>
#include <optional>
#include <string>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"

using virtual_scanner::command_code;

namespace {

/// Plugins that cannot be loaded, or crash: the program ends, and the next one finds all in order.
class plugins : public target::scanner_session {
protected:
    void SetUp() override { plug_in("plain"); }

    /// Instead of all other plugins.
    void install(const std::string& plugin) { m_folder.emplace(target::test_plugin(plugin), kDefaultPlugin); }

    /// Installs a good plugin of which one byte is another.
    void install_with_byte(std::size_t offset, unsigned char value)
    {
        install("plugin_good");
        target::change_byte(target::kShippedPlugin, offset, value);
    }

    void expect_load_refused(const std::string& loader_says)
    {
        begin_to_open(kByIds);
        log() += expected::plugin_loaded(kByIds) +
                 expected::info({"interpreter load fails " + target::kShippedPlugin + ": " + loader_says,
                                 "interpreter : load failed.", "open fails", "send ng"});
        expect_refusal(program().take_reply());
        end_program();
        expect_next_program_to_work();
    }

    void expect_next_program_to_work()
    {
        m_folder.reset();
        open(kByIds);
        EXPECT_EQ(status().commands_served, 0U) << "nothing may have reached the scanner";
        close();
    }

private:
    std::optional<target::plugin_folder> m_folder; ///< none: the plugins are those that are shipped
};

} // namespace

TEST_F(plugins, file_for_another_processor_refuses_the_open)
{
    install_with_byte(offsetof(Elf32_Ehdr, e_machine), EM_386);
    expect_load_refused("cannot open shared object file: No such file or directory");
}

TEST_F(plugins, file_for_64_bits_refuses_the_open)
{
    install_with_byte(EI_CLASS, ELFCLASS64);
    expect_load_refused("wrong ELF class: ELFCLASS64");
}

TEST_F(plugins, crash_in_reader_ends_the_program_without_a_reply_to_the_receive)
{
    install("plugin_crashing_in_reader");
    open(kByIds);
    begin(tarvik::request_code::recv, virtual_scanner::kBlockSize, {});
    // No reply, and the log ends there too.
    EXPECT_EQ(program().read_to_end(), tarvik::bytes());
    end_program(tarvik::exit_status::killed_by(SIGABRT));
    expect_next_program_to_work();
}
