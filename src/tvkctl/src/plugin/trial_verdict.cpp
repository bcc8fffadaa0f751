#include "tvkctl/src/plugin/trial_verdict.h"

#include <chrono>
#include <string>
#include <utility>

#include "common/text/text.h"
#include "tvkctl/src/plugin/plugin_cause.h"
#include "tvkctl/src/terminal/numbers.h"

namespace tarvik::tvkctl {

namespace {

constexpr cause kGaveUp{"gave_up"};
constexpr cause kFalseSuccess{"false_success"};
constexpr cause kLeftBehind{"left_behind"};
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

    std::vector<check_result> all()
    {
        for (const trial_call& call : m_report.calls)
            if (call.step != trial_step::load || m_report.end != trial_report::outcome::not_loadable)
                add_call(call);
        add_end();
        add_buffer();
        add_transfers();
        add_left_behind();
        add_output();
        return std::move(m_results);
    }

private:
    void add_ok(const char* check, std::string summary)
    {
        m_results.push_back({outcome::ok, {}, std::move(summary), {}, {}, check});
    }

    void add_warning(const char* check, cause why, std::string summary, std::string next)
    {
        m_results.push_back({outcome::warning, why, std::move(summary), {}, {std::move(next)}, check});
    }

    void add_failed(const char* check, cause why, std::string summary, std::string next)
    {
        m_results.push_back({outcome::failed, why, std::move(summary), {}, {std::move(next)}, check});
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
    std::vector<check_result> m_results;
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
        add_ok(trial_step_name(call.step), "returned after " + time);
    else if (call.result == 0)
        add_failure(call, "returned 0 after " + time);
    else
        add_success(call, "returned " + std::to_string(call.result) + " after " + time);
}

void judgement::add_failure(const trial_call& call, const std::string& told)
{
    const char* meaning = call.step == trial_step::ctor ? ": refused to start" : ": failed";
    if (moves_nothing())
        add_ok(trial_step_name(call.step), told + meaning + ", as it may without a device");
    else if (m_plan.script == transfer_script::half && call.step != trial_step::ctor)
        add_warning(trial_step_name(call.step), kGaveUp, told + meaning,
                    "Go on with the rest when a transfer moves less than was asked.");
    else
        add_warning(trial_step_name(call.step), kGaveUp, told + meaning, kRealAnswers);
}

void judgement::add_success(const trial_call& call, const std::string& told)
{
    if (moves_nothing() && call.step == trial_step::reader)
        add_warning(trial_step_name(call.step), kFalseSuccess, told + ", though the device gave nothing",
                    "Return 0 when a transfer moves nothing, unless the bytes were there before.");
    else if (moves_nothing() && call.step == trial_step::writer && m_report.writes > 0)
        add_warning(trial_step_name(call.step), kFalseSuccess, told + ", though the device took nothing",
                    "Return 0 when a transfer moves nothing.");
    else
        add_ok(trial_step_name(call.step), told);
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
        return add_failed("load", plugin_cause::kNotLoadable, "the loader says: " + m_report.words,
                          "Install what it names, or link the plugin without it.");
    case trial_report::outcome::threw:
        return add_failed(step, plugin_cause::kCrashed, "threw an exception",
                          "Catch everything: an exception that leaves the plugin ends the process.");
    case trial_report::outcome::died:
        return add_failed(step, plugin_cause::kCrashed,
                          "ended the process: " + m_report.status.text() + words + place,
                          place.empty() ? "Look for exit() and the like."
                                        : "Find the line with addr2line -fe FILE ADDRESS.");
    case trial_report::outcome::hung:
        return add_failed(
            step, plugin_cause::kHung,
            "did not return within " + seconds_text(m_plan.timeout) + place + " after " +
                std::to_string(m_report.reads + std::uint64_t{m_report.writes}) + " transfers",
            "Give up when a transfer moves nothing; if it only needs longer: --timeout SECONDS.");
    }
}

void judgement::add_buffer()
{
    if (m_report.left_buffer_untouched)
        add_failed("buffer", plugin_cause::kUnclean,
                   "interpreter_reader reported success and left the buffer as it was",
                   "Fill all of the buffer, or return 0.");
}

void judgement::add_transfers()
{
    const std::string count =
        std::to_string(m_report.reads) + " for reading, " + std::to_string(m_report.writes) + " for writing";
    if (m_report.late_transfers > 0)
        add_failed("transfers", plugin_cause::kUnclean,
                   count + ", " + std::to_string(m_report.late_transfers) + " of them after interpreter_dtor",
                   "End every thread and timer in interpreter_dtor.");
    else if (m_report.bad_transfers > 0)
        add_failed("transfers", plugin_cause::kUnclean,
                   count + ", " + std::to_string(m_report.bad_transfers) +
                       " of them without a buffer or a length",
                   "Ask for 1 byte or more, into a buffer.");
    else
        add_ok("transfers", count);
}

void judgement::add_left_behind()
{
    if (!m_report.threads.empty())
        add_failed("threads", plugin_cause::kUnclean,
                   "still run after interpreter_dtor: " + joined(m_report.threads),
                   "Join them in interpreter_dtor: their code is unmapped next.");
    if (!m_report.descriptors.empty())
        add_warning("descriptors", kLeftBehind,
                    "still open after interpreter_dtor: " + joined(m_report.descriptors),
                    "Close them in interpreter_dtor.");
    if (m_report.has_left_processes)
        add_warning("processes", kLeftBehind, "processes that it started outlive it",
                    "End them in interpreter_dtor and wait for them.");
}

void judgement::add_output()
{
    if (m_report.output_size > 0)
        add_warning("output", cause{"output"},
                    count_of(m_report.output_size, "byte") +
                        " on standard output: " + in_quotes(m_report.output),
                    "Print nothing there: nobody empties that pipe, and a full one stops the plugin.");
    if (m_report.errors_size > 0)
        add_ok("errors",
               count_of(m_report.errors_size, "byte") + " on standard error: " + in_quotes(m_report.errors));
}

} // namespace

std::vector<check_result> judge_trial(const trial_plan& plan, const trial_report& report)
{
    return judgement(plan, report).all();
}

} // namespace tarvik::tvkctl
