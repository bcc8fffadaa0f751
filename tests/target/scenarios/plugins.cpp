#include <elf.h>

#include <csignal>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "target/scenarios/plugin_folder.h"
#include "target/scenarios/scanner_session.h"

using virtual_scanner::command_code;

namespace {

/// Plugins that cannot be loaded, refuse, or crash: the program ends, and the next one finds all in order.
class plugins : public target::scanner_session {
protected:
    void SetUp() override { plug_in("plain"); }

    /// Instead of all other plugins.
    void install_as(const std::string& name, const std::string& file) { m_folder.emplace(file, name); }
    void install(const std::string& plugin)
    {
        install_as(target::kDefaultPlugin, target::test_plugin(plugin));
    }

    /// Installs a good plugin of which one byte is another.
    void install_with_byte(std::size_t offset, unsigned char value)
    {
        install("plugin_good");
        target::change_byte(target::kShippedPlugin, offset, value);
    }

    void ask_for_the_open()
    {
        begin_to_open(kByIds);
        log().load_plugin({kByIds});
    }

    /// `reason` is what the log says last before the reply.
    void expect_open_refused(const std::vector<std::string>& reason)
    {
        for (const std::string& line : reason)
            log().line(line);
        log().line("send ng");
        expect_refusal(program().read_reply(tarvik::kConnectionId, target::kStepLimit));
        end_program();
        expect_next_program_to_work();
    }

    void expect_load_refused(const std::string& loader_says)
    {
        ask_for_the_open();
        expect_open_refused({"interpreter load fails " + target::kShippedPlugin + ": " + loader_says,
                             "interpreter : load failed.", "open fails"});
    }

    void expect_refused_without(const std::string& entry_point)
    {
        install("plugin_without_" + entry_point);
        ask_for_the_open();
        expect_open_refused(
            {"interpreter function load errors", "interpreter : invalid symboles.", "open fails"});
    }

    /// The plugin ends the program in the middle of a request: no reply, and the log ends there too.
    void expect_crash()
    {
        EXPECT_EQ(program().wire().read_to_end(target::kStepLimit), tarvik::bytes());
        end_program(tarvik::exit_status::killed_by(SIGABRT));
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

TEST_F(plugins, file_that_is_missing_refuses_the_open)
{
    install_as("another.so", target::kShippedPlugin);
    expect_load_refused("cannot open shared object file: No such file or directory");
}

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

TEST_F(plugins, file_without_a_ctor_refuses_the_open)
{
    expect_refused_without("ctor");
}

TEST_F(plugins, file_without_a_dtor_refuses_the_open)
{
    expect_refused_without("dtor");
}

TEST_F(plugins, file_without_a_reader_refuses_the_open)
{
    expect_refused_without("reader");
}

TEST_F(plugins, file_without_a_writer_refuses_the_open)
{
    expect_refused_without("writer");
}

TEST_F(plugins, plugin_that_refuses_to_start_refuses_the_open)
{
    install("plugin_refusing");
    ask_for_the_open();
    log().reach_device({kByIds});
    expect_open_refused({"usb ctor failer."});
}

TEST_F(plugins, crash_in_ctor_ends_the_program_without_a_reply_to_the_open)
{
    install("plugin_crashing_in_ctor");
    ask_for_the_open();
    log().reach_device({kByIds});
    expect_crash();
}

TEST_F(plugins, crash_in_writer_ends_the_program_without_a_reply_to_the_send)
{
    install("plugin_crashing_in_writer");
    open(kByIds);
    begin(tarvik::request_code::send, 0, encoded(command_code::identify));
    expect_crash();
}

TEST_F(plugins, crash_in_reader_ends_the_program_without_a_reply_to_the_receive)
{
    install("plugin_crashing_in_reader");
    open(kByIds);
    begin(tarvik::request_code::recv, virtual_scanner::kBlockSize, {});
    expect_crash();
}

TEST_F(plugins, crash_in_dtor_ends_the_program_in_the_close)
{
    install("plugin_crashing_in_dtor");
    open(kByIds);
    begin(tarvik::request_code::close, 0, {});
    log().line("enter close");
    expect_crash();
}
