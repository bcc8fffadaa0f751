// The examples of docs/protocol.md: each is one run of the program, played as it stands there.

#include <algorithm>
#include <cctype>
#include <fstream>

#include "process/tvkintif/program_test.h"

namespace process_test {

namespace {

enum class move { request, reply, end };

struct step {
    move what;
    bytes data; ///< of a request or reply
};

struct example {
    std::string title;
    std::vector<step> steps;
};

bool is_byte(const std::string& line, std::size_t at)
{
    const auto is_digit = [&](std::size_t i) {
        return std::isxdigit(static_cast<unsigned char>(line[i])) != 0;
    };
    return at + 2 <= line.size() && is_digit(at) && is_digit(at + 1) &&
           (at + 2 == line.size() || line[at + 2] == ' ');
}

/// The bytes at the beginning of a line; two blanks or more set off what they mean.
bytes leading_bytes(const std::string& line)
{
    std::size_t end = 0;
    while (is_byte(line, end))
        end += 3;
    return from_hex(line.substr(0, std::min(end, line.size())));
}

/// A fence's first line is "```" and one of these words, the others of the page's fences have other words.
bool begins_step(const std::string& line, move& what)
{
    static const std::map<std::string, move> words = {
        {"```request", move::request}, {"```reply", move::reply}, {"```end", move::end}};
    const auto word = words.find(line);
    if (word == words.end())
        return false;
    what = word->second;
    return true;
}

step read_step(std::ifstream& page, move what)
{
    step result{what, {}};
    for (std::string line; std::getline(page, line) && line != "```";)
        if (what != move::end)
            result.data = std::move(result.data) + leading_bytes(line);
    return result;
}

std::vector<example> read_examples()
{
    const std::string heading = "#### Example: ";
    std::vector<example> examples;
    std::ifstream page(SOURCE_FOLDER "/docs/protocol.md");
    move what{};
    for (std::string line; std::getline(page, line);) {
        if (line.compare(0, heading.size(), heading) == 0)
            examples.push_back({line.substr(heading.size()), {}});
        else if (begins_step(line, what) && !examples.empty())
            examples.back().steps.push_back(read_step(page, what));
    }
    return examples;
}

std::string name_of(const testing::TestParamInfo<example>& info)
{
    std::string name = info.param.title;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isalnum(c) == 0; }, '_');
    return name;
}

} // namespace

class protocol_page : public program_test, public testing::WithParamInterface<example> {};

TEST_P(protocol_page, example_is_what_the_program_does)
{
    const std::vector<step>& steps = GetParam().steps;
    ASSERT_FALSE(steps.empty());
    if (GetParam().title == "receive")
        with_bus("device scanner 1a2b:3c4d\ntransfer scanner 81 bytes 060080ff\n");
    start_connected();
    for (const step& each : steps) {
        if (each.what == move::request)
            tell(each.data);
        else if (each.what == move::reply)
            expect_reply(each.data);
    }
    // An example that does not tell of the end leaves the program running.
    if (steps.back().what != move::end)
        hang_up();
    expect_end();
}

INSTANTIATE_TEST_SUITE_P(docs, protocol_page, testing::ValuesIn(read_examples()), name_of);

TEST(protocol_page_itself, has_an_example_of_every_request)
{
    std::vector<unsigned int> codes;
    for (const example& each : read_examples())
        for (const step& one : each.steps)
            if (one.what == move::request && one.data.size() >= 20)
                codes.push_back(one.data[7]);
    for (const unsigned int code : {4U, 5U, 6U, 7U, 8U})
        EXPECT_NE(std::find(codes.begin(), codes.end(), code), codes.end())
            << "no example with code " << code;
}

} // namespace process_test
