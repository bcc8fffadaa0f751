#pragma once

#include <nlohmann/json_fwd.hpp>

#include <iosfwd>
#include <string>

namespace tarvik::tvkctl {

/// Keeps members in the order in which they were written.
using json = nlohmann::ordered_json;

enum class style { plain, bold, dim, good, warning, bad };

/// Where a command writes: results to one stream, complaints to the other, each knowing whether a person
/// sits at its end. Borrows both streams.
///
/// Threads: one at a time.
class console {
public:
    struct stream {
        std::ostream& to;
        bool is_terminal = false;
        bool has_colours = false;
    };

    console(stream results, stream complaints) : m_out(results), m_err(complaints) {}
    console(const console&) = delete;
    console& operator=(const console&) = delete;

    /// For results; untouched by a command that was asked for JSON, but for the JSON.
    std::ostream& out() { return m_out.to; }
    /// For what passes by while a command works: progress, timing.
    std::ostream& err() { return m_err.to; }
    bool out_is_terminal() const { return m_out.is_terminal; }
    bool err_is_terminal() const { return m_err.is_terminal; }

    /// `text` as out() shall show it: coloured only where somebody sees it.
    std::string styled(style how, const std::string& text) const;

    /// Writes a document, indented, with a newline. Text that is no UTF-8 is written with replacement
    /// characters: strings of devices may hold anything.
    void write(const json& document);

    /// One line on the complaints' stream: "tvkctl: MESSAGE. ADVICE", the second a sentence of its own.
    void error(const std::string& message, const std::string& advice = {});
    /// As error(), for what does not end the command: "tvkctl: warning: MESSAGE".
    void warning(const std::string& message);
    /// As error(), for something that is not an error: "tvkctl: MESSAGE".
    void note(const std::string& message);

private:
    void complain(style how, const std::string& line);

    stream m_out;
    stream m_err;
};

/// A console on standard output and standard error. Colours need a terminal and no NO_COLOR in the
/// environment.
console::stream standard_output();
console::stream standard_error();

} // namespace tarvik::tvkctl
