#include "tvkctl/src/session/run_steps.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <limits>
#include <utility>

#include "common/text/text.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kBlanks = " \t\r";
struct token {
    enum class kind { word, text, file, over, behind };

    kind what;
    std::string value; ///< of a text: with its escapes replaced
};

/// Takes a step apart into words, texts, file names and arrows.
class tokenizer {
public:
    explicit tokenizer(const std::string& text) : m_text(text) {}

    std::vector<token> all()
    {
        std::vector<token> found;
        while (skip_blanks())
            found.push_back(next());
        return found;
    }

private:
    bool is_at_end() const { return m_position == m_text.size(); }
    char here() const { return m_text[m_position]; }

    bool takes(char wanted)
    {
        if (is_at_end() || here() != wanted)
            return false;
        ++m_position;
        return true;
    }

    /// False at the end and before a comment.
    bool skip_blanks()
    {
        m_position = std::min(m_text.find_first_not_of(kBlanks, m_position), m_text.size());
        return !is_at_end() && here() != '#';
    }

    token next()
    {
        if (takes('>'))
            return {takes('>') ? token::kind::behind : token::kind::over, {}};
        if (takes('@'))
            return {token::kind::file, name()};
        if (takes('"'))
            return {token::kind::text, quoted_text()};
        return {token::kind::word, word()};
    }

    std::string name() { return takes('"') ? quoted_text() : word(); }

    std::string word()
    {
        const std::size_t end = std::min(m_text.find_first_of(" \t\r\">", m_position), m_text.size());
        std::string found = m_text.substr(m_position, end - m_position);
        m_position = end;
        return found;
    }

    std::string quoted_text()
    {
        std::string found;
        while (!takes('"')) {
            if (is_at_end())
                throw step_error("a text lacks its closing \"");
            found += takes('\\') ? escaped() : m_text[m_position++];
        }
        return found;
    }

    char escaped()
    {
        constexpr const char* names = "nrt0\\\"";
        constexpr const char* values = "\n\r\t\0\\\"";
        if (takes('x'))
            return hex_escape();
        const char* name = is_at_end() ? nullptr : std::strchr(names, here());
        if (name == nullptr || *name == '\0')
            throw step_error("in a text, \\ must be followed by n, r, t, 0, \\, \" or xHH");
        ++m_position;
        return values[name - names];
    }

    char hex_escape()
    {
        const std::string digits = m_text.substr(m_position, 2);
        if (digits.size() != 2 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
            throw step_error("\\x must be followed by two hexadecimal digits");
        m_position += 2;
        return static_cast<char>(std::stoi(digits, nullptr, 16));
    }

    const std::string& m_text;
    std::size_t m_position = 0;
};

bytes parse_hex(const std::string& word)
{
    const bool has_prefix = word.compare(0, 2, "0x") == 0 || word.compare(0, 2, "0X") == 0;
    const std::string digits = has_prefix ? word.substr(2) : word;
    if (digits.empty() || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw step_error(in_quotes(word) + " is not hexadecimal, \"TEXT\" or @FILE");
    if (digits.size() % 2 != 0)
        throw step_error(in_quotes(word) + " has an odd number of hexadecimal digits; a byte has two");
    bytes parsed;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        parsed.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return parsed;
}

send_item parse_item(const token& item)
{
    switch (item.what) {
    case token::kind::word:
        return {{}, parse_hex(item.value)};
    case token::kind::text:
        return {{}, bytes(item.value.begin(), item.value.end())};
    case token::kind::file:
        if (item.value.empty())
            throw step_error("@ must be followed by the name of a file");
        return {item.value, {}};
    case token::kind::over:
    case token::kind::behind:
        break;
    }
    throw step_error("send receives nothing that could go to a file");
}

using arguments = std::vector<token>;

send_step parse_send(const arguments& given)
{
    if (given.empty())
        throw step_error("there is nothing to send; put the whole step in quotes: 'send 01 02'");
    send_step step;
    std::transform(given.begin(), given.end(), std::back_inserter(step.items), parse_item);
    return step;
}

const std::string& only_word(const arguments& given, const std::string& wanted)
{
    if (given.size() != 1 || given[0].what != token::kind::word)
        throw step_error("expected " + wanted + " and nothing else; put the whole step in quotes");
    return given[0].value;
}

bool is_arrow(const token& candidate)
{
    return candidate.what == token::kind::over || candidate.what == token::kind::behind;
}

bool is_name(const token& candidate)
{
    return (candidate.what == token::kind::word || candidate.what == token::kind::text) &&
           !candidate.value.empty();
}

recv_step parse_recv(const arguments& all)
{
    recv_step step{0, {}, false};
    arguments given = all;
    if (const auto arrow = std::find_if(given.begin(), given.end(), is_arrow); arrow != given.end()) {
        if (given.end() - arrow != 2 || !is_name(arrow[1]))
            throw step_error("> must be followed by one file name; put a name with blanks in \"\"");
        step.file = arrow[1].value;
        step.is_appended = arrow->what == token::kind::behind;
        given.erase(arrow, given.end());
    }
    const std::string& size = only_word(given, "the number of bytes");
    const auto parsed = parse_size(size);
    if (!parsed || *parsed == 0)
        throw step_error("invalid size " + in_quotes(size) + "; write " + kSizeForms);
    step.size = *parsed;
    return step;
}

query_step parse_query(const arguments& given)
{
    const std::string& selector = only_word(given, "a selector");
    const auto parsed = parse_number(selector, std::numeric_limits<std::uint32_t>::max());
    if (!parsed)
        throw step_error("invalid selector " + in_quotes(selector) +
                         "; write a number of 32 bits, such as 1 or 0x1");
    return {static_cast<std::uint32_t>(*parsed)};
}

sleep_step parse_sleep(const arguments& given)
{
    const std::string& time = only_word(given, "a time");
    const auto parsed = parse_duration(time);
    if (!parsed)
        throw step_error("invalid time " + in_quotes(time) + "; write " + kTimeForms + ", at most a day");
    return {*parsed};
}

template <auto Parse>
auto parse_as(const arguments& given) -> decltype(run_step::what)
{
    return Parse(given);
}

/// A kind of step, for whoever writes one.
struct step_kind {
    const char* verb;
    const char* operands;
    std::string meaning; ///< one line or several
    decltype(run_step::what) (*parse)(const arguments&);
};

const std::vector<step_kind>& step_kinds()
{
    static const std::vector<step_kind> all = {
        {"send", "ITEM...",
         "ITEM is hexadecimal (1b 45, 1b45, 0x1b45), \"TEXT\" with\n"
         R"(\n \r \t \0 \\ \" \xHH, or @FILE; several are joined)",
         parse_as<parse_send>},
        {"recv", "SIZE [> FILE]",
         std::string("SIZE is ") + kSizeForms + ";\n> FILE replaces the file; >> FILE adds to its end",
         parse_as<parse_recv>},
        {"query", "NUMBER", "asks for the four bytes that selector NUMBER has, 1 or 2",
         parse_as<parse_query>},
        {"sleep", "TIME", std::string("TIME is ") + kTimeForms, parse_as<parse_sleep>},
    };
    return all;
}

/// "send, recv": what `name_of` says of each kind of step.
template <typename Naming>
std::string list_of_kinds(Naming name_of)
{
    std::string list;
    for (const step_kind& kind : step_kinds())
        list += (list.empty() ? "" : ", ") + name_of(kind);
    return list;
}

std::string form_of(const step_kind& kind)
{
    return std::string(kind.verb) + " " + kind.operands;
}

[[noreturn]] void refuse(const std::string& place, const step_error& reason)
{
    throw tool_error(kBadStep, place + ": " + reason.what(),
                     {"A step is one of: " + list_of_kinds(form_of) + "."});
}

std::string without_line_end(std::string line)
{
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

bool is_blank(const std::string& line)
{
    const std::size_t first = line.find_first_not_of(kBlanks);
    return first == std::string::npos || line[first] == '#';
}

bytes read_file(const std::string& name)
{
    std::ifstream file(name, std::ios::binary);
    bytes content{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (!file.is_open() || file.bad())
        throw tool_error(kInputFile, name + " cannot be read: " + std::strerror(errno),
                         {"Check the name after the @."});
    if (content.empty())
        throw tool_error(kInputFile, name + " is empty: there is nothing to send",
                         {"To send a request without bytes, write send \"\"."});
    return content;
}

bytes joined(const std::vector<send_item>& items)
{
    bytes payload;
    for (const send_item& item : items) {
        const bytes part = item.file.empty() ? item.literal : read_file(item.file);
        payload.insert(payload.end(), part.begin(), part.end());
    }
    return payload;
}

} // namespace

run_step parse_step(const std::string& text)
{
    arguments given = tokenizer(text).all();
    if (given.empty() || given[0].what != token::kind::word)
        throw step_error("a step begins with what to do");
    const std::string verb = given[0].value;
    given.erase(given.begin());
    for (const step_kind& kind : step_kinds())
        if (verb == kind.verb)
            return {text, kind.parse(given)};
    throw step_error("unknown step " + in_quotes(verb));
}

std::string step_help()
{
    constexpr std::size_t indent = 22;
    std::string text;
    for (const step_kind& kind : step_kinds()) {
        std::string begin = "  " + form_of(kind);
        for (const std::string& line : split(kind.meaning, '\n')) {
            begin.resize(indent, ' ');
            text += std::exchange(begin, "") + line + "\n";
        }
    }
    return text;
}

std::vector<run_step> parse_steps(const std::vector<std::string>& texts)
{
    std::vector<run_step> steps;
    for (const std::string& text : texts) {
        try {
            steps.push_back(parse_step(text));
        } catch (const step_error& reason) {
            refuse("step " + std::to_string(steps.size() + 1) + ", " + in_quotes(text), reason);
        }
    }
    return steps;
}

std::vector<run_step> read_script(std::istream& script, const std::string& name)
{
    std::vector<run_step> steps;
    std::size_t number = 0;
    for (std::string line; std::getline(script, line);) {
        ++number;
        line = without_line_end(line);
        if (is_blank(line))
            continue;
        try {
            steps.push_back(parse_step(line));
        } catch (const step_error& reason) {
            refuse(name + ":" + std::to_string(number) + ", " + in_quotes(line), reason);
        }
    }
    return steps;
}

void load_files(std::vector<run_step>& steps)
{
    for (run_step& step : steps)
        if (auto* send = std::get_if<send_step>(&step.what))
            send->items = {{{}, joined(send->items)}};
}

} // namespace tarvik::tvkctl
