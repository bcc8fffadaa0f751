#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "support/plugin_files.h"
#include "tvkintif/src/interpreter.h"
#include "tvkintif/src/models.h"
#include "unit/tvkintif/watched_test.h"

using support::built_plugin;

namespace {

static_assert(!std::is_copy_constructible_v<interpreter> && !std::is_copy_assignable_v<interpreter>);

// Transfers that a test hands to a plugin.

int read_7(void* buffer, int length)
{
    support::record("transfer in " + std::to_string(length));
    *static_cast<char*>(buffer) = 'r';
    return 7;
}

int write_9(void* buffer, int length)
{
    support::record(std::string("transfer out ") + *static_cast<char*>(buffer) + " " +
                    std::to_string(length));
    return 9;
}

class interpreter_test : public watched_test {
protected:
    void load(const std::string& plugin)
    {
        path = built_plugin(plugin);
        loaded = std::make_unique<interpreter>(path);
    }

    std::string refusal_of(const std::string& file)
    {
        try {
            interpreter refused(file);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "loaded";
    }

    static bool is_in_memory(const std::string& file)
    {
        void* const handle = dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD);
        if (handle != nullptr)
            dlclose(handle);
        return handle != nullptr;
    }

    std::string path;
    std::unique_ptr<interpreter> loaded;
};

TEST_F(interpreter_test, construction_loads_the_library_and_calls_nothing_in_it)
{
    load("plugin_good");

    EXPECT_EQ(happened(), text({{"INFO interpreter load " + path, "plugin_good loaded"}}));
    EXPECT_TRUE(is_in_memory(path));
}

TEST_F(interpreter_test, destruction_unloads_the_library)
{
    load("plugin_good");
    forget_what_happened();
    loaded.reset();

    EXPECT_EQ(happened(), "plugin_good unloaded\n");
    EXPECT_FALSE(is_in_memory(path));
}

TEST_F(interpreter_test, destruction_does_not_stop_a_started_plugin)
{
    load("plugin_good");
    loaded->ctor(read_7, write_9);
    forget_what_happened();
    loaded.reset();

    EXPECT_EQ(happened(), "plugin_good unloaded\n");
}

TEST_F(interpreter_test, symbols_of_a_plugin_stay_its_own)
{
    load("plugin_good");

    EXPECT_EQ(dlsym(RTLD_DEFAULT, "interpreter_ctor"), nullptr);
}

TEST_F(interpreter_test, functions_that_a_plugin_calls_are_not_looked_up_before_it_does)
{
    load("plugin_calling_nobody");

    EXPECT_EQ(support::take_dialogue().back(), "plugin_calling_nobody loaded");
}

TEST_F(interpreter_test, ctor_hands_over_the_reader_first_and_the_writer_second_and_results_come_back)
{
    load("plugin_good");
    loaded->ctor(read_7, write_9);
    forget_what_happened();
    char byte = 'x';
    EXPECT_EQ(loaded->read(&byte, 1), 7);
    EXPECT_EQ(byte, 'r');
    EXPECT_EQ(happened(), text({{"plugin_good reader 1", "transfer in 1"}}));

    EXPECT_EQ(loaded->write(&byte, 2), 9);
    EXPECT_EQ(happened(), text({{"plugin_good writer 2", "transfer out r 2"}}));
}

TEST_F(interpreter_test, results_that_are_neither_0_nor_1_come_back_as_they_are)
{
    load("plugin_odd");
    char byte = 'x';

    EXPECT_EQ(loaded->ctor(read_7, write_9), -7);
    EXPECT_EQ(loaded->read(&byte, 1), 42);
    EXPECT_EQ(loaded->write(&byte, 1), -3);
}

TEST_F(interpreter_test, null_buffers_any_length_and_a_result_of_0_are_passed_on_without_a_word_in_the_log)
{
    load("plugin_failing");
    loaded->ctor(read_7, write_9);
    forget_what_happened();

    EXPECT_EQ(loaded->read(nullptr, 0), 0);
    EXPECT_EQ(loaded->write(nullptr, -1), 0);
    EXPECT_EQ(happened(), text({{"plugin_failing reader 0", "plugin_failing writer -1"}}));
}

TEST_F(interpreter_test, dtor_stops_the_plugin_and_keeps_it_loaded)
{
    load("plugin_good");
    loaded->ctor(read_7, write_9);
    forget_what_happened();
    loaded->dtor();

    EXPECT_EQ(happened(), "plugin_good dtor\n");
    EXPECT_TRUE(is_in_memory(path));
}

TEST_F(interpreter_test, file_that_is_no_library_is_refused_with_the_loader_s_message_in_the_log)
{
    const std::string file = support::kPluginDirectory + "/libqvintZ4.so";
    const auto expect_refusal = [this](const std::string& refused, const std::string& reason) {
        EXPECT_EQ(refusal_of(refused), "interpreter : load failed.");
        EXPECT_EQ(happened(), text({{"INFO interpreter load " + refused,
                                     "INFO interpreter load fails " + refused + ": " + reason}}));
    };
    expect_refusal(file, "cannot open shared object file: No such file or directory");
    expect_refusal(lib_path(""), "cannot read file data: Is a directory");
    std::ofstream(file) << "This is not a library, and it is longer than the header of one would have to be.";
    expect_refusal(file, "invalid ELF header");
    std::filesystem::remove(file);
}

class interpreter_test_without_a_symbol : public interpreter_test,
                                          public testing::WithParamInterface<const char*> {};

TEST_P(interpreter_test_without_a_symbol, library_is_unloaded_before_the_log_tells_and_refused)
{
    const std::string plugin = std::string("plugin_without_") + GetParam();
    const std::string file = built_plugin(plugin);

    EXPECT_EQ(refusal_of(file), "interpreter : invalid symboles.");
    EXPECT_EQ(happened(), text({{"INFO interpreter load " + file, plugin + " loaded", plugin + " unloaded",
                                 "INFO interpreter function load errors"}}));
    EXPECT_FALSE(is_in_memory(file));
}

INSTANTIATE_TEST_SUITE_P(such_as, interpreter_test_without_a_symbol,
                         testing::Values("ctor", "dtor", "reader", "writer"),
                         [](const auto& chosen) { return std::string(chosen.param); });

TEST_F(interpreter_test, every_line_is_logged_as_coming_from_interpreter)
{
    testing::internal::CaptureStderr(); // the verbose form is copied there
    support::open_log(0);
    refusal_of("/nowhere");
    refusal_of(built_plugin("plugin_without_ctor"));
    testing::internal::GetCapturedStderr();

    const auto all = support::log_lines();
    EXPECT_EQ(all.size(), 4U) << log();
    for (const support::log_line& line : all)
        EXPECT_EQ(support::source_of(line.message), "interpreter") << line.message;
}

} // namespace
