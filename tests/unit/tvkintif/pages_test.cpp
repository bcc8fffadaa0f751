// What pages show of the program's constants; scripts/pages renews it.

#include <gtest/gtest.h>

#include "common/text/text.h"
#include "support/expect_on_page.h"
#include "support/files.h"
#include "tvkintif/src/dispatch.h"
#include "tvkintif/src/ipc_connection.h"
#include "tvkintif/src/ipc_header.h"
#include "tvkintif/src/models.h"
#include "tvkintif/src/scanner.h"
#include "tvkintif/src/usb.h"

namespace {

const std::string kPluginsPage = SOURCE_FOLDER "/docs/plugins.md";
const std::string kProtocolPage = SOURCE_FOLDER "/docs/protocol.md";

std::string row(const std::string& first, const std::string& second)
{
    return "| " + first + " | " + second + " |\n";
}

std::string code(const std::string& text)
{
    return "`" + text + "`";
}

TEST(pages_of_constants, plugins_page_has_the_file_of_every_model)
{
    std::string rows = "| product id | file |\n|---|---|\n";
    for (const model& each : kModels)
        rows += row(code(tarvik::hexadecimal(each.product_id, 4)), code(each.plugin));
    support::expect_on_page(support::part_named("models", kPluginsPage),
                            rows + row("any other", code(kDefaultPlugin)));
}

TEST(pages_of_constants, plugins_page_has_the_folder_from_which_the_program_loads)
{
    EXPECT_NE(support::read_file(kPluginsPage).find(code(lib_path(""))), std::string::npos) << lib_path("");
}

TEST(pages_of_constants, protocol_page_has_times_and_sizes)
{
    const auto seconds = [](unsigned int number) { return std::to_string(number) + " s"; };
    const auto bytes = [](std::size_t number) { return tarvik::count_of(number, "byte"); };
    constexpr unsigned int kPauses = scanner::kConnectionAttempts - 1;
    support::expect_on_page(
        support::part_named("times and sizes", kProtocolPage),
        "| what | how much |\n|---|---|\n" +
            row("attempts of an open to reach the device", std::to_string(scanner::kConnectionAttempts)) +
            row("pause between two of them", seconds(scanner::kPauseSeconds)) +
            row("all pauses of an open that fails", seconds(kPauses * scanner::kPauseSeconds)) +
            row("time-out of the connection, reading and writing", seconds(ipc_connection::kTimeoutSeconds)) +
            row("time-out of a USB transfer", seconds(usb_transceiver::kTransferMilliseconds / 1000)) +
            row("header of a message", bytes(sizeof(ipc_header))) +
            row("payload buffer at the start", bytes(dispatch::kInitialPayloadSize)));
}

} // namespace
