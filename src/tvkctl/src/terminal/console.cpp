#include "tvkctl/src/terminal/console.h"

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "common/text/text.h"

namespace tarvik::tvkctl {

namespace {

const char* sequence_of(style how)
{
    switch (how) {
    case style::plain:
        break;
    case style::bold:
        return "\033[1m";
    case style::dim:
        return "\033[2m";
    case style::good:
        return "\033[32m";
    case style::warning:
        return "\033[33m";
    case style::bad:
        return "\033[1;31m";
    }
    return "";
}

std::string coloured(style how, const std::string& text)
{
    return how == style::plain ? text : sequence_of(how) + text + "\033[0m";
}

console::stream stream_of(std::ostream& to, int descriptor)
{
    const bool is_terminal = isatty(descriptor) == 1;
    const char* refusal = std::getenv("NO_COLOR");
    const char* kind = std::getenv("TERM");
    const bool is_dumb = kind == nullptr || std::string(kind) == "dumb";
    return {to, is_terminal, is_terminal && !is_dumb && (refusal == nullptr || *refusal == '\0')};
}

/// Messages quote foreign text; whatever it holds, the complaint stays one line.
std::string on_one_line(std::string text)
{
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return harmless(text, keep::all_but_control, " ");
}

} // namespace

std::string console::styled(style how, const std::string& text) const
{
    return m_out.has_colours ? coloured(how, text) : text;
}

void console::write(const json& document)
{
    out() << document.dump(2, ' ', false, json::error_handler_t::replace) << '\n';
}

void console::error(const std::string& message, const std::string& advice)
{
    complain(style::bad, message + (advice.empty() ? "" : ". " + advice));
}

void console::warning(const std::string& message)
{
    complain(style::warning, "warning: " + message);
}

void console::note(const std::string& message)
{
    complain(style::plain, message);
}

void console::complain(style how, const std::string& line)
{
    m_out.to.flush(); // so that the complaint stands behind the result that it is about
    const std::string text = "tvkctl: " + on_one_line(line);
    m_err.to << (m_err.has_colours ? coloured(how, text) : text) << std::endl;
}

console::stream standard_output()
{
    return stream_of(std::cout, STDOUT_FILENO);
}

console::stream standard_error()
{
    return stream_of(std::cerr, STDERR_FILENO);
}

} // namespace tarvik::tvkctl
