#include "tvkctl/src/session/run_session.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>
#include <variant>

#include "common/process/interrupts.h"
#include "common/text/text.h"
#include "tvkctl/src/machine/tool_error.h"
#include "tvkctl/src/session/receive_file.h"

namespace tarvik::tvkctl {

namespace {

using std::chrono::steady_clock;

class session {
public:
    session(const session_plan& plan, run_report& report)
        : m_plan(plan), m_report(report), m_scanner(start(plan))
    {
        m_scanner.connect();
    }

    void run()
    {
        try {
            open();
            for (std::size_t i = 0; i < m_plan.steps.size(); ++i)
                perform(i + 1, m_plan.steps[i]);
        } catch (const tool_error&) {
            leave();
            throw;
        }
        close();
    }

private:
    static front_end start(const session_plan& plan)
    {
        return plan.port ? front_end(*plan.port) : front_end(launch{plan.program});
    }

    /// Lets the program park its scanner before an error is reported.
    void leave()
    {
        try {
            m_scanner.finish();
        } catch (const front_end_error&) {
            // What ended the session matters more than a program that is still running.
        }
    }

    void open()
    {
        const auto answer =
            timed("open " + m_plan.udi, [this] { return m_scanner.open(m_plan.udi, m_plan.timeout).kind; });
        if (answer != reply::verdict::ok)
            throw tool_error(kOpenRefused,
                             "the program cannot open " + m_plan.udi + ": it answers " + name_of(answer),
                             {{tool_step::explain, m_plan.udi, "See why with"}});
    }

    void perform(std::size_t number, const run_step& step)
    {
        const std::string place = "step " + std::to_string(number) + ", " + in_quotes(step.text) + ": ";
        m_moved = 0;
        m_keptIn.clear();
        try {
            stop_if_interrupted();
            const auto answer = timed(step.text, [&] {
                return std::visit([this](const auto& what) { return carry_out(what); }, step.what);
            });
            if (answer != reply::verdict::ok)
                throw tool_error(kRequestRefused, std::string("the program answers ") + name_of(answer),
                                 {{tool_step::show_log, "",
                                   "The plugin or the scanner refused; the program's log says more"}});
        } catch (const tool_error& error) {
            throw tool_error(error.why(), place + error.what() + what_is_left(), error.next());
        } catch (const front_end_error& error) {
            throw front_end_error(error.cause(), place + error.step(), error.expected(),
                                  error.came() + what_is_left());
        }
    }

    reply::verdict carry_out(const send_step& step)
    {
        byte_view rest = step.items.front().literal;
        m_report.sending(rest);
        const std::size_t most = m_plan.chunk.value_or(std::numeric_limits<std::uint32_t>::max());
        auto answer = reply::verdict::ok;
        do {
            const byte_view piece(rest.data, std::min(rest.size, most));
            answer = m_scanner.send(piece, m_plan.timeout).kind;
            m_moved += piece.size;
            rest = byte_view(rest.data + piece.size, rest.size - piece.size);
        } while (!rest.empty() && answer == reply::verdict::ok);
        return answer;
    }

    reply::verdict carry_out(const recv_step& step)
    {
        std::optional<receive_file> file;
        if (!step.file.empty())
            file.emplace(step.file, step.is_appended);
        m_keptIn = step.file;
        m_report.receiving({step.size, step.file});
        const auto take = [&](byte_view piece) {
            if (file)
                file->write(piece);
            m_moved += piece.size;
            m_report.received(piece);
            stop_if_interrupted();
        };
        return m_scanner.recv(step.size, m_plan.chunk.value_or(kReceiveChunk), take, m_plan.timeout).last;
    }

    reply::verdict carry_out(const query_step& step)
    {
        const reply answer = m_scanner.query(step.selector, m_plan.timeout);
        m_report.receiving({answer.payload.size(), {}});
        m_report.received(answer.payload);
        return answer.kind;
    }

    reply::verdict carry_out(const sleep_step& step)
    {
        interrupt_watch::pause(step.time);
        stop_if_interrupted();
        return reply::verdict::ok;
    }

    void close()
    {
        std::optional<exit_status> status;
        timed("close", [&] {
            m_scanner.close(m_plan.timeout);
            status = m_scanner.finish();
            return reply::verdict::ok;
        });
        if (status && *status != exit_status::exited(0))
            throw tool_error(kProgramFailed, "the program ended with " + status->text(),
                             {"Its last lines on standard error and in its log say why."});
    }

    template <typename Work>
    reply::verdict timed(const std::string& text, Work work)
    {
        m_moved = 0;
        m_report.begin(text);
        const auto begin = steady_clock::now();
        const reply::verdict answer = work();
        m_report.end({name_of(answer), m_moved, steady_clock::now() - begin});
        return answer;
    }

    static void stop_if_interrupted()
    {
        if (interrupt_watch::was_interrupted())
            throw tool_error(kInterrupted, "interrupted");
    }

    /// Where the bytes are that a failed receive has brought.
    std::string what_is_left() const
    {
        if (m_keptIn.empty())
            return m_moved == 0 ? "" : " after " + count_of(m_moved, "byte");
        return "; " + m_keptIn + " keeps the " + count_of(m_moved, "byte") + " that came";
    }

    const session_plan& m_plan;
    run_report& m_report;
    front_end m_scanner;
    std::uint64_t m_moved = 0; ///< bytes of this step
    std::string m_keptIn;      ///< file of this step's receive
};

} // namespace

void run_session(const session_plan& plan, run_report& report)
{
    const interrupt_watch watch;
    try {
        session(plan, report).run();
        report.succeeded();
    } catch (const tool_error& error) {
        report.failed(error.what());
        throw;
    } catch (const front_end_error& error) {
        report.failed(error.what());
        throw;
    }
}

} // namespace tarvik::tvkctl
