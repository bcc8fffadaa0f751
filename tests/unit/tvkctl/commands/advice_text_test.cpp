#include "tvkctl/src/commands/advice_text.h"

#include <gtest/gtest.h>

namespace tarvik::tvkctl {

namespace {

TEST(advice_text, words_stay_as_they_are)
{
    EXPECT_EQ(text_of("log in again"), "log in again");
}

TEST(advice_text, a_step_is_written_as_it_is_typed)
{
    EXPECT_EQ(text_of(tool_step::list_all_devices), "tvkctl list --all");
}

TEST(advice_text, a_parameter_is_quoted_for_the_shell)
{
    EXPECT_EQ(text_of({tool_step::check_plugin, "/a plugin.so"}), "tvkctl check-plugin '/a plugin.so'");
}

TEST(advice_text, what_a_step_is_good_for_follows_it)
{
    EXPECT_EQ(text_of({tool_step::explain, "usb:1a2b:3c4d", "then tells the reason"}),
              "tvkctl explain usb:1a2b:3c4d   # then tells the reason");
}

TEST(advice_text, several_become_sentences)
{
    EXPECT_EQ(sentences_of({"Ask root.",
                            {tool_step::turn_log_on_for, "guest", "Have only that user's programs log"},
                            {tool_step::purge_log, "", "Or remove it"}}),
              "Ask root. Have only that user's programs log: sudo tvkctl log on --for guest. "
              "Or remove it: tvkctl log off --purge.");
}

} // namespace

} // namespace tarvik::tvkctl
