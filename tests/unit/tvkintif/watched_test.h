#pragma once

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "fake_usb/checked_bus.h"
#include "support/dialogue.h"
#include "support/lines.h"
#include "support/log_reader.h"
#include "support/open_log.h"
#include "support/private_paths.h"

using support::lines;

/// A test at the fake USB bus in which everything falls into one dialogue: libusb's calls, the log's lines,
/// pauses, and what plugins do. Ends by failing for whatever is left behind on the bus.
class watched_test : public testing::Test {
protected:
    void SetUp() override
    {
        SUPPORT_REQUIRE_PRIVATE_PATHS();
        support::open_log();
        support::take_dialogue();
        support::merge_into_dialogue([this] { return new_log_lines(); });
    }

    void TearDown() override
    {
        support::merge_into_dialogue({});
        bus.verify();
    }

    /// Everything that happened since the last look, as text.
    static std::string happened() { return support::text(support::take_dialogue()); }

    static void forget_what_happened() { support::take_dialogue(); }

    /// The log alone, from the start of the test.
    static std::string log() { return support::text(support::log_dialogue()); }

    static std::string text(std::initializer_list<lines> parts)
    {
        std::string all;
        for (const lines& part : parts)
            all += part.text();
        return all;
    }

    fake_usb::checked_bus bus;

private:
    lines new_log_lines()
    {
        const lines all = support::log_dialogue();
        const lines fresh(all.begin() + m_logLinesSeen, all.end());
        m_logLinesSeen = static_cast<lines::difference_type>(all.size());
        return fresh;
    }

    lines::difference_type m_logLinesSeen = 0;
};
