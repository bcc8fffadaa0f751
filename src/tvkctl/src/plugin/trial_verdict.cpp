#include "tvkctl/src/plugin/trial_verdict.h"

#include <chrono>
#include <string>
#include <utility>

#include "common/text/text.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr const char* kRealAnswers = "Try again with its device's real answers: --answer @FILE.";

std::string joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += (text.empty() ? "" : ", ") + line;
    return text;
}

/// "0.250 s"
std::string time_text(std::chrono::microseconds time)
{
    return time < std::chrono::milliseconds(1) ? "less than 0.001 s" : seconds_text(time);
}

class judgement {
public:
    judgement(const trial_plan& plan, const trial_report& report) : m_plan(plan), m_report(report) {}

    std::vector<finding> all()
    {
        for (const trial_call& call : m_report.calls)
            if (call.step != trial_step::load || m_report.end != trial_report::outcome::not_loadable)
                add_call(call);
        add_end();
        add_buffer();
        add_transfers();
        add_left_behind();
        add_output();
        return std::move(m_findings);
    }

private:
    void add(const char* check, verdict came_out, std::string evidence, std::string advice = {},
             exit_code code = exit_code::ok)
    {
        m_findings.push_back({check, came_out, std::move(evidence), std::move(advice), code});
    }

    void add_call(const trial_call& call);
    void add_failure(const trial_call& call, const std::string& told);
    void add_success(const trial_call& call, const std::string& told);
    void add_end();
    void add_buffer();
    void add_transfers();
    void add_left_behind();
    void add_output();

    bool can_fail(const trial_call& call) const;
    bool moves_nothing() const { return m_plan.script == transfer_script::nothing; }

    const trial_plan& m_plan;
    const trial_report& m_report;
    std::vector<finding> m_findings;
};

/// Whether 0 means failure.
bool judgement::can_fail(const trial_call& call) const
{
    return call.step == trial_step::ctor || call.step == trial_step::writer ||
           call.step == trial_step::reader;
}

void judgement::add_call(const trial_call& call)
{
    const std::string time = time_text(call.time);
    if (!can_fail(call))
        add(trial_step_name(call.step), verdict::good, "returned after " + time);
    else if (call.result == 0)
        add_failure(call, "returned 0 after " + time);
    else
        add_success(call, "returned " + std::to_string(call.result) + " after " + time);
}

void judgement::add_failure(const trial_call& call, const std::string& told)
{
    const char* meaning = call.step == trial_step::ctor ? ": refused to start" : ": failed";
    if (moves_nothing())
        add(trial_step_name(call.step), verdict::good, told + meaning + ", as it may without a device");
    else if (m_plan.script == transfer_script::half && call.step != trial_step::ctor)
        add(trial_step_name(call.step), verdict::warning, told + meaning,
            "Go on with the rest when a transfer moves less than was asked.");
    else
        add(trial_step_name(call.step), verdict::warning, told + meaning, kRealAnswers);
}

void judgement::add_success(const trial_call& call, const std::string& told)
{
    if (moves_nothing() && call.step == trial_step::reader)
        add(trial_step_name(call.step), verdict::warning, told + ", though the device gave nothing",
            "Return 0 when a transfer moves nothing, unless the bytes were there before.");
    else if (moves_nothing() && call.step == trial_step::writer && m_report.writes > 0)
        add(trial_step_name(call.step), verdict::warning, told + ", though the device took nothing",
            "Return 0 when a transfer moves nothing.");
    else
        add(trial_step_name(call.step), verdict::good, told);
}

void judgement::add_end()
{
    const char* step = trial_step_name(m_report.last);
    const std::string place = m_report.place.empty() ? "" : ", at " + m_report.place;
    const std::string words = m_report.words.empty() ? "" : ", " + m_report.words;
    switch (m_report.end) {
    case trial_report::outcome::completed:
    case trial_report::outcome::refused:
        return;
    case trial_report::outcome::not_loadable:
        return add("load", verdict::bad, "the loader says: " + m_report.words,
                   "Install what it names, or link the plugin without it.", exit_code::plugin_not_loadable);
    case trial_report::outcome::threw:
        return add(step, verdict::bad, "let an exception out",
                   "Catch everything: an exception that leaves the plugin ends the process.",
                   exit_code::plugin_crashed);
    case trial_report::outcome::died:
        return add(step, verdict::bad, "ended the process: " + m_report.status.text() + words + place,
                   place.empty() ? "Look for exit() and the like."
                                 : "Find the line with addr2line -fe FILE ADDRESS.",
                   exit_code::plugin_crashed);
    case trial_report::outcome::hung:
        return add(step, verdict::bad,
                   "did not return within " + seconds_text(m_plan.timeout) + place + " after " +
                       std::to_string(m_report.reads + std::uint64_t{m_report.writes}) + " transfers",
                   "Give up when a transfer moves nothing; if it only needs longer: --timeout SECONDS.",
                   exit_code::plugin_hung);
    }
}

void judgement::add_buffer()
{
    if (m_report.left_buffer_untouched)
        add("buffer", verdict::bad, "interpreter_reader told success and left the buffer as it was",
            "Fill all of the buffer, or return 0.", exit_code::plugin_unclean);
}

void judgement::add_transfers()
{
    const std::string count =
        std::to_string(m_report.reads) + " for reading, " + std::to_string(m_report.writes) + " for writing";
    if (m_report.late_transfers > 0)
        add("transfers", verdict::bad,
            count + ", " + std::to_string(m_report.late_transfers) + " of them after interpreter_dtor",
            "End every thread and timer in interpreter_dtor.", exit_code::plugin_unclean);
    else if (m_report.bad_transfers > 0)
        add("transfers", verdict::bad,
            count + ", " + std::to_string(m_report.bad_transfers) + " of them without a buffer or a length",
            "Ask for 1 byte or more, into a buffer.", exit_code::plugin_unclean);
    else
        add("transfers", verdict::good, count);
}

void judgement::add_left_behind()
{
    if (!m_report.threads.empty())
        add("threads", verdict::bad, "still run after interpreter_dtor: " + joined(m_report.threads),
            "Join them in interpreter_dtor: their code is unmapped next.", exit_code::plugin_unclean);
    if (!m_report.descriptors.empty())
        add("descriptors", verdict::warning,
            "still open after interpreter_dtor: " + joined(m_report.descriptors),
            "Close them in interpreter_dtor.");
    if (m_report.has_left_processes)
        add("processes", verdict::warning, "processes that it started outlive it",
            "End them in interpreter_dtor and wait for them.");
}

void judgement::add_output()
{
    if (m_report.output_size > 0)
        add("output", verdict::warning,
            count_of(m_report.output_size, "byte") + " on standard output: " + in_quotes(m_report.output),
            "Print nothing there: nobody empties that pipe, and a full one stops the plugin.");
    if (m_report.errors_size > 0)
        add("errors", verdict::good,
            count_of(m_report.errors_size, "byte") + " on standard error: " + in_quotes(m_report.errors));
}

} // namespace

std::vector<finding> judge_trial(const trial_plan& plan, const trial_report& report)
{
    return judgement(plan, report).all();
}

} // namespace tarvik::tvkctl
